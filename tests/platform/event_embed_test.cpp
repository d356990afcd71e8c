// The loop inside another loop, calls from threads and signal handlers, watches.
#include <poll.h>
#include <uv.h>

#include "event_fixture.h"
#include "tavcl_loop.h"

cl_loop_t g_loop = 0;
std::string g_calls;
char a[] = "a", b[] = "b", c[] = "c";
void call(void *name) { g_calls += static_cast<const char *>(name); }

struct EmbedTest : EventTest {
    EmbedTest() { g_calls.clear(); }
    static bool readable(int timeout_ms) {
        pollfd entry{cl_event_loop_fd(), POLLIN, 0};
        return poll(&entry, 1, timeout_ms) == 1;
    }
    static void serve_until(const std::function<bool()> &condition) { // as another loop does
        for (; !condition(); cl_event_loop_dispatch()) ASSERT_TRUE(readable(10'000)) << "work is due";
    }
    static void serve_until_quiet() {
        for (int turns = 0; readable(0); cl_event_loop_dispatch()) ASSERT_LT(++turns, 10) << "nothing is due";
    }
    static void expect_signal(int signo, void (*handler)(int)) {
        signal(signo, handler);
        std::thread([signo, to = pthread_self()] { pthread_kill(to, signo); }).detach();
    }
    const cl_timer_t far_ = cl_timer_start(UINT64_MAX, call, a);
};

TEST_F(EmbedTest, TheDescriptorIsReadableWhenSomethingIsDue) {
    serve_until_quiet();
    OnDatagram got = [](auto &&...) { g_calls += 'r'; };
    const cl_dunix_t to = create("to"), from = create("from");
    receive(to, got);
    EXPECT_TRUE(RawPeer().send(path("to"), "x"));
    serve_until([] { return g_calls == "r"; });
    const cl_timer_t later = cl_timer_start(60'000, call, b);
    EXPECT_GT(cl_event_loop_timeout(), 0);
    cl_timer_stop(later), cl_timer_start(20, call, a);
    const std::string data(1000, 'x');
    for (int i = 0; i < 600; ++i) send(from, "to", data); // most of them wait
    EXPECT_EQ(cl_event_loop_timeout(), 0) << "some have left";
    serve_until([&] { return g_calls.size() == 602 && reported_ == 600; });
    close(from), close(to), cl_timer_stop(far_);
    serve_until_quiet();
    EXPECT_EQ(cl_event_loop_timeout(), -1);
    EXPECT_EQ(cl_event_loop_dispatch(), 0) << "nothing to wait for";
}

// As a loop does that waits for libuv's descriptor, and has uv_run do what is due.
TEST_F(EmbedTest, ALoopAroundTheCallersLoopMissesNothing) {
    cl_event_loop_release();
    uv_loop_t callers;
    ASSERT_EQ(uv_loop_init(&callers), 0);
    ASSERT_EQ(cl_event_loop_attach(&callers), 0);
    cl_event_loop_set_batching(10, 0);
    const RawPeer peer(path("peer"));
    const cl_dunix_t from = create("from");
    const std::string data = "x";
    size_t arrived = 0;
    std::function<void()> again = [&] {
        send(from, "peer", data);
        cl_timer_start(
            1, [](void *next) { (*static_cast<std::function<void()> *>(next))(); }, &again);
    };
    for (again(); arrived < 5; arrived += peer.read().size()) {
        pollfd entry{uv_backend_fd(&callers), POLLIN, 0};
        const int timeout_ms = uv_backend_timeout(&callers);
        const int ready = poll(&entry, 1, timeout_ms < 0 ? 10'000 : timeout_ms);
        ASSERT_TRUE(ready > 0 || timeout_ms >= 0) << "work is due";
        uv_run(&callers, UV_RUN_NOWAIT);
    }
    cl_event_loop_release();
    EXPECT_EQ(uv_loop_close(&callers), 0);
}

TEST_F(EmbedTest, ATimerFiresInTheFirstTurnAfterItIsDue) {
    serve_until_quiet();
    for (size_t fired = 1; fired <= 5; ++fired) {
        cl_timer_start(2, call, b);
        while (cl_event_loop_timeout() != 0) continue;
        cl_event_loop_dispatch();
        ASSERT_EQ(g_calls.size(), fired);
    }
}

TEST_F(EmbedTest, PostedFunctionsRunOnceInOrderOrNever) {
    g_loop = cl_event_loop_self();
    cl_timer_stop(far_); // functions that wait keep the run going
    std::thread([] { cl_event_loop_post(g_loop, call, a), cl_event_loop_post(g_loop, call, b); }).join();
    const auto nested = [](void *name) { cl_event_loop_post(g_loop, call, name), cl_event_loop_run_once(0); };
    cl_event_loop_post(g_loop, nested, c);
    EXPECT_EQ(cl_event_loop_run(), 0);
    EXPECT_EQ(g_calls, "abc");
    EXPECT_EQ(cl_event_loop_post(g_loop, call, b), 0);
    cl_event_loop_release();
    EXPECT_NE(cl_event_loop_self(), g_loop);
    EXPECT_EQ(cl_event_loop_post(g_loop, call, b), -1) << "stale";
    EXPECT_EQ(cl_event_loop_run(), 0);
    EXPECT_EQ(g_calls, "abc");
}

TEST_F(EmbedTest, ThreadsAndSignalHandlersEndTheWait) {
    g_loop = cl_event_loop_self();
    for (int i = 0; i < 200; ++i) {
        std::thread([] { cl_event_loop_wake(g_loop); }).detach();
        EXPECT_EQ(cl_event_loop_run_once(-1), 1);
        const auto stop_by_signal = [](void *) { expect_signal(SIGUSR1, [](int) { cl_event_loop_stop(); }); };
        cl_event_loop_post(g_loop, stop_by_signal, nullptr); // inside the run
        EXPECT_EQ(cl_event_loop_run(), 1);
        expect_signal(SIGUSR1, [](int) { cl_event_loop_wake(g_loop); });
        EXPECT_EQ(cl_event_loop_run_once(-1), 1);
    }
}

TEST_F(EmbedTest, AWatchStopsAnotherAndLeavesTheDescriptorAsItIs) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    static cl_io_t other;
    const auto ready = [](cl_io_t io, int, void *name) { call(name), cl_io_stop(other), cl_io_stop(io); };
    cl_io_start(ends[1], CL_IO_WRITE, ready, a);
    EXPECT_EQ(cl_io_start(ends[1], CL_IO_READ, ready, a), 0u) << "a second watch";
    const int copy = dup(ends[1]);
    other = cl_io_start(copy, CL_IO_WRITE, ready, a);
    cl_io_start(ends[0], CL_IO_READ, ready, b);
    serve_until([] { return g_calls == "a"; });
    serve_until_quiet();
    EXPECT_EQ(fcntl(copy, F_GETFL) & O_NONBLOCK, 0);
    ::close(copy), ::close(ends[1]); // a hang-up is reported as readable
    serve_until([] { return g_calls == "ab"; });
}

TEST_F(EmbedTest, SignalWatchesAndHandlesEndInAForkedChild) {
    signal(SIGUSR2, SIG_IGN);
    const auto caught = [](cl_signal_t, int, void *name) { call(name); };
    const cl_signal_t first = cl_signal_start(SIGUSR2, caught, a);
    cl_signal_start(SIGUSR2, caught, b);
    raise(SIGUSR2);
    serve_until([] { return g_calls == "ab"; });
    g_loop = cl_event_loop_self();
    if (fork() == 0) // the child has the old disposition
        _exit(signal(SIGUSR2, SIG_IGN) != SIG_IGN || cl_event_loop_run() || cl_event_loop_wake(g_loop) != -1);
    int status = -1;
    EXPECT_EQ((wait(&status), status), 0);
    cl_signal_stop(first);
    raise(SIGUSR2);
    serve_until([] { return g_calls == "abb"; });
    cl_event_loop_release();
    EXPECT_EQ(signal(SIGUSR2, SIG_DFL), SIG_IGN) << "restored";
}
