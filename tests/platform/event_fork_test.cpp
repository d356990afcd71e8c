// fork, and a libuv loop of the caller's: the parent loses nothing, and the child starts without a loop.
#include <latch>
#include <uv.h>

#include "event_fixture.h"

struct ForkTest : EventTest {
    ForkTest() { uv_loop_init(&callers_); }
    // Forks. The child has no socket of any thread and no valid handle. A socket of its own sends to the
    // parent and receives.
    void fork_and_work(cl_dunix_t inherited) {
        child_ = (++children_, fork()) == 0;
        if (!child_) return;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code closed;
            EXPECT_FALSE(read_symlink(entry, closed).string().starts_with("socket:"));
        }
        EXPECT_NE(send(inherited, "parent", data_), 0);
        close(inherited);
        EXPECT_EQ(cl_event_loop_run(), 0) << "nothing of the parent's is left";
        const std::string name = "child" + std::to_string(children_);
        const cl_dunix_t own = create(name);
        const int until = reported_ + 2;
        receive(own, [](auto &&...) { cl_event_loop_stop(); });
        for (const std::string &to : {std::string("parent"), name}) EXPECT_EQ(send(own, to, data_), 0);
        EXPECT_EQ(cl_event_loop_run(), 1);
        run_until([&] { return reported_ == until; });
        close(own);
    }
    // Ends the child, once the frames that it inherited have returned.
    void finish_child() {
        if (!child_) return;
        EXPECT_EQ(uv_loop_fork(&callers_), 0); // as libuv asks of a loop's owner
        EXPECT_EQ(uv_run(&callers_, UV_RUN_ONCE), 0) << "nothing keeps it running";
#ifdef __SANITIZE_ADDRESS__
        _exit(HasFailure()); // the leak checker would report what the parent still has
#endif
        children_ % 4 < 2 ? _exit(HasFailure()) : exit(HasFailure());
    }
    void send_while_forking() {
        std::latch made(1), forked(1);
        std::jthread other([&] { create("other"), made.count_down(), forked.wait(); });
        made.wait();
        constexpr int kOwn = 2400; // half of them are more than the socket holds, so that sends wait
        const cl_dunix_t parent = create("parent"), sender = create("sender");
        std::vector<std::string> numbers;
        for (int i = 0; i < kOwn; ++i) numbers.push_back(std::to_string(100'000 + i));
        int own = 0, from_children = 0;
        receive(parent, [&](const std::string &data, auto &&...) {
            if (data == data_) return void(++from_children);
            EXPECT_EQ(data, numbers[own++]);
            if (own % 80 == 0) fork_and_work(parent); // inside the loop
        });
        for (int i = 0; i < kOwn; ++i) {
            send(sender, "parent", numbers[i]);
            if (i % 80 == 0) fork_and_work(parent);
            if (i >= kOwn / 2 && i % 3 == 0 && !child_) turn_();
            EXPECT_TRUE(i != kOwn / 2 || reported_ < i) << "some wait";
            finish_child();
        }
        run_until([&] { return finish_child(), own == kOwn && from_children == 60 && reported_ == kOwn; });
        EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, kOwn}}));
        for (int status; wait(&status) > 0; --children_) EXPECT_EQ(status, 0);
        EXPECT_EQ(children_, 0);
        forked.count_down();
    }

    const std::string data_ = "child";
    uv_loop_t callers_{};
    std::function<void()> turn_ = [] { cl_event_loop_run_once(0); };
    int children_ = 0;
    bool child_ = false;
};

TEST_F(ForkTest, ChildrenUnderTrafficTakeNothingFromTheParent) {
    send_while_forking();
    EXPECT_EQ(uv_loop_close(&callers_), 0);
}

TEST_F(ForkTest, ChildrenUnderTrafficForgetTheCallersLoop) {
    for (const int result : {0, -1}) EXPECT_EQ(cl_event_loop_attach(&callers_), result);
    static bool due;
    cl_timer_start(
        50, [](void *) { due = true; }, nullptr);
    int turns = 0;
    for (; !due; ++turns) cl_event_loop_run_once(60'000);
    EXPECT_LE(turns, 3) << "a turn waits";
    turn_ = [this] { uv_run(&callers_, UV_RUN_NOWAIT); };
    send_while_forking();
    cl_event_loop_release();
    EXPECT_EQ(uv_loop_close(&callers_), 0);
}
