// Timers, and runs of the loop inside one another and on a loop of the caller's.
#include <dlfcn.h>
#include <memory>
#include <thread>

#include "event_fixture.h"

namespace {

class LoopTest : public EventTest {
  protected:
    struct Planned {
        LoopTest *test;
        std::string name;
        std::function<void()> then;
        uint64_t due_from_ms, due_until_ms; // the clock was read between
    };
    // A timer that leaves its name in fired_ and itself in order_, then does what is asked.
    cl_timer_t plan(const std::string &name, uint64_t delay_ms, std::function<void()> then = {}) {
        auto *planned = plans_.emplace_back(std::make_unique<Planned>()).get();
        const auto fire = [](void *argument) {
            const auto *fired = static_cast<Planned *>(argument);
            EXPECT_GE(cl_event_loop_now(), fired->due_from_ms) << fired->name << " is early";
            fired->test->fired_ += fired->name;
            fired->test->order_.push_back(fired);
            if (fired->then) fired->then();
        };
        *planned = {this, name, std::move(then), cl_event_loop_now() + delay_ms, 0};
        const cl_timer_t timer = cl_timer_start(delay_ms, fire, planned);
        planned->due_until_ms = cl_event_loop_now() + delay_ms;
        EXPECT_NE(timer, 0u);
        return timer;
    }
    // No timer fired after one that was certainly due later, or at the same time and started later.
    void expect_in_order() const {
        for (size_t i = 1; i < order_.size(); ++i) {
            const Planned *former = order_[i - 1], *latter = order_[i];
            EXPECT_LE(former->due_from_ms, latter->due_until_ms);
            if (former->due_until_ms == latter->due_from_ms && former->due_from_ms == latter->due_until_ms) {
                EXPECT_LT(former->name, latter->name);
            }
        }
    }
    static void let_pass(uint64_t ms) {
        for (const uint64_t end = cl_event_loop_now() + ms; cl_event_loop_now() < end;) {
        }
    }

