// Datagrams that leave at once, batches of datagrams, and loops that look for work before they sleep.
#include <csignal>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <uv.h>

#include "event_fixture.h"
#include "tavcl_loop.h"

static std::function<void()> on_yield;              // between two turns of busy polling
static std::function<void(int timeout_ms)> on_wait; // before the loop waits, or only looks (0)

#pragma GCC visibility push(default)
extern "C" int sched_yield() noexcept { return on_yield ? on_yield(), 0 : 0; }
extern "C" int epoll_pwait(int set, epoll_event *events, int most, int timeout_ms, const sigset_t *mask) {
    if (on_wait) on_wait(timeout_ms);
    return static_cast<int>(syscall(SYS_epoll_pwait, set, events, most, timeout_ms, mask, _NSIG / 8));
}
extern "C" int epoll_wait(int set, epoll_event *events, int most, int timeout_ms) {
    return epoll_pwait(set, events, most, timeout_ms, nullptr);
}
#pragma GCC visibility pop

namespace {

using Texts = std::vector<std::string>;

class SpeedTest : public EventTest {
  protected:
    SpeedTest() {
        cl_dunix_set_send_wait(60'000);
        cl_event_loop_set_batching(0, 0); // whatever the environment says
        cl_event_loop_set_busy_poll(0);
    }
    void TearDown() override {
        on_yield = nullptr; // they use variables of the test
        on_wait = nullptr;
        EventTest::TearDown();
    }
    int send_now(const std::string &to, std::string first, std::string second = {}) {
        const iovec parts[] = {{first.data(), first.size()}, {second.data(), second.size()}};
        const cl_sockaddr_t address = address_of(path(to));
        return cl_dunix_send_now(socket_, &address, parts, 2);
    }
    void send_all(const std::string &to, const Texts &texts) {
        for (const std::string &text : texts) ASSERT_EQ(send(socket_, to, data_.emplace_back(text)), 0);
    }

    cl_dunix_t socket_ = create("s");
    std::deque<std::string> data_;
};

TEST_F(SpeedTest, ADatagramLeavesAtOnceOrNotAtAll) {
    auto peer = std::make_unique<RawPeer>(path("peer"));
    const std::string large(64'000, 'p');
    EXPECT_EQ(send_now("peer", "head", "data") + send_now("peer", large, "!") + send_now("peer", ""), 0);
    EXPECT_EQ(peer->read(), (Texts{"headdata", large + "!", ""}));
    EXPECT_EQ(send_now("missing", "x"), CL_EV_NO_PEER);
    EXPECT_EQ(send_now("peer", std::string(64 << 20, 'x')), CL_EV_TOO_BIG);
    EXPECT_EQ(cl_dunix_send_now(socket_, nullptr, nullptr, 1), -1);
    EXPECT_EQ(cl_event_loop_run(), 0) << "nothing is left";
    int left = 0;
    while (send_now("peer", std::to_string(left)) == CL_EV_OK) ++left;
    send_all("peer", {"waits"});
    EXPECT_EQ(peer->read(1), Texts{"0"});
    EXPECT_EQ(send_now("peer", "would pass it"), CL_EV_WOULD_BLOCK);
    EXPECT_EQ(peer->read().size(), static_cast<size_t>(left) - 1);
    run_until([&] { return reported_ == 1; });
    EXPECT_EQ(peer->read(), Texts{"waits"});
    peer.reset();
    std::filesystem::remove(path("peer"));
    const RawPeer next(path("peer"));
    EXPECT_EQ(send_now("peer", "x"), CL_EV_OK);
    EXPECT_EQ(next.read(), Texts{"x"});
}

TEST_F(SpeedTest, ABatchLeavesWhenItIsFullOldOrTheTurnEnds) {
    const RawPeer peer(path("peer")), other(path("other"));
    const auto both = [&] { return std::pair(peer.read(), other.read()); };
    const std::pair<Texts, Texts> none;
    cl_event_loop_set_batching(3, 60'000'000);
    EXPECT_EQ(send_now("peer", "x"), CL_EV_WOULD_BLOCK);
    send_all("peer", {"1", "2"});
    send_all("other", {"a"});
    EXPECT_EQ(both(), none);
    send_all("peer", {"3"});
    EXPECT_EQ(both(), std::pair(Texts({"1", "2", "3"}), Texts{}));
    skipped_s += 60;
    send_all("peer", {"4"});
    EXPECT_EQ(both(), std::pair(Texts{"4"}, Texts{"a"}));
    pollfd embedded{cl_event_loop_fd(), POLLIN, 0};
    while (poll(&embedded, 1, 0) > 0) cl_event_loop_dispatch();
    send_all("peer", {"5"});
    EXPECT_EQ(poll(&embedded, 1, 0), 1);
    cl_event_loop_dispatch();
    EXPECT_EQ(both(), std::pair(Texts{"5"}, Texts{}));
    send_all("peer", {"6"});
    cl_event_loop_set_batching(0, 0);
    EXPECT_EQ(both(), std::pair(Texts{"6"}, Texts{}));
    cl_event_loop_set_batching(100, 0);
    send_all("peer", {"7", "8"});
    cl_dunix_settle(1, nullptr);
    EXPECT_EQ(both(), none);
    cl_dunix_settle(0, nullptr);
    EXPECT_EQ(reported_, 9);
    send_all("peer", {"9"});
    close(socket_);
    EXPECT_EQ(both(), std::pair(Texts({"7", "8", "9"}), Texts{}));
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, 10}}));
}

