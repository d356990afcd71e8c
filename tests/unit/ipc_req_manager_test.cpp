// Outstanding requests: when they expire, and when the heap of expiries is rebuilt.
#include "tavipc/ipc_req_manager.h"

#include "fakes.h"

using Ids = std::vector<uint32_t>;
static Ids released;

struct ReqManagerTest : FakeWorld {
    ReqManagerTest() {
        released.clear();
        ipc_req_manager_init(
            &m_, [](void *r) { released.push_back(id_of(r)); }, on_timeout, this);
    }
    ~ReqManagerTest() override { ipc_req_manager_uninit(&m_); }
    static uint32_t id_of(void *record) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record)); }
    static void on_timeout(uint32_t reqid, void *record, void *user) {
        auto *self = static_cast<ReqManagerTest *>(user);
        self->expired_.push_back(id_of(record));
        ipc_req_manager_remove(&self->m_, reqid);
        if (const auto then = std::exchange(self->then_, nullptr)) then();
    }
    int insert(uint32_t reqid, uint32_t in_ms) {
        const auto expire_ms = static_cast<int64_t>(w.clock.loop_ms + in_ms);
        return ipc_req_manager_insert(&m_, reqid, reinterpret_cast<void *>(uintptr_t{reqid}), expire_ms);
    }
    // Adds that many heap entries, of which the lowest ids stay live.
    void fill(uint32_t entries, uint32_t live) {
        for (uint32_t id = 1; id <= entries; ++id) insert(id, 1'000'000 + id);
        for (uint32_t id = live + 1; id <= entries; ++id) ipc_req_manager_remove(&m_, id);
    }

    ipc_req_manager_st m_;
    Ids expired_;
    std::function<void()> then_; // runs inside the next time-out
};

TEST_F(ReqManagerTest, ExpiresStrictlyAfterItsTimeInOrder) {
    const uint32_t requests[][2] = {{1, 2001}, {2, 999}, {3, 1000}, {4, 500}, {5, 600}};
    for (const auto &[id, in_ms] : requests) insert(id, in_ms);
    ipc_req_manager_remove(&m_, 5);
    for (const Ids &expected : {Ids{4, 2}, Ids{4, 2, 3}, Ids{4, 2, 3, 1}}) {
        EXPECT_EQ(w.event.timers.size(), 1u);
        w.event.advance(1000);
        EXPECT_EQ(expired_, expected);
    }
    EXPECT_TRUE(w.event.timers.empty());
    EXPECT_EQ(released, (Ids{5, 4, 2, 3, 1}));
}

TEST_F(ReqManagerTest, ExpiresWhileACallbackRunsTheLoop) {
    for (const uint32_t id : {8, 9}) insert(id, 1000 * (id - 7) - 1);
    then_ = [&] {
        w.event.advance(1000);
        EXPECT_EQ(expired_, (Ids{8, 9}));
    };
    w.event.advance(1000);
}

TEST_F(ReqManagerTest, HeapIsRebuiltWhenTooMuchOfItIsStale) {
    const uint32_t cases[][3] = {{87'380, 0, 87'381},         {87'381, 0, 1},
                                 {99'999, 49'998, 49'999},    {99'999, 49'999, 100'000},
                                 {873'814, 436'907, 873'815}, {936'907, 499'999, 500'000}};
    for (const auto &[entries, live, left] : cases) {
        w.clock.loop_ms = 0; // the clock of an event library may begin with the process
        fill(entries, live);
        insert(entries + 1, 1'000'000);
        EXPECT_EQ(heap_count(m_.expiry_heap), left) << entries << " " << live;
        w.event.advance(2'000'000);
        EXPECT_EQ(std::exchange(expired_, {}).size(), live + 1);
    }
}

TEST_F(ReqManagerTest, ShortMemoryLosesNoExpiry) {
    w.event.fail_timers = 1;
    EXPECT_EQ(insert(200'000, 0), -1) << "it would never expire";
    fill(120'000, 40'000);
    w.memory.largest_heap = 30'000;
    w.event.advance(1000);
    EXPECT_EQ(heap_count(m_.expiry_heap), 120'000u);
    w.memory.largest_heap = UINT32_MAX, w.memory.fail_push = 1;
    EXPECT_EQ(insert(120'001, 0), -1);
    w.event.advance(1000);
    EXPECT_EQ(heap_count(m_.expiry_heap), 40'000u) << "the next tick rebuilds it";
    w.event.advance(2'000'000);
    EXPECT_EQ(expired_.size(), 40'000u);
}
