// Timers, and runs of the loop.
#include <deque>

#include "event_fixture.h"

namespace {

class LoopTest : public EventTest {
  protected:
    // Starts a timer that appends its name to fired_ and then runs `then`.
    cl_timer_t plan(
        const std::string &name, uint64_t delay_ms, std::function<void()> then = [] {}) {
        auto &plan = plans_.emplace_back([this, name, then, due = cl_event_loop_now() + delay_ms] {
            EXPECT_GE(cl_event_loop_now(), due) << name << " is early";
            fired_ += name;
            then();
        });
        return cl_timer_start(
            delay_ms, [](void *p) { (*static_cast<std::function<void()> *>(p))(); }, &plan);
    }

    std::deque<std::function<void()>> plans_;
    std::string fired_;
};

TEST_F(LoopTest, TimersFireInOrderOfDueTimeUnlessTheyAreStopped) {
    std::vector<cl_timer_t> timers{plan("x", UINT64_MAX), plan("y", UINT64_MAX - cl_event_loop_now())};
    std::string expected;
    for (int i = 0; i < 600; ++i) {
        const int delay_s = i * 7 % 20;
        timers.push_back(plan(std::string(1, static_cast<char>('a' + delay_s)), 1000 * delay_s + 1000));
    }
    timers.push_back(plan("z", 30'000, [&] { cl_timer_stop(timers.back()), cl_timer_stop(timers[0]); }));
    timers.push_back(plan("late", 30'000)); // due at the same time
    for (size_t i = 1; i < 602; i += 3) cl_timer_stop(timers[i]);
    for (char name = 'a'; name < 'u'; ++name) expected += std::string(20, name);
    skipped_s += 60;
    EXPECT_EQ(cl_event_loop_run(), 0) << "nothing is left";
    EXPECT_EQ(fired_, expected + "z");
}

TEST_F(LoopTest, ATimerStartedInACallbackFiresOnALaterTurn) {
    plan("a", 0, [this] { plan("b", 0); });
    plan("c", 0);
    while (fired_.empty()) cl_event_loop_run_once(10);
    EXPECT_EQ(fired_, "ac");
    cl_event_loop_run();
    EXPECT_EQ(fired_, "acb");
}

TEST_F(LoopTest, OldHandlesAreStaleInTheThreadsNextLoop) {
    std::vector<cl_timer_t> old;
    for (int i = 0; i < 40; ++i) {
        if (i >= 20) cl_timer_stop(old.back()); // raises the generation of one slot
        old.push_back(plan("x", 1000));
    }
    const cl_dunix_t socket = create("s");
    cl_event_loop_release();
    for (int i = 0; i < 20; ++i) plan("a", 0);
    EXPECT_NE(create("s"), 0u);
    for (const cl_timer_t timer : old) cl_timer_stop(timer);
    close(socket);
    EXPECT_TRUE(std::filesystem::exists(path("s")));
    cl_event_loop_run();
    EXPECT_EQ(fired_, std::string(20, 'a'));
}

TEST_F(LoopTest, StopInsideASingleTurnEndsTheInnermostRunAroundIt) {
    const RawPeer peer(path("peer"));
    cl_event_loop_stop();    // without a run: no effect
    on_sent_ = [this](int) { // before the loop waits
        plan("a", 0, [] { cl_event_loop_stop(); });
        while (fired_.empty()) cl_event_loop_run_once(10);
    };
    const cl_timer_t outer = plan("never", 60'000);
    send(create("s"), "peer", "");
    EXPECT_EQ(cl_event_loop_run(), 1);
    EXPECT_EQ(cl_event_loop_run_once(0), 1);
    cl_timer_stop(outer);
    EXPECT_EQ(cl_event_loop_run_once(-1), 0) << "nothing to wait for";
}

} // namespace
