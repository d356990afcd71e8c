// Hash tables and heaps.
#include <cmath>
#include <functional>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "tavbase.h"

// A table of int keys whose values are the same ints on the heap; live counts those not released yet.
struct Xhash : ::testing::Test {
    ~Xhash() override {
        xhash_destroy(table);
        EXPECT_EQ(live, 0);
    }
    static void release(void *value) { delete (--live, static_cast<int *>(value)); }
    static int *make(int value) { return new int((++live, value)); }
    void insert(int key) { EXPECT_EQ(xhash_insert(table, &key, sizeof key, make(key)), 0); }
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
        void *value = random() % 2 ? make(step) : nullptr, *found = nullptr;
        if (value)
            ASSERT_EQ((model.insert(key), xhash_insert(table, key.data(), length, value)), 0);
        else
            ASSERT_EQ(xhash_delete(table, key.data(), length), model.erase(key) ? 0 : -1);
        ASSERT_EQ(xhash_search(table, key.data(), length, &found), value ? 0 : -1);
        ASSERT_EQ(found, value);
        ASSERT_EQ(xhash_count(table), model.size());
        ASSERT_EQ(live, static_cast<int>(model.size()));
    }
    int *value = make(77); // inserted again it stays, and its deletion may use a key inside it
    for (int i = 0; i < 2; ++i) EXPECT_EQ(xhash_insert(table, value, sizeof *value, value), 0);
    EXPECT_EQ(xhash_delete(table, value, sizeof *value), 0);
}

TEST_F(Xhash, VisitorDeletesAnyEntryInsertsManyAndWalks) {
    for (const int distance : {0, 1}) { // of the deleted entry; 0: the visited one itself
        fill(0, 500);
        std::set<int> done; // visited, or deleted before
        const auto action = [&](int key) {
            if (key >= 500) return 0;
            EXPECT_TRUE(done.insert(key).second) << key;
            if (erase((key + distance) % 500) == 0) done.insert((key + distance) % 500);
            return insert(500 + key), insert(1000 + key), 0; // the buckets become too few
        };
        EXPECT_EQ(walk(action), 0);
        EXPECT_EQ(done.size(), 500u);
        int visits = 0; // the inner walk deletes the entry that the outer one is at, and all others
        EXPECT_EQ(walk([&](int) { return ++visits, walk([&](int key) { return erase(key); }); }), 0);
        EXPECT_EQ(visits, 1);
    }
    fill(0, 16);
    EXPECT_EQ(walk([visits = 0](int) mutable { return ++visits == 4 ? 42 + visits : 0; }), 46);
}

TEST_F(Xhash, PartialWalksCoverTheTableInTheFewestCalls) {
    for (const float fraction : {0.0f, -1.0f, NAN}) EXPECT_EQ(xhash_cookie_create(fraction), nullptr);
    std::set<int> seen;
    Action note = [&](int key) { return seen.insert(key), 0; };
    for (const auto &[fraction, calls] : {std::pair{1.0f, 1}, {0.3f, 4}, {1.0f / 49, 49}}) {
        xhash_cookie_t *cookie = xhash_cookie_create(fraction);
        for (const int size : {1000, 5000}) { // each begins where the last one ended
            fill(static_cast<int>(xhash_count(table)), size);
            seen.clear();
            for (int i = 0; i < calls; ++i) {
                EXPECT_EQ(xhash_walk_partial(table, cookie, &note, visit), 0);
                EXPECT_EQ(seen.size() == xhash_count(table), i == calls - 1);
            }
        }
        xhash_cookie_destroy(cookie);
    }
}

TEST(Heap, GivesEntriesInOrderAndOnlyDestroy2Releases) {
    static int released;
    released = 0;
    static const auto number_at = [](const void *entry) { return *static_cast<const int *>(entry); };
    const auto compare = [](const void *a, const void *b) { return number_at(a) - number_at(b); };
    heap_t *heap = heap_create2([](void *) { ++released; }, compare, 0);
    std::multiset<int> model;
    std::vector<int> numbers(2000);
    std::mt19937 random(7);
    for (int &number : numbers) {
        model.insert(number = static_cast<int>(random() % 500));
        EXPECT_EQ(heap_push(heap, &number), 0);
        EXPECT_EQ(number_at(heap_top(heap)), *model.begin());
        if (random() % 3 != 0) continue;
        EXPECT_EQ(heap_pop(heap, nullptr), 0);
        model.erase(model.begin());
    }
    EXPECT_EQ(heap_count(heap), model.size());
    EXPECT_EQ(released, 0);
    heap_destroy2(heap);
    EXPECT_EQ(released, static_cast<int>(model.size()));
}
