// Hash tables and heaps.
#include <cmath>
#include <functional>
#include <queue>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "tavbase.h"

namespace {

// A table of int keys whose values are the same ints on the heap; live counts those not released yet.
class Xhash : public ::testing::Test {
  protected:
    ~Xhash() override {
        xhash_destroy(table);
        EXPECT_EQ(live, 0);
    }
    static void release(void *value) { delete (--live, static_cast<int *>(value)); }
    void insert(int key) { EXPECT_EQ(xhash_insert(table, &key, sizeof key, new int((++live, key))), 0); }
    void fill(int first, int end) {
        for (int key = first; key < end; ++key) insert(key);
    }
    int erase(int key) { return xhash_delete(table, &key, sizeof key); }

    using Action = std::function<int(int key)>;
    static int visit(const void *, uint32_t, void *value, void *action) {
        return (*static_cast<Action *>(action))(*static_cast<int *>(value));
    }
    int walk(Action action) { return xhash_walk(table, &action, visit); }

    static inline int live = 0;
    xhash_t *table = xhash_create(release, 0);
};

TEST_F(Xhash, BehavesAsASetOfKeysUnderRandomOperations) {
    std::set<std::string> model;
    std::mt19937 random(20240501);
    for (int step = 0; step < 50'000; ++step) {
        const std::string key(random() % 40, static_cast<char>(random() % 8)); // also empty, also of zeros
        const auto length = static_cast<uint32_t>(key.size());
        void *value = random() % 2 ? new int((++live, step)) : nullptr, *found = nullptr;
        if (value)
            ASSERT_EQ((model.insert(key), xhash_insert(table, key.data(), length, value)), 0);
        else
            ASSERT_EQ(xhash_delete(table, key.data(), length), model.erase(key) ? 0 : -1);
        ASSERT_EQ(xhash_search(table, key.data(), length, &found), value ? 0 : -1);
        ASSERT_EQ(found, value);
        ASSERT_EQ(xhash_count(table), model.size());
        ASSERT_EQ(live, static_cast<int>(model.size()));
    }
    int *value = new int((++live, 77)); // inserted again it stays, and its deletion may use a key inside it
    for (int i = 0; i < 2; ++i) EXPECT_EQ(xhash_insert(table, value, sizeof *value, value), 0);
    EXPECT_EQ(xhash_delete(table, value, sizeof *value), 0);
}

TEST_F(Xhash, VisitorDeletesAnyEntryInsertsManyAndWalks) {
    for (const int distance : {0, 1, 7, 250}) { // of the victim; 0: the visited entry itself
        fill(0, 500);
        std::multiset<int> seen; // visited, or deleted before
        const auto action = [&](int key) {
            seen.insert(key);
            if (key >= 500) return 0;
            const int victim = (key + distance) % 500;
            if (erase(victim) == 0 && !seen.contains(victim)) seen.insert(victim);
            return insert(500 + key), insert(1000 + key), 0; // the buckets become too few
        };
        EXPECT_EQ(walk(action), 0);
        for (int key = 0; key < 500; ++key) EXPECT_EQ(seen.count(key), 1u) << key;
        EXPECT_EQ(walk([&](int key) { return erase(key); }), 0);
    }
    for (int round = 0; round < 50; ++round) { // other keys, other chains
        fill(100 * round, 100 * round + 16);
        int visits = 0; // the inner walk deletes the entry that the outer one is at, and all others
        EXPECT_EQ(walk([&](int) { return ++visits, walk([&](int key) { return erase(key); }); }), 0);
        EXPECT_EQ(visits, 1);
    }
    fill(0, 16);
    EXPECT_EQ(walk([visits = 0](int) mutable { return ++visits == 4 ? 42 + visits : 0; }), 46);
}

TEST_F(Xhash, PartialWalksCoverTheTableInTheFewestCalls) {
    for (const float fraction : {0.0f, -1.0f, NAN}) EXPECT_EQ(xhash_cookie_create(fraction), nullptr);
    for (const float fraction : {1.0f, 0.3f, 1.0f / 49, 1.0f / 60}) {
        const int calls = static_cast<int>(std::ceil(1 / static_cast<double>(fraction)));
        xhash_cookie_t *cookie = xhash_cookie_create(fraction);
        const auto keys_seen = [&](int walks) {
            std::set<int> seen;
            Action action = [&](int key) { return seen.insert(key), 0; };
            while (walks-- > 0) EXPECT_EQ(xhash_walk_partial(table, cookie, &action, visit), 0);
            return seen.size();
        };
        for (const int size : {1000, 1500, 5000}) {
            fill(static_cast<int>(xhash_count(table)), size);
            EXPECT_EQ(keys_seen(calls), xhash_count(table));
            EXPECT_LE(keys_seen(1), calls == 1 ? 5000u : xhash_count(table) / 2); // a new position
        }
        xhash_cookie_destroy(cookie);
    }
}

TEST(Heap, GivesEntriesInOrderAndOnlyDestroy2Releases) {
    static int released;
    released = 0;
    heap_t *heap = heap_create2([](void *) { ++released; },
                                [](const void *a, const void *b) {
                                    return *static_cast<const int *>(a) - *static_cast<const int *>(b);
                                },
                                0);
    std::priority_queue<int, std::vector<int>, std::greater<>> model;
    std::vector<int> numbers(2000);
    std::mt19937 random(7);
    for (int &number : numbers) {
        model.push(number = static_cast<int>(random() % 500));
        EXPECT_EQ(heap_push(heap, &number), 0);
        EXPECT_EQ(*static_cast<int *>(heap_top(heap)), model.top());
        if (random() % 3 != 0) continue;
        EXPECT_EQ(heap_pop(heap, nullptr), 0);
        model.pop();
    }
    EXPECT_EQ(heap_count(heap), model.size());
    EXPECT_EQ(released, 0);
    heap_destroy2(heap);
    EXPECT_EQ(released, static_cast<int>(model.size()));
}

} // namespace
