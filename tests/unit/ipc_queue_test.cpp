#include "tavipc/ipc_queue.h"

#include <random>
#include <unistd.h>

#include "fakes.h"

static std::function<void(ipc_queue_msg_st *)> on_consume, on_free;

class QueueTest : public FakeWorld {
  protected:
    QueueTest() { restart(2); }
    ~QueueTest() override {
        stop();
        EXPECT_EQ(w.event.sockets.size() + w.event.timers.size(), 0u);
    }
    void stop() {
        destroy_ipc_queue(q_.get());
        q_.reset();
    }
    void restart(int location) {
        stop();
        on_free = [](ipc_queue_msg_st *) {};
        q_ = std::make_unique<ipc_queue_st>();
        w.deployment.location = location;
        const cl_dunix_t own = create_unix_socket(7, "own");
        const auto consume = [](uint64_t, ipc_queue_msg_st *msg) { return on_consume(msg), 0; };
        ASSERT_EQ(init_ipc_queue(q_.get(), 7, consume, &own), 0);
    }
    ipc_queue_msg_st *make(uint64_t in_ms, uint32_t priority, uint32_t size = 1, mod_info_st *mod = nullptr) {
        const auto freed = [](void *msg, uint32_t) { on_free(static_cast<ipc_queue_msg_st *>(msg)); };
        ipc_queue_msg_st *msg = create_ipc_queue_msg(0);
        *msg = {nullptr, mod, {}, w.clock.loop_ms + in_ms, priority, 0, 0, size, msg, freed};
        return msg;
    }
    int push(ipc_queue_msg_st *msg) { return ipc_queue_push(q_.get(), &msg, w.clock.loop_ms); }
    mod_info_st *find(const std::string &name) { return ipc_queue_find_mod(q_.get(), name.c_str()); }

    std::unique_ptr<ipc_queue_st> q_;
};

TEST_F(QueueTest, TimerWaitsForTheTop) {
    std::vector<uint32_t> consumed;
    on_consume = [&](ipc_queue_msg_st *msg) {
        consumed.push_back(msg->priority + 100 * msg->try_times);
        for (uint32_t late : {8, 7}) // due at once, but a pass takes no more than were queued when it began
            if (msg->priority == 1) push(make(0, late));
        free_ipc_queue_msg(msg);
    };
    // due in, priority, result, armed
    const std::tuple<uint64_t, uint32_t, int, uint64_t> pushes[] = {
        {5000, 1, 0, 5000}, {7000, 2, 0, 5000}, {5500, 9, 0, 5000}, {300, 3, -1, 0}, {350, 2, 0, 300}};
    for (const auto &[in_ms, priority, result, armed_ms] : pushes) {
        w.event.fail_timers = result < 0;
        EXPECT_EQ(push(make(in_ms, priority)), result);
        ASSERT_EQ(w.event.timers.size(), armed_ms ? 1u : 0u);
        EXPECT_TRUE(!armed_ms || w.event.timers.begin()->second.delay_ms == armed_ms);
    }
    EXPECT_EQ(w.log.count("set msg delay consume timer failed, timeout_ms=300", 2), 1);
    w.event.advance(5499);
    EXPECT_EQ(consumed, (std::vector<uint32_t>{103, 102})) << "a top that is not due holds back its second";
    w.event.advance(1);
    EXPECT_EQ(consumed, (std::vector<uint32_t>{103, 102, 109, 101, 108}));
    EXPECT_EQ(w.event.timers.begin()->second.delay_ms, 1u) << "7 is due already";
}

TEST_F(QueueTest, ConsumeCallbackMayDestroyTheQueue) {
    for (const int stop_after : {1, 2, 6}) { // at once, in a nested pass, after it
        restart(2);
        int consumed = 0, freed = 0;
        on_free = [&](ipc_queue_msg_st *) {
            if (++freed == 3 && q_) push(make(0, 0)); // the queue may be half gone
        };
        on_consume = [&](ipc_queue_msg_st *msg) {
            free_ipc_queue_msg(msg);
            if (++consumed == stop_after) return stop();
            if (consumed > 1 || stop_after == 1) return;
            push(make(0, 9));
            w.event.advance(10); // a nested run of the loop
            if (q_) stop();
        };
        for (int i = 0; i < 3; ++i) push(make(0, 0));
        w.event.advance(100);
        EXPECT_EQ(consumed, stop_after == 6 ? 5 : stop_after);
        EXPECT_EQ(freed, stop_after == 1 ? 4 : 5) << "queued records are released too";
    }
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
        mod_info_st *const mod = mods[below(3)];
        switch (below(5)) {
        case 0:
            w.event.advance(below(1500));
            break;
        case 1:
            if (!model.empty()) on_consume(ipc_queue_pop(q_.get()));
            break;
        default:
            model.push_back(make(below(4000), below(10), below(5000), mod));
            ASSERT_EQ(push(model.back()), 0);
        }
        std::pair queued(0u, 0u);
        for (const auto *msg : model)
            if (msg->mod == mod) queued = {queued.first + 1, queued.second + msg->size};
        const mod_info_st *counts = mod ? mod : q_->default_mod;
        ASSERT_EQ(std::pair(counts->queued, counts->queued_bytes), queued);
    }
    w.event.advance(5000);
    EXPECT_TRUE(model.empty()) << "nothing stalls";
    ipc_queue_msg_st *grown = make(0, 0, 100);
    push(grown);
    grown->size = 101;
    free_ipc_queue_msg(ipc_queue_pop(q_.get()));
    EXPECT_EQ(q_->default_mod->queued_bytes, 0u) << "counts stop at 0";
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
