// fork: the parent loses nothing, and the child starts without a loop.
#include <atomic>
#include <sys/wait.h>
#include <thread>

#include "event_fixture.h"

namespace {

class ForkTest : public EventTest {
  protected:
    // Forks. The child has `child` set; it works on in the frames that it inherits, up to finish_child.
    void fork_child() {
        ++children_;
        child_ = fork() == 0;
    }
    // What a child does: old handles are stale, and a socket of its own sends to the parent and receives.
    void work_in_child(cl_dunix_t inherited) {
        EXPECT_NE(send(inherited, "parent", data_), 0);
        close(inherited);
        EXPECT_EQ(cl_event_loop_run(), 0) << "nothing of the parent's is left";
        const cl_dunix_t own = create("child" + std::to_string(children_));
        OnDatagram stop = [](cl_dunix_t, const void *, uint32_t, const cl_sockaddr_t *, int) {
            cl_event_loop_stop();
        };
        EXPECT_EQ(receive(own, stop), 0);
        EXPECT_EQ(send(own, "parent", data_), 0);
        EXPECT_EQ(send(own, "child" + std::to_string(children_), data_), 0);
        EXPECT_EQ(cl_event_loop_run(), 1);
        close(own);
    }
    void finish_child() const {
        if (!child_) return;
        const int status = HasFailure() ? 1 : 0;
        children_ % 4 < 2 ? exit(status) : _exit(status);
    }
    void expect_all_succeeded() const {
        for (int i = 0, status; i < children_; ++i) {
            ASSERT_GT(wait(&status), 0);
            EXPECT_EQ(status, 0);
        }
    }

    const std::string data_ = "child";
    int children_ = 0;
    bool child_ = false;
};

TEST_F(ForkTest, ChildrenUnderTrafficTakeNothingFromTheParent) {
    constexpr int kChildren = 60, kOwn = 40 * kChildren; // more than fit into the socket, so that sends wait
    const cl_dunix_t parent = create("parent"), sender = create("sender");
    cl_dunix_set_send_wait(60'000);
    std::vector<std::string> numbers;
    for (int i = 0; i < kOwn; ++i) numbers.push_back(std::to_string(100'000 + i));
    int own = 0, from_children = 0;
    OnDatagram got = [&](cl_dunix_t, const void *data, uint32_t len, const cl_sockaddr_t *, int) {
        const std::string text(static_cast<const char *>(data), len);
        if (text == data_) return void(++from_children);
        EXPECT_EQ(text, numbers[own++]);
        if (own % 80 == 0) { // inside the loop, with sends that wait
            fork_child();
            if (child_) work_in_child(parent);
        }
    };
    receive(parent, got);
    for (int i = 0; i < kOwn; ++i) {
        send(sender, "parent", numbers[i]);
        if (i % 80 == 0 && !child_) {
            fork_child();
            if (child_) work_in_child(parent);
        }
        if (i % 3 == 0 && !child_) cl_event_loop_run_once(0);
        finish_child();
    }
    run_until([&] {
        finish_child();
        return own == kOwn && from_children == children_ && reported() == kOwn;
    });
    finish_child();
    EXPECT_EQ(children_, kChildren);
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, kOwn}}));
    expect_all_succeeded();
}

TEST_F(ForkTest, TheChildKeepsNoSocketOfAnyThread) {
    std::atomic<int> step{0};
    std::jthread other([&] {
        EXPECT_NE(create("other"), 0u);
        for (step = 1; step < 2;) std::this_thread::yield();
    });
    while (step < 1) std::this_thread::yield();
    create("parent");
    fork_child();
    if (child_) {
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code closed;
            EXPECT_FALSE(read_symlink(entry.path(), closed).string().starts_with("socket:"));
        }
        finish_child();
    }
    expect_all_succeeded();
    EXPECT_TRUE(std::filesystem::exists(path("parent")));
    step = 2;
}

TEST_F(ForkTest, ACompletionOfAClosingSocketMayFork) {
    RawPeer peer(path("parent"));
    const cl_dunix_t socket = create("s");
    for (int i = 0; i < 3; ++i) send(socket, "parent", data_);
    on_sent_ = [&](int) {
        on_sent_ = nullptr;
        fork_child();
        if (child_) work_in_child(socket);
    };
    close(socket);
    if (child_) {
        EXPECT_EQ(reported(), 1 + 2) << "of the parent's sends only the one that forked";
    }
    finish_child();
    EXPECT_EQ(reported(), 3);
    expect_all_succeeded();
    EXPECT_EQ(peer.read().size(), 4u);
}

TEST_F(ForkTest, TheCallersUvLoopIsForgottenInTheChild) {
    UvFunctions uv;
    uv_loop_s *loop = uv.make_loop();
    ASSERT_EQ(cl_event_loop_attach(loop), 0);
    const cl_dunix_t parent = create("parent");
    const RawPeer full(path("full"));
    for (int i = 0; i < 30; ++i) send(parent, "full", data_); // waits for room
    int got = 0;
    OnDatagram count = [&](cl_dunix_t, const void *, uint32_t, const cl_sockaddr_t *, int) {
        if (++got == 2) close(parent);
    };
    receive(parent, count);
    send(parent, "parent", data_);
    uv.run(loop, 1);
    fork_child();
    if (child_) {
        EXPECT_EQ(uv.fork(loop), 0); // as libuv asks of the owner of a loop
        EXPECT_EQ(uv.run(loop, 1), 0) << "nothing keeps it running";
        work_in_child(parent);
        finish_child();
    }
    uv.run(loop, 0);
    EXPECT_EQ(got, 2);
    expect_all_succeeded();
    cl_event_loop_release();
    EXPECT_EQ(uv.close(loop), 0);
}

} // namespace
