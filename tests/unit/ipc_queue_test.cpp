#include "tavipc/ipc_queue.h"

#include <algorithm>
#include <random>
#include <unistd.h>

#include "fakes.h"

static std::function<void(ipc_queue_msg_st *)> on_consume, on_free;

class QueueTest : public FakeWorld {
  protected:
    QueueTest() { restart(2); }
    ~QueueTest() override {
        stop();
        on_free = nullptr;
        EXPECT_EQ(w.event.sockets.size() + w.event.timers.size(), 0u);
    }
    void stop() {
        destroy_ipc_queue(q_);
        delete std::exchange(q_, nullptr);
    }
    void restart(int location) {
        stop();
        freed_ = 0;
        on_free = [&](ipc_queue_msg_st *) { ++freed_; };
        q_ = new ipc_queue_st;
        w.deployment.location = location;
        const cl_dunix_t own = create_unix_socket(7, "own");
        const auto consume = [](uint64_t, ipc_queue_msg_st *msg) { return on_consume(msg), 0; };
        ASSERT_EQ(init_ipc_queue(q_, 7, consume, &own), 0);
    }
    ipc_queue_msg_st *make(uint64_t in_ms, uint32_t priority, uint32_t size = 1, mod_info_st *mod = nullptr) {
        const auto freed = [](void *msg, uint32_t) { on_free(static_cast<ipc_queue_msg_st *>(msg)); };
        ipc_queue_msg_st *msg = create_ipc_queue_msg(0);
        *msg = {nullptr, mod, {}, w.clock.loop_ms + in_ms, priority, 0, 0, size, msg, freed};
        return msg;
    }
    int push(ipc_queue_msg_st *msg) { return ipc_queue_push(q_, &msg, w.clock.loop_ms); }
    void drop(ipc_queue_msg_st *msg) { free_ipc_queue_msg(msg); }
    uint64_t armed_delay() const {
        return w.event.timers.size() == 1 ? w.event.timers.begin()->second.due_ms - w.clock.loop_ms : 0;
    }
    mod_info_st *find(const std::string &name) { return ipc_queue_find_mod(q_, name.c_str()); }

    ipc_queue_st *q_ = nullptr;
    int freed_ = 0;
};

TEST_F(QueueTest, TimerWaitsForTheTop) {
    std::vector<uint32_t> consumed;
    on_consume = [&](ipc_queue_msg_st *msg) {
        consumed.push_back(msg->priority + 100 * msg->try_times);
        for (uint32_t late : {8, 7}) // due at once, but a pass takes no more than were queued when it began
            if (msg->priority == 1) push(make(0, late));
        drop(msg);
    };
    push(make(0, 0));
    EXPECT_EQ(armed_delay(), 1u) << "due already";
    drop(ipc_queue_pop(q_));
    // due in, priority, result, armed
    const std::tuple<uint64_t, uint32_t, int, uint64_t> pushes[] = {
        {5000, 1, 0, 5000}, {7000, 2, 0, 5000}, {5500, 9, 0, 5000}, {300, 3, -1, 0}, {350, 2, 0, 300}};
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
    w.event.advance(1);
    EXPECT_EQ(armed_delay(), 1499u);
}

TEST_F(QueueTest, ConsumeCallbackMayDestroyTheQueue) {
    for (const int stop_after : {1, 2, 5}) { // at once, in a nested pass, after it
        restart(2);
        int consumed = 0;
        on_consume = [&](ipc_queue_msg_st *msg) {
            drop(msg);
            if (++consumed == stop_after) return stop();
            if (consumed > 1 || stop_after == 1) return;
            push(make(0, 9));
            w.event.advance(10); // a nested run of the loop, which consumes the other three
            if (q_) stop();
        };
        for (int i = 0; i < 3; ++i) push(make(0, 0));
        w.event.advance(100);
        EXPECT_EQ(consumed, std::min(stop_after, 4));
        EXPECT_EQ(freed_, stop_after == 1 ? 3 : 4) << "queued records are released too";
    }
}

TEST_F(QueueTest, RecordsMayPushWhenTheyAreFreed) {
    push(make(5, 0));
    on_free = [&](ipc_queue_msg_st *) {
        if (++freed_ == 1) EXPECT_EQ(push(make(5, 0)), 0);
    };
    stop();
    EXPECT_EQ(freed_, 2);
    EXPECT_EQ(w.event.timers.size(), 0u);
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
        drop(msg);
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
        ASSERT_EQ(std::pair(counts->queued, counts->queued_bytes), std::pair(queued, bytes));
    }
    w.event.advance(5000);
    EXPECT_TRUE(model.empty()) << "nothing stalls";
    ipc_queue_msg_st *grown = make(0, 0, 100);
    push(grown);
    grown->size = 101;
    drop(ipc_queue_pop(q_));
    EXPECT_EQ(q_->default_mod->queued_bytes, 0u) << "counts stop at 0";
    for (ipc_queue_msg_st msg{}; msg.try_times < 12; ++msg.try_times) {
        w.random.draws = {39};
        ipc_queue_msg_set_retry_later_random(&msg, 1000);
        EXPECT_EQ(msg.retry_later, 1009 + msg.try_times % 5 * 10);
    }
}

TEST_F(QueueTest, PoolSocketsAreSharedRoundRobinByDestinations) {
    for (const auto &[location, slots] : {std::pair{2, 32u}, {1, 8u}}) {
        restart(location);
        w.event.fail_create = 3;
        EXPECT_EQ(find("x"), nullptr);
        w.event.fail_create = 2;
        w.random.draws = {1, 2, 10'003};
        std::vector<cl_dunix_t> used;
        for (uint32_t i = 0; i <= slots; ++i) used.push_back(find(std::to_string(i))->sock);
        EXPECT_EQ(used[slots], used[0]);
        EXPECT_EQ(w.event.socket_at("/var/zon_ipc7/ipc" + std::to_string(getpid()) + "_3"), used[0]);
        EXPECT_EQ(w.event.sockets.size(), slots + 1) << "with the endpoint's own";
    }
    EXPECT_TRUE(find("12345678901"));
    EXPECT_FALSE(find("123456789012"));
    EXPECT_EQ(create_unix_socket(7, ".."), 0u);
}

TEST_F(QueueTest, IdleDestinationsGoWhenTheyWereNotUsedForAnHour) {
    find("queued")->queued = find("sending")->sending = 1;
    for (const char *name : {"idle", "used"}) find(name);
    w.event.advance(3'600'000);
    find("used");
    w.event.advance(1);
    free_mod_info_hash(q_);
    free_mod_info(q_->default_mod, q_);
    EXPECT_EQ(xhash_count(q_->mods), 3u);
    EXPECT_EQ(q_->mod_count, 3);
}
