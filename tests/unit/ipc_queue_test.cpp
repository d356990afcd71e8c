#include "tavipc/ipc_queue.h"

#include <algorithm>
#include <random>
#include <unistd.h>

#include "fakes.h"

static std::function<void(ipc_queue_msg_st *)> on_consume;
static int data_freed;

class QueueTest : public FakeWorld {
  protected:
    QueueTest() { restart(2); }
    ~QueueTest() override {
        stop();
        EXPECT_TRUE(w.event.sockets.empty() && w.event.timers.empty());
    }
    void stop() {
        destroy_ipc_queue(q_);
        delete std::exchange(q_, nullptr);
    }
    void restart(int location) {
        stop();
        q_ = new ipc_queue_st;
        w.deployment.location = location;
        const cl_dunix_t own = create_unix_socket(7, "own");
        const auto consume = [](uint64_t, ipc_queue_msg_st *msg) { return on_consume(msg), 0; };
        ASSERT_EQ(init_ipc_queue(q_, 7, consume, &own), 0);
    }
    ipc_queue_msg_st *make(uint64_t in_ms, uint32_t priority, uint32_t size = 1, mod_info_st *mod = nullptr) {
        const auto freed = [](void *, uint32_t) { ++data_freed; };
        ipc_queue_msg_st *msg = create_ipc_queue_msg(0);
        *msg = {nullptr, mod, {}, w.clock.loop_ms + in_ms, priority, 0, 0, size, nullptr, freed};
        return msg;
    }
    int push(ipc_queue_msg_st *msg) { return ipc_queue_push(q_, &msg, w.clock.loop_ms); }
    uint64_t armed_delay() const {
        return w.event.timers.size() == 1 ? w.event.timers.begin()->second.due_ms - w.clock.loop_ms : 0;
    }
    mod_info_st *find(const std::string &name) { return ipc_queue_find_mod(q_, name.c_str()); }

    ipc_queue_st *q_ = nullptr;
};

TEST_F(QueueTest, TimerWaitsForTheTop) {
    std::vector<uint32_t> consumed;
    on_consume = [&](ipc_queue_msg_st *msg) {
        consumed.push_back(msg->priority + 100 * msg->try_times);
        for (uint32_t late : {8, 7}) // due at once, but the pass takes no more than were queued when it began
            if (msg->priority == 1) push(make(0, late));
        free_ipc_queue_msg(msg);
    };
    const std::tuple<uint64_t, uint32_t, int, uint64_t> pushes[] = {
        // due in, priority, result, armed
        {5000, 1, 0, 5000}, // the timer was armed for a record that is gone
        {7000, 2, 0, 5000},
        {5500, 9, 0, 5000}, // the new top, but due later than the timer
        {300, 3, -1, 0},
        {350, 2, 0, 300}};
    push(make(0, 0));
    EXPECT_EQ(armed_delay(), 1u) << "due already";
    free_ipc_queue_msg(ipc_queue_pop(q_));
    for (const auto &[in_ms, priority, result, armed] : pushes) {
        w.event.fail_timers = result < 0;
        EXPECT_EQ(push(make(in_ms, priority)), result);
        EXPECT_EQ(armed_delay(), armed);
    }
    EXPECT_EQ(w.log.count("set msg delay consume timer failed, timeout_ms=300", 2), 1);
    w.event.advance(5499);
    EXPECT_EQ(consumed, (std::vector<uint32_t>{103, 102})) << "a top that is not due holds back its second";
    w.event.advance(1);
    EXPECT_EQ(consumed, (std::vector<uint32_t>{103, 102, 109, 101, 108}));
    EXPECT_EQ(armed_delay(), 1u);
    w.event.advance(1);
    EXPECT_EQ(armed_delay(), 1499u);
}

TEST_F(QueueTest, ConsumeCallbackMayDestroyTheQueue) {
    for (const int stop_after : {1, 2, 5}) { // at once, in a nested pass, after it
        restart(2);
        data_freed = 0;
        int consumed = 0;
        on_consume = [&](ipc_queue_msg_st *msg) {
            free_ipc_queue_msg(msg);
            if (++consumed == stop_after) return stop();
            if (consumed > 1 || stop_after == 1) return;
            push(make(0, 9));
            w.event.advance(10); // a nested run of the loop, which consumes the other three
            if (q_) stop();
        };
        for (int i = 0; i < 3; ++i) push(make(0, 0));
        w.event.advance(100);
        EXPECT_EQ(consumed, std::min(stop_after, 4));
        EXPECT_EQ(data_freed, stop_after == 1 ? 3 : 4) << "queued records are released too";
    }
    ipc_queue_st zero{};
    ipc_queue_msg_st *msg = make(0, 0);
    EXPECT_EQ(ipc_queue_push(&zero, &msg, 0), -1);
    free_ipc_queue_msg(msg); // still the caller's
}

