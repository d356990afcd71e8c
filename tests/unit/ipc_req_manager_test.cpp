#include "tavipc/ipc_req_manager.h"

#include <dlfcn.h>

#include "fakes.h"

static heap_t *spared_heap; // when set, every other heap refuses
static int pushes_left;     // after so many pushes

extern "C" int heap_push(heap_t *heap, void *entry) noexcept {
    static const auto real = reinterpret_cast<int (*)(heap_t *, void *)>(dlsym(RTLD_NEXT, "heap_push"));
    return spared_heap && heap != spared_heap && --pushes_left < 0 ? -1 : real(heap, entry);
}

using Ids = std::vector<uint32_t>;
static Ids released;

class ReqManagerTest : public FakeWorld {
  protected:
    ReqManagerTest() {
        released.clear();
        start();
    }
    ~ReqManagerTest() override {
        stop();
        EXPECT_TRUE(w.event.timers.empty());
    }
    void start() {
        m_ = new ipc_req_manager_st;
        ASSERT_EQ(ipc_req_manager_init(m_, release, on_timeout, this), 0);
    }
    void stop() {
        ipc_req_manager_uninit(m_);
        delete std::exchange(m_, nullptr);
    }
    static void release(void *record) {
        released.push_back(*static_cast<uint32_t *>(record));
        delete static_cast<uint32_t *>(record);
    }
    static void on_timeout(uint32_t reqid, void *record, void *user) {
        auto *self = static_cast<ReqManagerTest *>(user);
        EXPECT_EQ(*static_cast<uint32_t *>(record), reqid);
        self->expired_.push_back(reqid);
        self->react_(reqid);
    }
    int insert(uint32_t reqid, uint32_t in_ms) {
        auto *record = new uint32_t(reqid);
        const auto expire = static_cast<int64_t>(w.clock.loop_ms + in_ms);
        if (ipc_req_manager_insert(m_, reqid, record, expire) == 0) return 0;
        delete record;
        return -1;
    }
    // Fills the heap with total entries, of which the lowest ids are live, and inserts one more.
    void fill(uint32_t total, uint32_t live) {
        for (uint32_t id = 1; id <= total; ++id) insert(id, 1'000'000 - id);
        for (uint32_t id = live + 1; id <= total; ++id) ipc_req_manager_remove(m_, id);
        insert(total + 1, 1'000'000);
    }

    ipc_req_manager_st *m_ = nullptr;
    Ids expired_;
    std::function<void(uint32_t)> react_ = [this](uint32_t id) { ipc_req_manager_remove(m_, id); };
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
    m_->on_timeout = nullptr;
    insert(6, 0);
    w.event.advance(1000);
    EXPECT_EQ(ipc_req_manager_count(m_), 0u) << "removed without a callback";
}

TEST_F(ReqManagerTest, CallbackMayInsertAndTearDownTheManager) {
    for (bool nested : {false, true}) {
        if (!m_) start();
        expired_.clear();
        for (uint32_t id : {1, 2, 3}) insert(id, 0);
        react_ = [&](uint32_t id) {
            if (!nested || expired_.size() == 2) return stop();
            insert(id, 0); // replaces the record, and arms the timer, whose tick finds the other two as well
            w.event.advance(1000);
        };
        w.event.advance(1000);
        EXPECT_EQ(expired_.size(), nested ? 2u : 1u);
        EXPECT_TRUE(w.event.timers.empty());
    }
    EXPECT_EQ(released.size(), 7u);
}

TEST_F(ReqManagerTest, CompactionLimits) {
    const uint32_t cases[][3] = {{87'380, 0, 87'381},         {87'381, 0, 1},
                                 {99'999, 49'998, 49'999},    {99'999, 49'999, 100'000},
                                 {873'814, 436'907, 873'815}, {936'907, 499'999, 500'000}};
    for (const auto &[total, live, left] : cases) {
        fill(total, live);
        EXPECT_EQ(heap_count(m_->expiry_heap), left) << total << " " << live;
        EXPECT_EQ(ipc_req_manager_count(m_), live + 1);
        stop();
        start();
    }
}

TEST_F(ReqManagerTest, ShortMemoryLosesNothing) {
    spared_heap = m_->expiry_heap;
    pushes_left = 5; // the rebuilt heap refuses the sixth
    fill(100'000, 10);
    EXPECT_EQ(heap_count(spared_heap), 11u);
    spared_heap = reinterpret_cast<heap_t *>(this);
    EXPECT_EQ(insert(11, 0), -1);
    EXPECT_EQ(ipc_req_manager_count(m_), 11u);
    spared_heap = nullptr;
    w.event.advance(1'002'000);
    EXPECT_EQ(expired_, (Ids{10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 100'001}));
}
