#include "tavipc/ipc_req_manager.h"

#include <deque>

#include "fakes.h"

using Ids = std::vector<uint32_t>;
static Ids released;

class ReqManagerTest : public FakeWorld {
  protected:
    ReqManagerTest() { restart(); }
    ~ReqManagerTest() override {
        stop();
        EXPECT_TRUE(w.event.timers.empty());
    }
    void restart() {
        stop();
        released.clear();
        const auto release = [](void *record) { released.push_back(id_of(record)); };
        m_ = new ipc_req_manager_st;
        ASSERT_EQ(ipc_req_manager_init(m_, release, on_timeout, this), 0);
    }
    void stop() {
        ipc_req_manager_uninit(m_);
        delete std::exchange(m_, nullptr);
    }
    static uint32_t id_of(void *record) { return *static_cast<uint32_t *>(record); }
    static void on_timeout(uint32_t reqid, void *record, void *user) {
        auto *self = static_cast<ReqManagerTest *>(user);
        EXPECT_EQ(id_of(record), reqid);
        self->expired_.push_back(reqid);
        ipc_req_manager_remove(self->m_, reqid);
        if (const auto then = std::exchange(self->then_, nullptr)) then();
    }
    int insert(uint32_t reqid, uint32_t in_ms) {
        const auto expire = static_cast<int64_t>(w.clock.loop_ms + in_ms);
        return ipc_req_manager_insert(m_, reqid, &records_.emplace_back(reqid), expire);
    }
    // Fills the heap with total entries, of which the lowest ids are live, and inserts one more.
    void fill(uint32_t total, uint32_t live) {
        for (uint32_t id = 1; id <= total; ++id) insert(id, 1'000'000 - id);
        for (uint32_t id = live + 1; id <= total; ++id) ipc_req_manager_remove(m_, id);
        insert(total + 1, 1'000'000);
    }

    ipc_req_manager_st *m_ = nullptr;
    std::deque<uint32_t> records_; // one id may have several
    Ids expired_;
    std::function<void()> then_; // runs inside the first time-out
};

TEST_F(ReqManagerTest, ExpiresStrictlyAfterItsTimeInOrder) {
    const uint32_t requests[][2] = {{1, 2001}, {2, 999}, {3, 1000}, {4, 500}, {5, 600}};
    for (const auto &[id, in_ms] : requests) insert(id, in_ms);
    ipc_req_manager_remove(m_, 5);
    for (const Ids &expected : {Ids{4, 2}, Ids{4, 2, 3}, Ids{4, 2, 3, 1}}) {
        EXPECT_EQ(w.event.timers.size(), 1u);
        w.event.advance(1000);
        EXPECT_EQ(expired_, expected);
    }
    EXPECT_TRUE(w.event.timers.empty());
    EXPECT_EQ(released, (Ids{5, 4, 2, 3, 1}));
    for (const uint32_t id : {8, 9}) insert(id, 1000 * (id - 7) - 1);
    then_ = [&] { // it runs the loop: the others go on
        w.event.advance(1000);
        EXPECT_EQ(expired_.back(), 9u);
    };
    w.event.advance(1000);
    m_->on_timeout = nullptr;
    insert(6, 5000);
    insert(6, 0); // replaces the record
    EXPECT_EQ(released.back(), 6u);
    w.event.advance(1000);
    EXPECT_EQ(ipc_req_manager_count(m_), 0u) << "removed without a callback";

    w.event.advance(5000);
    w.event.fail_timers = 1;
    EXPECT_EQ(insert(7, 0), 0);
    w.event.advance(5000);
    EXPECT_EQ(ipc_req_manager_count(m_), 1u);
    EXPECT_EQ(insert(8, 0), 0) << "which arms the timer for both";
    w.event.advance(1000);
    EXPECT_EQ(ipc_req_manager_count(m_), 0u);
}

TEST_F(ReqManagerTest, HeapIsRebuiltWhenTooMuchOfItIsStale) {
    const uint32_t cases[][3] = {{87'380, 0, 87'381},         {87'381, 0, 1},
                                 {99'999, 49'998, 49'999},    {99'999, 49'999, 100'000},
                                 {873'814, 436'907, 873'815}, {936'907, 499'999, 500'000}};
    for (const auto &[total, live, left] : cases) {
        fill(total, live);
        EXPECT_EQ(heap_count(m_->expiry_heap), left) << total << " " << live;
        EXPECT_EQ(ipc_req_manager_count(m_), live + 1);
        restart();
    }
    const heap_t *heap = m_->expiry_heap;
    w.memory.fail_push = 100'001 + 6; // the rebuilt heap refuses its sixth entry: nothing is lost
    fill(100'000, 10);
    EXPECT_TRUE(m_->expiry_heap == heap && heap_count(heap) == 11);
    w.memory.fail_push = 1;
    EXPECT_EQ(insert(11, 0), -1);
    EXPECT_EQ(ipc_req_manager_count(m_), 11u);
    w.event.advance(1'002'000);
    EXPECT_EQ(expired_, (Ids{10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 100'001}));
}