    std::vector<std::unique_ptr<Planned>> plans_;
    std::vector<const Planned *> order_;
    std::string fired_;
};

TEST_F(LoopTest, TimersFireInOrderOfDueTimeThenOfStart) {
    uint32_t random = 7;
    std::vector<cl_timer_t> timers;
    for (int i = 0; i < 500; ++i) {
        const uint64_t delay = (random = random * 1664525 + 1013904223) >> 27;
        timers.push_back(plan(std::to_string(1000 + i), delay));
    }
    for (int i = 0; i < 500; i += 3) cl_timer_stop(timers[i]);
    EXPECT_EQ(cl_event_loop_run(), 0) << "nothing is left";
    EXPECT_EQ(order_.size(), 333u);
    expect_in_order();
}

TEST_F(LoopTest, ATimerStartedInACallbackFiresOnALaterTurn) {
    plan("a", 0, [this] { plan("b", 0); });
    plan("c", 0);
    while (fired_.empty()) cl_event_loop_run_once(10);
    EXPECT_EQ(fired_, "ac");
    cl_event_loop_run();
    EXPECT_EQ(fired_, "acb");
}

TEST_F(LoopTest, AStoppedTimerDoesNotFireThoughItIsDue) {
    cl_timer_t second = 0, own = 0;
    own = plan("a", 1, [&] {
        cl_timer_stop(second);
        cl_timer_stop(own);
        cl_timer_stop(0);
    });
    second = plan("b", 1);
    plan("c", 1, [&] { cl_timer_stop(second); });
    let_pass(3);
    cl_event_loop_run();
    EXPECT_EQ(fired_, "ac");
}

TEST_F(LoopTest, TheLongestDelayNeverFires) {
    const cl_timer_t never = plan("x", UINT64_MAX);
    const cl_timer_t almost = plan("y", UINT64_MAX - cl_event_loop_now());
    plan("a", 2, [&] { cl_timer_stop(never), cl_timer_stop(almost); });
    EXPECT_EQ(cl_event_loop_run(), 0);
    EXPECT_EQ(fired_, "a");
}

TEST_F(LoopTest, OldHandlesAreStaleInTheThreadsNextLoop) {
    std::vector<cl_timer_t> old;
    for (int i = 0; i < 20; ++i) old.push_back(plan("x", 1000));
    for (int i = 0; i < 20; ++i) { // raises one slot's generation
        cl_timer_stop(old.back());
        old.push_back(plan("x", 1000));
    }
    const cl_dunix_t socket = create("s");
    cl_event_loop_release();
    for (int i = 0; i < 20; ++i) plan("a", 0);
    const cl_dunix_t other = create("s");
    for (const cl_timer_t timer : old) cl_timer_stop(timer);
    close(socket);
    EXPECT_TRUE(std::filesystem::exists(path("s")));
    EXPECT_NE(other, 0u);
    cl_event_loop_run();
    EXPECT_EQ(fired_, std::string(20, 'a'));
}

TEST_F(LoopTest, StopEndsTheInnermostRunOnly) {
    cl_event_loop_stop(); // without a run: no effect
    plan("a", 0, [this] {
        plan("b", 0, [] { cl_event_loop_stop(); });
        EXPECT_EQ(cl_event_loop_run(), 1);
        fired_ += "-";
        plan("d", 0);
    });
    EXPECT_EQ(cl_event_loop_run(), 0);
    EXPECT_EQ(fired_, "ab-d");
}

TEST_F(LoopTest, StopInsideASingleTurnEndsTheRunAroundIt) {
    RawPeer peer(path("peer"));
    const cl_dunix_t socket = create("s");
    const std::string data = "x";
    on_sent_ = [this](int) { // before the loop waits
        plan("a", 0, [] { cl_event_loop_stop(); });
        while (fired_.empty()) cl_event_loop_run_once(10);
    };
    send(socket, "peer", data);
    plan("never", 60'000);
    EXPECT_EQ(cl_event_loop_run(), 1);
    EXPECT_EQ(fired_, "a");
}

TEST_F(LoopTest, ATurnReturnsAfterWhatItDidAndNoLaterThanItsTime) {
    EXPECT_EQ(cl_event_loop_run_once(-1), 0) << "nothing to wait for";
    plan("a", 60'000);
    const uint64_t start = cl_event_loop_now();
    EXPECT_EQ(cl_event_loop_run_once(20), 1);
    EXPECT_GE(cl_event_loop_now() - start, 20u);
    RawPeer peer(path("peer"));
    const std::string data = "x";
    send(create("s"), "peer", data);
    EXPECT_EQ(cl_event_loop_run_once(-1), 1); // would last a minute if the report did not end it
    EXPECT_EQ(reported(), 1);
    EXPECT_LT(cl_event_loop_now() - start, 30'000u);
}

TEST_F(LoopTest, RunsOnTheCallersOwnUvLoop) {
    const auto uv = [](const char *name) { return dlsym(RTLD_DEFAULT, name); };
    const auto size = reinterpret_cast<size_t (*)()>(uv("uv_loop_size"));
    const auto init = reinterpret_cast<int (*)(uv_loop_s *)>(uv("uv_loop_init"));
    const auto run = reinterpret_cast<int (*)(uv_loop_s *, int)>(uv("uv_run"));
    const auto close_loop = reinterpret_cast<int (*)(uv_loop_s *)>(uv("uv_loop_close"));
    ASSERT_TRUE(size && init && run && close_loop);
    const std::unique_ptr<char[]> memory(new char[size()]);
    auto *loop = reinterpret_cast<uv_loop_s *>(memory.get());
    ASSERT_EQ(init(loop), 0);

    EXPECT_EQ(cl_event_loop_attach(nullptr), -1);
    EXPECT_EQ(cl_event_loop_attach(loop), 0);
    EXPECT_EQ(cl_event_loop_attach(loop), -1);
    const cl_dunix_t socket = create("s");
    const std::string data = "hello";
    OnDatagram got = [&](cl_dunix_t, const void *, uint32_t, const cl_sockaddr_t *, int) {
        plan("b", 2, [&] { close(socket); });
    };
    receive(socket, got);
    plan("a", 2, [&] { send(socket, "s", data); });
    run(loop, 0); // until nothing is left
    EXPECT_EQ(fired_, "ab");
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, 1}}));
    create("left");
    cl_event_loop_release();
    EXPECT_FALSE(std::filesystem::exists(path("left")));
    EXPECT_EQ(close_loop(loop), 0);
}

TEST_F(LoopTest, EveryThreadHasItsOwnLoopAndClosesItAtItsEnd) {
    const std::string data = "x";
    std::vector<std::thread> threads;
    for (const char *name : {"t1", "t2", "t3"})
        threads.emplace_back([&, name] {
            const cl_dunix_t socket = create(name);
            int left = 2000;
            OnDatagram again = [&](cl_dunix_t at, const void *, uint32_t, const cl_sockaddr_t *, int) {
                const cl_sockaddr_t self = address_of(path(name));
                if (--left == 0)
                    cl_event_loop_stop();
                else
                    cl_dunix_sendto2(at, &self, data.data(), 1, nullptr, nullptr);
            };
            receive(socket, again);
            const cl_sockaddr_t self = address_of(path(name));
            for (int i = 0; i < 5; ++i) cl_dunix_sendto2(socket, &self, data.data(), 1, nullptr, nullptr);
            EXPECT_EQ(cl_event_loop_run(), 1);
        });
    for (auto &thread : threads) thread.join();
    EXPECT_TRUE(std::filesystem::is_empty(directory_ / ""));
}

} // namespace