TEST_F(QueueTest, RecordsMayPushWhenTheyAreFreed) {
    static std::function<int()> push_one;
    push_one = [&] { return push(make(5, 0)); };
    ipc_queue_msg_st *msg = make(5, 0);
    msg->data_free = [](void *, uint32_t) { EXPECT_EQ(push_one(), 0); };
    push(msg);
    data_freed = 0;
    stop();
    EXPECT_EQ(data_freed, 1);
    EXPECT_TRUE(w.event.timers.empty());
}

TEST_F(QueueTest, RandomOperationsMatchAModel) {
    std::mt19937 rng(20240607);
    const auto below = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
    std::vector<ipc_queue_msg_st *> model;
    mod_info_st *const mods[] = {nullptr, find("a"), find("b")};
    const auto rank = [](const ipc_queue_msg_st *msg) {
        return std::pair(msg->retry_later / 1000, -int64_t{msg->priority ? msg->priority : 4});
    };
    on_consume = [&](ipc_queue_msg_st *msg) {
        for (const auto *other : model) EXPECT_GE(rank(other), rank(msg));
        EXPECT_EQ(std::erase(model, msg), 1u);
        free_ipc_queue_msg(msg);
    };
    for (int step = 0; step < 20'000; ++step) {
        const uint32_t action = below(10);
        mod_info_st *const mod = mods[below(3)];
        if (action < 6) {
            model.push_back(make(below(4000), below(10), below(5000), mod));
            ASSERT_EQ(push(model.back()), 0);
        } else if (action >= 8) {
            w.event.advance(below(1500));
        } else if (!model.empty()) {
            on_consume(ipc_queue_pop(q_));
        }
        uint32_t queued = 0, bytes = 0;
        for (const auto *msg : model)
            if (msg->mod == mod) ++queued, bytes += msg->size;
        const mod_info_st *counts = mod ? mod : q_->default_mod;
        ASSERT_TRUE(counts->queued == queued && counts->queued_bytes == bytes);
        ASSERT_EQ(ipc_queue_len(q_), model.size());
    }
    w.event.advance(5000);
    EXPECT_TRUE(model.empty()) << "nothing stalls";
    ipc_queue_msg_st *grown = make(0, 0, 100);
    push(grown);
    grown->size = 101;
    free_ipc_queue_msg(ipc_queue_pop(q_));
    EXPECT_EQ(q_->default_mod->queued_bytes, 0u) << "counts stop at 0";
    for (ipc_queue_msg_st msg{}; msg.try_times < 12; ++msg.try_times) {
        w.random.draws = {39};
        ipc_queue_msg_set_retry_later_random(&msg, 1000);
        EXPECT_EQ(msg.retry_later, 1009 + msg.try_times % 5 * 10);
    }
}

TEST_F(QueueTest, PoolSocketsAreSharedRoundRobinByModuleInfos) {
    w.clock.ticks_ms = 2'000'000; // past what other tests of this process may have logged
    for (const auto &[location, slots] : {std::pair{2, 32u}, {1, 8u}}) {
        restart(location);
        w.event.fail_create = 3;
        EXPECT_EQ(find("x"), nullptr);
        w.event.fail_create = 2;
        w.random.draws = {1, 2, 10'003};
        std::vector<cl_dunix_t> used;
        for (uint32_t i = 0; i <= slots; ++i) used.push_back(find(std::to_string(i))->sock);
        EXPECT_EQ(used[slots], used[0]);
        EXPECT_EQ(q_->fd_pool[0], used[0]) << "a slot is not passed over for a failure";
        EXPECT_EQ(w.event.socket_at("/var/zon_ipc7/ipc" + std::to_string(getpid()) + "_3"), used[0]);
        EXPECT_EQ(w.event.sockets.size(), slots + 1) << "with the endpoint's own";
    }
    EXPECT_EQ(w.log.count("fail to create ipc retry socket: /var/zon_ipc7/ipc", 2), 1) << "limited";
    EXPECT_TRUE(find("12345678901") && !find("123456789012"));
    find("0")->queued = find("1")->sending = 1;
    w.event.advance(3'600'000);
    find("2");
    w.event.advance(1);
    free_mod_info_hash(q_); // releases what was not used for more than an hour
    free_mod_info(q_->default_mod, q_);
    EXPECT_TRUE(q_->mod_count == 3 && xhash_count(q_->mods) == 3);
}
