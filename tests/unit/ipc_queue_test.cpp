#include "tavipc/ipc_queue.h"

#include "fakes.h"

static std::function<void(ipc_queue_msg_st *)> on_consume;

struct QueueTest : FakeWorld {
    QueueTest() { restart(2); }
    ~QueueTest() override {
        destroy_ipc_queue(&q_);
        EXPECT_EQ(w.event.sockets.size() + w.event.timers.size(), 0u);
    }
    void restart(int location) {
        destroy_ipc_queue(&q_);
        w.deployment.location = location;
        const cl_dunix_t own = create_unix_socket(7, "own");
        const auto consume = [](uint64_t, ipc_queue_msg_st *msg) { return on_consume(msg), 0; };
        ASSERT_EQ(init_ipc_queue(&q_, 7, consume, &own), 0);
    }
    ipc_queue_msg_st *make(uint64_t in_ms, uint32_t priority, uint32_t size = 1, mod_info_st *mod = nullptr) {
        ipc_queue_msg_st *msg = create_ipc_queue_msg(0);
        *msg = {nullptr, mod, {}, w.clock.loop_ms + in_ms, priority, 0, 0, size, nullptr, nullptr};
        return msg;
    }
    int push(ipc_queue_msg_st *msg) { return ipc_queue_push(&q_, &msg, w.clock.loop_ms); }
    mod_info_st *find(const std::string &name) { return ipc_queue_find_mod(&q_, name.c_str()); }

    ipc_queue_st q_{};
};

TEST_F(QueueTest, TimerWaitsForTheTop) {
    std::vector<uint32_t> consumed;
    on_consume = [&](ipc_queue_msg_st *msg) {
        consumed.push_back(msg->priority + 100 * msg->try_times);
        if (msg->priority == 1) push(make(0, 8)), push(make(0, 7)); // for the next pass
        free_ipc_queue_msg(msg);
    };
    const std::tuple<uint64_t, uint32_t, uint64_t> pushes[] = {
        {5000, 1, 5000}, {7000, 2, 5000}, {5500, 9, 5000}}; // due in, priority, armed
    for (const auto &[in_ms, priority, armed_ms] : pushes) {
        EXPECT_EQ(push(make(in_ms, priority)), 0);
        EXPECT_EQ(w.event.timers.begin()->second.delay_ms, armed_ms);
    }
    w.event.fail_timers = 1;
    EXPECT_EQ(push(make(300, 3)), -1);
    EXPECT_EQ(w.log.count("set msg delay consume timer failed, timeout_ms=300", 2), 1);
    push(make(350, 2));
    w.event.advance(5499);
    EXPECT_EQ(consumed, (std::vector<uint32_t>{103, 102})) << "a top that is not due holds back its second";
    w.event.advance(1);
    EXPECT_EQ(consumed, (std::vector<uint32_t>{103, 102, 109, 101, 108})) << "as many as were queued";
}

TEST_F(QueueTest, RecordsAreCountedAtTheirDestination) {
    mod_info_st *const beta = find("beta");
    const mod_info_st *own = q_.default_mod;
    for (const uint32_t size : {100, 20}) push(make(size * 100, 0, size, beta));
    push(make(0, 0, 3));
    EXPECT_EQ(std::pair(beta->queued, beta->queued_bytes), std::pair(2u, 120u));
    EXPECT_EQ(std::pair(own->queued, own->queued_bytes), std::pair(1u, 3u));
    ipc_queue_top(&q_)->size = 4;
    for (const uint32_t left : {120, 100, 0}) {
        free_ipc_queue_msg(ipc_queue_pop(&q_));
        EXPECT_EQ(beta->queued_bytes, left);
    }
    EXPECT_EQ(beta->queued + own->queued + own->queued_bytes, 0u) << "counts stop at 0";
}

TEST_F(QueueTest, PoolSocketsAreSharedRoundRobinByDestinations) {
    for (const auto &[location, slots] : {std::pair{2, 32u}, {1, 8u}}) {
        restart(location);
        w.event.fail_create = 5; // three attempts for x, two for the first name
        w.random.draws = {1, 2, 3, 4, 5, 10'006};
        EXPECT_EQ(find("x"), nullptr);
        std::vector<cl_dunix_t> used;
        for (uint32_t i = 0; i <= slots; ++i) used.push_back(find(std::to_string(i))->sock);
        EXPECT_EQ(used[slots], used[0]);
        EXPECT_EQ(w.event.socket_at("/var/zon_ipc7/ipc" + std::to_string(getpid()) + "_6"), used[0]);
        EXPECT_EQ(w.event.sockets.size(), slots + 1) << "with the endpoint's own";
    }
    EXPECT_FALSE(find("123456789012")) << "too long";
    EXPECT_EQ(create_unix_socket(7, ".."), 0u);
}