TEST_F(SpeedTest, ABatchFromTheEnvironmentLeavesWhenItsThreadOrProcessEnds) {
    const RawPeer peer(path("peer"));
    const auto all_wait = [&](const std::string &name) {
        socket_ = create(name);
        send_all("peer", {"1", "2"});
        return peer.read().empty();
    };
    setenv("TAV_BATCH_DATAGRAMS", "100", 1);
    std::thread([&] { EXPECT_TRUE(all_wait("thread")); }).join();
    EXPECT_EQ(peer.read(), Texts({"1", "2"}));
    EXPECT_EXIT(exit(!all_wait("process")), testing::ExitedWithCode(0), "");
    EXPECT_EQ(peer.read(), Texts({"1", "2"}));
    cl_event_loop_release();
    EXPECT_TRUE(all_wait("parent"));
    unsetenv("TAV_BATCH_DATAGRAMS");
    EXPECT_EXIT(exit(0), testing::ExitedWithCode(0), "") << "the child has no part in the parent's batch";
    EXPECT_EQ(peer.read(), Texts());
}

TEST_F(SpeedTest, ABusyLoopServesEverythingAndSleepsWhenItsTimeIsUp) {
    setenv("TAV_BUSY_POLL_US", "60000000", 1);
    cl_event_loop_release();
    socket_ = create("s");
    unsetenv("TAV_BUSY_POLL_US");
    const RawPeer peer;
    int received = 0, turns = 0;
    receive(socket_, [&](auto &&...) { ++received; });
    on_yield = [&] {
        if (++turns == 5) peer.send(path("s"), "x");
    };
    while (received == 0) cl_event_loop_run_once(-1);
    EXPECT_EQ(turns, 5);
    const cl_signal_t watch = cl_signal_start(
        SIGUSR1, [](cl_signal_t, int, void *) { cl_event_loop_stop(); }, nullptr);
    on_yield = [] { raise(SIGUSR1); };
    EXPECT_EQ(cl_event_loop_run(), 1);
    cl_signal_stop(watch);
    cl_event_loop_set_busy_poll(2'000'000);
    for (const uint64_t timer_ms : {1000, 2020}) { // it is due before, and just after, the time is up
        cl_timer_start(
            timer_ms, [](void *) { cl_event_loop_stop(); }, nullptr);
        turns = 0;
        on_yield = [&] { skipped_s += turns++ == 1 ? timer_ms / 1000 : 0; };
        EXPECT_EQ(cl_event_loop_run(), 1);
        EXPECT_EQ(turns, 2);
    }
}

TEST_F(SpeedTest, ALoopLooksForMoreBeforeItSleepsWhileThatPays) {
    constexpr int kMessages = 1000, kTurns = 16, kLongestPause = 255;
    const RawPeer peer;
    int received = 0, looks = 0, sleeps = 0, send_at = 0; // 0: only when the loop sleeps
    receive(socket_, [&](auto &&...) {
        if (++received % kMessages == 0) cl_event_loop_stop();
    });
    on_wait = [&](int timeout_ms) {
        ++(timeout_ms == 0 ? looks : sleeps);
        if (timeout_ms != 0 || (send_at && looks % send_at == 0)) peer.send(path("s"), "x");
    };
    cl_event_loop_run();
    EXPECT_EQ(sleeps, kMessages);
    EXPECT_TRUE(looks >= kTurns && looks <= 11 * kTurns) << looks; // pauses of 1, 3, 7 ... 255 and 255
    send_at = kTurns / 2;
    cl_event_loop_run();
    EXPECT_LE(sleeps, kMessages + kLongestPause + 1);
}

TEST_F(SpeedTest, ASingleTurnWaitsOnTheCallersBusyLoop) {
    cl_event_loop_release();
    uv_loop_t callers;
    ASSERT_EQ(uv_loop_init(&callers), 0);
    ASSERT_EQ(cl_event_loop_attach(&callers), 0);
    cl_event_loop_set_busy_poll(60'000'000);
    bool due = false;
    cl_timer_start(
        1, [](void *fired) { *static_cast<bool *>(fired) = true; }, &due);
    cl_event_loop_run_once(-1);
    EXPECT_TRUE(due);
    cl_event_loop_release();
    EXPECT_EQ(uv_loop_close(&callers), 0);
}

} // namespace
