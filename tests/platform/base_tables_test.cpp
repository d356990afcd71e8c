// Hash tables and heaps.
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tavbase.h"

namespace {

// A table of int keys whose values are ints on the heap; live counts the values not released yet.
class XhashTest : public ::testing::Test {
  protected:
    ~XhashTest() override {
        xhash_destroy(table);
        EXPECT_EQ(live, 0);
    }

    static void release(void *value) {
        --live;
        delete static_cast<int *>(value);
    }
    void insert(int key) {
        ++live;
        ASSERT_EQ(xhash_insert(table, &key, sizeof key, new int(key)), 0);
    }
    void fill(int count) {
        for (int key = 0; key < count; ++key) insert(key);
    }
    int erase(int key) { return xhash_delete(table, &key, sizeof key); }

    template <typename Action> static int visit(const void *, uint32_t key_len, void *value, void *action) {
        EXPECT_EQ(key_len, sizeof(int));
        return (*static_cast<Action *>(action))(*static_cast<int *>(value));
    }
    template <typename Action> int walk(Action action) { return xhash_walk(table, &action, visit<Action>); }
    // The keys that so many partial walks visit.
    std::set<int> portions(xhash_cookie_t *cookie, int calls) {
        std::set<int> seen;
        auto action = [&](int key) { return seen.insert(key), 0; };
        for (int i = 0; i < calls; ++i)
            EXPECT_EQ(xhash_walk_partial(table, cookie, &action, visit<decltype(action)>), 0);
        return seen;
    }

