// fork, and a libuv loop of the caller's: the parent loses nothing, and the child starts without a loop.
#include <atomic>
#include <dlfcn.h>
#include <sys/wait.h>
#include <thread>

#include "event_fixture.h"

namespace {

template <class Function> Function *libuv(const char *name) { // which only the event library links
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

class ForkTest : public EventTest {
  protected:
    void fork_child() { child_ = (++children_, fork()) == 0; }
    // Forks. In the child, old handles are stale, and a socket of its own sends to the parent and receives.
    void fork_and_work(cl_dunix_t inherited) {
        fork_child();
        if (!child_) return;
        EXPECT_NE(send(inherited, "parent", data_), 0);
        close(inherited);
        EXPECT_EQ(cl_event_loop_run(), 0) << "nothing of the parent's is left";
        const std::string name = "child" + std::to_string(children_);
        const cl_dunix_t own = create(name);
        const int until = reported_ + 2;
        OnDatagram stop = [](auto &&...) { cl_event_loop_stop(); };
        EXPECT_EQ(receive(own, stop), 0);
        for (const std::string &to : {std::string("parent"), name}) EXPECT_EQ(send(own, to, data_), 0);
        EXPECT_EQ(cl_event_loop_run(), 1);
        run_until([&] { return reported_ == until; });
        close(own);
    }
    // Ends the child, once the frames that it inherited have returned.
    void finish_child() const {
        if (child_) children_ % 4 < 2 ? _exit(HasFailure()) : exit(HasFailure());
    }
    void expect_all_succeeded() const {
        finish_child();
        for (int i = 0, status = -1; i < children_; ++i) {
            wait(&status);
            EXPECT_EQ(status, 0);
        }
    }

    const std::string data_ = "child";
    int children_ = 0;
    bool child_ = false;
};

TEST_F(ForkTest, ChildrenUnderTrafficTakeNothingFromTheParent) {
    constexpr int kOwn = 2400; // more than the socket holds, so that sends wait
    const cl_dunix_t parent = create("parent"), sender = create("sender");
    std::vector<std::string> numbers;
    for (int i = 0; i < kOwn; ++i) numbers.push_back(std::to_string(100'000 + i));
    int own = 0, from_children = 0;
    OnDatagram got = [&](const std::string &data, auto &&...) {
        if (data == data_) return void(++from_children);
        EXPECT_EQ(data, numbers[own++]);
        if (own % 80 == 0) fork_and_work(parent); // inside the loop
    };
    receive(parent, got);
    for (int i = 0; i < kOwn; ++i) {
        send(sender, "parent", numbers[i]);
        if (i % 80 == 0) fork_and_work(parent);
        if (i % 3 == 0 && !child_) cl_event_loop_run_once(0);
        finish_child();
    }
    run_until([&] { return finish_child(), own == kOwn && from_children == 60 && reported_ == kOwn; });
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, kOwn}}));
    expect_all_succeeded();
}

TEST_F(ForkTest, TheChildKeepsNoSocketOfAnyThread) {
    std::atomic<int> step{0};
    std::jthread other([&] {
        create("other");
        for (step = 1; step < 2;) std::this_thread::yield();
    });
    while (step < 1) std::this_thread::yield();
    create("parent");
    fork_child();
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code closed;
        if (child_) EXPECT_FALSE(read_symlink(entry, closed).string().starts_with("socket:"));
    }
    expect_all_succeeded();
    EXPECT_TRUE(std::filesystem::exists(path("parent")));
    step = 2;
}

TEST_F(ForkTest, TheCallersUvLoopServesTheParentAndIsForgottenInTheChild) {
    std::vector<char> memory(libuv<size_t()>("uv_loop_size")());
    auto *loop = reinterpret_cast<uv_loop_s *>(memory.data());
    auto *run = libuv<int(uv_loop_s *, int mode)>("uv_run"); // 0: to the end, 1: one turn
    libuv<int(uv_loop_s *)>("uv_loop_init")(loop);
    for (const int result : {0, -1}) EXPECT_EQ(cl_event_loop_attach(loop), result);
    const cl_dunix_t parent = create("parent");
    const RawPeer full(path("full"));
    for (int i = 0; i < 30; ++i) send(parent, "full", data_); // most of them wait
    OnDatagram close_at_child = [&](auto &&...) {
        if (reported_ > 0) close(parent);
        fork_and_work(parent);
    };
    receive(parent, close_at_child);
    on_sent_ = [&](int) { on_sent_ = nullptr, fork_and_work(parent); };
    run(loop, 1);
    if (child_) {
        EXPECT_EQ(libuv<int(uv_loop_s *)>("uv_loop_fork")(loop), 0); // as libuv asks of a loop's owner
        EXPECT_EQ(run(loop, 1), 0) << "nothing keeps it running";
    }
    finish_child();
    run(loop, 0); // until nothing is left
    expect_all_succeeded();
    cl_event_loop_release();
    EXPECT_EQ(libuv<int(uv_loop_s *)>("uv_loop_close")(loop), 0);
}

} // namespace