    static inline int live = 0;
    xhash_t *table = xhash_create(release, 0);
};

TEST_F(XhashTest, BehavesAsAMapUnderRandomOperations) {
    std::map<std::string, int *> model;
    std::mt19937 random(20240501);
    for (int step = 0; step < 50'000; ++step) {
        const std::string key(random() % 40,
                              static_cast<char>(random() % 8)); // length 0 and bytes 0 included
        const auto length = static_cast<uint32_t>(key.size());
        void *found = nullptr;
        const bool known = model.contains(key);
        switch (random() % 3) {
        case 0:
            ++live;
            ASSERT_EQ(xhash_insert(table, key.data(), length, model[key] = new int(step)), 0);
            break;
        case 1:
            ASSERT_EQ(xhash_delete(table, key.data(), length), model.erase(key) ? 0 : -1);
            break;
        default:
            ASSERT_EQ(xhash_search(table, key.data(), length, &found), known ? 0 : -1);
            ASSERT_EQ(found, known ? model[key] : nullptr);
        }
        ASSERT_EQ(xhash_count(table), model.size());
        ASSERT_EQ(live, static_cast<int>(model.size())); // replaced and deleted values were released once
    }
}

TEST_F(XhashTest, ValueInsertedAgainStaysAndMayHoldTheKeyOfItsDeletion) {
    int *value = new int(77);
    ++live;
    for (int i = 0; i < 2; ++i) ASSERT_EQ(xhash_insert(table, value, sizeof *value, value), 0);
    EXPECT_EQ(live, 1);
    EXPECT_EQ(xhash_delete(table, value, sizeof *value), 0);
    EXPECT_EQ(live, 0);
}

TEST_F(XhashTest, VisitorDeletesAnyEntryAndInsertsMany) {
    constexpr int kCount = 500;
    for (const int distance : {0, 1, 7, 250}) { // of the victim; 0: the visited entry itself
        fill(kCount);
        std::multiset<int> visited;
        std::set<int> deleted;
        EXPECT_EQ(walk([&](int key) {
                      EXPECT_FALSE(deleted.contains(key)) << "visited after its deletion";
                      visited.insert(key);
                      if (key >= kCount) return 0;
                      const int victim = (key + distance) % kCount;
                      if (erase(victim) == 0) deleted.insert(victim);
                      for (int more : {1, 2}) insert(more * kCount + key); // the buckets become too few
                      return 0;
                  }),
                  0);
        for (int key = 0; key < kCount; ++key)
            EXPECT_TRUE(visited.count(key) == 1 || (visited.count(key) == 0 && deleted.contains(key))) << key;
        EXPECT_EQ(walk([&](int key) { return erase(key); }), 0);
        EXPECT_EQ(xhash_count(table), 0u);
    }
    fill(100);
    int calls = 0;
    EXPECT_EQ(walk([&](int) { return ++calls == 3 ? 42 : 0; }), 42);
    EXPECT_EQ(calls, 3);
}

TEST_F(XhashTest, NestedWalkMayDeleteWhatTheOuterOneStandsOn) {
    for (int round = 0; round < 50; ++round) { // other keys, other chains
        for (int key = 0; key < 16; ++key) insert(100 * round + key);
        int visits = 0;
        EXPECT_EQ(walk([&](int) { return ++visits, walk([&](int key) { return erase(key); }); }), 0);
        EXPECT_EQ(visits, 1) << "nothing is left behind the first entry";
    }
}

TEST_F(XhashTest, PartialWalksCoverTheTableInTheFewestCalls) {
    fill(1000);
    for (const float fraction : {1.0f / 60, 1.0f / 49, 0.3f, 1.0f}) {
        xhash_cookie_t *cookie = xhash_cookie_create(fraction);
        const int calls = static_cast<int>(std::ceil(1 / static_cast<double>(fraction)));
        for (int round = 0; round < 3; ++round) // from whatever position the round before has left
            EXPECT_EQ(portions(cookie, calls).size(), 1000u) << fraction;
        const size_t portion = portions(cookie, 1).size();
        EXPECT_LE(portion, calls == 1 ? 1000u : 500u) << "not the whole table at once";
        xhash_cookie_destroy(cookie);
    }
    for (const float fraction : {0.0f, -1.0f, NAN}) EXPECT_EQ(xhash_cookie_create(fraction), nullptr);
}

TEST_F(XhashTest, CookieOutlivesGrowthAndTable) {
    xhash_cookie_t *cookie = xhash_cookie_create(1.0f / 60);
    fill(3);
    portions(cookie, 37);
    for (int key = 3; key < 5000; ++key) insert(key);
    EXPECT_EQ(portions(cookie, 60).size(), 5000u);
    portions(cookie, 59);

    xhash_destroy(std::exchange(table, nullptr));
    EXPECT_EQ(xhash_walk_partial(nullptr, cookie, nullptr, visit<int (*)(int)>), -1);
    table = xhash_create(release, 0); // smaller than the position
    fill(1);
    EXPECT_EQ(portions(cookie, 60).size(), 1u);
    xhash_cookie_destroy(cookie);
}

TEST(Heap, GivesEntriesInOrderAndOnlyDestroy2Releases) {
    const auto by_number = [](const void *a, const void *b) {
        return *static_cast<const int *>(a) - *static_cast<const int *>(b);
    };
    static int released;
    released = 0;
    heap_t *heap = heap_create2([](void *) { ++released; }, by_number, 0);
    std::vector<int> numbers(2000);
    std::multiset<int> inside;
    std::mt19937 random(7);
    for (int &number : numbers) {
        number = static_cast<int>(random() % 500);
        ASSERT_EQ(heap_push(heap, &number), 0);
        inside.insert(number);
        ASSERT_EQ(*static_cast<int *>(heap_top(heap)), *inside.begin());
        if (random() % 3 == 0) {
            void *entry = nullptr;
            ASSERT_EQ(heap_pop(heap, &entry), 0);
            ASSERT_EQ(*static_cast<int *>(entry), *inside.begin());
            inside.erase(inside.begin());
        }
        ASSERT_EQ(heap_count(heap), inside.size());
    }
    EXPECT_EQ(released, 0);
    heap_destroy2(heap);
    EXPECT_EQ(released, static_cast<int>(inside.size()));

    heap = heap_create(by_number);
    EXPECT_EQ(heap_top(heap), nullptr);
    EXPECT_EQ(heap_pop(heap, nullptr), -1);
    ASSERT_EQ(heap_push(heap, numbers.data()), 0);
    heap_destroy(heap);
}

} // namespace
