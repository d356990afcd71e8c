// Timers and runs of the loop, reception, and the file of a socket.
#include <barrier>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "event_fixture.h"

static std::atomic<int> locked = -1; // a descriptor, until the library waits for its lock
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t us) {
    if (const int fd = locked.exchange(-1); fd >= 0) close(fd);
    return std::this_thread::sleep_for(std::chrono::microseconds(us)), 0;
}

using SocketFileTest = EventTest;

TEST_F(SocketFileTest, TooFewDescriptorsAreTheReason) { // the first test: libuv makes a pipe only once
    const cl_sockaddr_t address = address_of(path("s"));
    RawPeer(path("s")); // stale
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    cl_dunix_t socket = 0;
    for (rlimit few{3, before.rlim_max}; !socket && few.rlim_cur < 100; ++few.rlim_cur) {
        setrlimit(RLIMIT_NOFILE, &few);
        socket = cl_dunix_create(&address, nullptr, nullptr);
        EXPECT_TRUE(socket || errno == EMFILE) << few.rlim_cur << ": " << strerror(errno);
    }
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_NE(socket, 0u);
}

struct LoopTest : EventTest {
    // Starts a timer that appends its name to fired_ and then runs `then`.
    cl_timer_t plan(
        const std::string &name, uint64_t delay_ms, std::function<void()> then = [] {}) {
        const auto fire = [](void *plan) { (*static_cast<std::function<void()> *>(plan))(); };
        auto &plan = plans_.emplace_back([this, name, then, due = cl_event_loop_now() + delay_ms] {
            EXPECT_GE(cl_event_loop_now(), due) << name << " is early";
            fired_ += name;
            then();
        });
        return cl_timer_start(delay_ms, fire, &plan);
    }

    std::deque<std::function<void()>> plans_;
    std::string fired_;
};

TEST_F(LoopTest, TimersFireInOrderOfDueTimeUnlessTheyAreStopped) {
    std::vector<cl_timer_t> timers{plan("x", UINT64_MAX), plan("y", UINT64_MAX - cl_event_loop_now())};
    for (int i = 0; i < 600; ++i) {
        const int delay_s = i * 7 % 20;
        timers.push_back(plan(std::string(1, static_cast<char>('a' + delay_s)), 1000 * delay_s));
    }
    timers.push_back(plan("z", 30'000, [&] { cl_timer_stop(timers.back()), cl_timer_stop(timers[0]); }));
    timers.push_back(plan("late", 30'000)); // due at the same time
    for (size_t i = 1; i < 602; i += 3) cl_timer_stop(timers[i]);
    skipped_s += 60;
    EXPECT_EQ(cl_event_loop_run(), 0) << "nothing is left";
    EXPECT_EQ(fired_.size(), 401u);
    EXPECT_TRUE(std::is_sorted(fired_.begin(), fired_.end())) << fired_;
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
    cl_timer_stop(plan("x", 0)); // raises the generation of its slot
    const cl_timer_t timer = plan("x", 0);
    const cl_dunix_t socket = create("s");
    cl_event_loop_release();
    plan("a", 0);
    EXPECT_NE(create("s"), 0u);
    cl_timer_stop(timer), close(socket);
    EXPECT_TRUE(std::filesystem::exists(path("s")));
    cl_event_loop_run();
    EXPECT_EQ(fired_, "a");
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

struct ReceiveTest : EventTest {
    void send_letters(const std::string &letters) const {
        for (const char letter : letters) EXPECT_TRUE(RawPeer().send(path("s"), std::string(1, letter)));
    }
    // Appends each datagram to got_, then calls `then` with it.
    void collect(std::function<void(const std::string &)> then) {
        receive(socket_, [this, then](const std::string &data, auto &&...) { got_ += data, then(data); });
    }
    static void run_turns() {
        for (int turns = 0; turns < 3; ++turns) cl_event_loop_run_once(0);
    }

    const cl_dunix_t socket_ = create("s");
    std::string got_;
};

TEST_F(ReceiveTest, EmptyTruncatedNamedAndNamelessDatagramsAreDistinguished) {
    const RawPeer named(path("named"));
    receive(socket_, [&](const std::string &data, const cl_sockaddr_t &from, int status) {
        const bool has_name = from.len && from.addr.sun_path == path("named");
        got_ += std::to_string(data.size()) + (has_name ? " named " : " ") + cl_ev_strerror(status) + "|";
    });
    for (const size_t size : {0, 65536, 65537}) EXPECT_TRUE(named.send(path("s"), std::string(size, 'x')));
    send_letters("a");
    run_until([&] { return got_.ends_with("1 success|"); });
    EXPECT_EQ(got_, "0 named success|65536 named success|0 named datagram too big|1 success|");
}

TEST_F(ReceiveTest, ARunInsideTheCallbackKeepsTheOrder) {
    collect([&](const std::string &data) {
        if (data == "e") send_letters("ijk"); // for an inner run to fetch
        if (data == "b" || data == "f" || data == "i") run_turns();
    });
    send_letters("abcdefgh");
    run_until([&] { return got_.size() == 11; });
    EXPECT_EQ(got_, "abcdefghijk");
}

TEST_F(ReceiveTest, ClosingInARunInsideTheCallbackEndsDelivery) {
    collect([&](const std::string &) {
        if (got_.size() == 1) cl_event_loop_run_once(0);
        if (got_.size() == 3) close(socket_), run_turns(); // libuv lets go of the handle here
    });
    send_letters("abcdef");
    EXPECT_EQ(cl_event_loop_run(), 0) << "nothing receives any more";
    EXPECT_EQ(got_, "abc");
}

TEST_F(ReceiveTest, ASteadyFloodLeavesTimersTheirTurn) {
    collect([&](const std::string &) { send_letters(got_.size() < 2000 ? "x" : ""); }); // always one more
    send_letters("xxxxx");
    cl_timer_start(
        0, [](void *) { cl_event_loop_stop(); }, nullptr);
    EXPECT_EQ(cl_event_loop_run(), 1);
    EXPECT_LT(got_.size(), 2000u);
}

TEST_F(SocketFileTest, DirectoriesAreCreatedAndTheFileIsRemovedUnlessItIsAnothers) {
    umask(022);
    const cl_dunix_t socket = create("one/two/s"), replaced = create("t");
    EXPECT_EQ(std::filesystem::status(path("one/two")).permissions(), std::filesystem::perms{0755});
    close(socket);
    EXPECT_FALSE(std::filesystem::exists(path("one/two/s")));
    const cl_sockaddr_t address = address_of("/sys/no_such_directory/s"); // nobody may make it
    EXPECT_EQ(cl_dunix_create(&address, nullptr, nullptr), 0u);
    EXPECT_NE(errno, ENOENT) << "it says why the directory is missing";
    const RawPeer other(path("one/two/s"));
    close(socket); // stale
    std::filesystem::rename(path("one/two/s"), path("t"));
    close(replaced);
    EXPECT_TRUE(RawPeer().send(path("t"), "x"));
}

TEST_F(SocketFileTest, WrongAddressesLiveSocketsAndOtherFilesAreRefused) {
    for (const std::string &wrong : {std::string(), std::string(108, 'x')}) {
        cl_sockaddr_t address;
        memset(&address, 0xAA, sizeof address);
        EXPECT_EQ(cl_sockaddr_un_init(&address, wrong.c_str()), -1);
        EXPECT_EQ(cl_dunix_create(&address, nullptr, nullptr), 0u);
    }
    const RawPeer live(path("live")), full(path("full")), stream(path("stream"), SOCK_STREAM);
    full.fill(0);
    directory_.write("plain", "text");
    std::filesystem::create_symlink(path("nowhere"), path("link"));
    for (const char *name : {"live", "full", "stream", "plain", "link"}) {
        EXPECT_EQ(create(name), 0u) << name;
        EXPECT_EQ(errno, EADDRINUSE) << name;
    }
    EXPECT_TRUE(RawPeer().send(path("live"), "x"));
    EXPECT_EQ(std::filesystem::file_size(path("plain")), 4u);
}

TEST_F(SocketFileTest, OneOfManyReplacesAStaleFile) {
    RawPeer(path("s"));
    locked = open(path(".").c_str(), O_RDONLY);
    EXPECT_EQ(flock(locked, LOCK_SH), 0); // not even a lock that others may share
    EXPECT_NE(create("s"), 0u);
    EXPECT_EQ(locked, -1);
    cl_event_loop_release(); // closes it
    for (int round = 0; round < 20; ++round) {
        RawPeer(path("s"));
        std::atomic<int> made{0};
        std::barrier all(4);
        const auto race = [&] {
            all.arrive_and_wait();
            const cl_dunix_t socket = create("s");
            made += socket != 0;
            all.arrive_and_wait();
            EXPECT_TRUE(!socket || RawPeer().send(path("s"), "x"));
        };
        for (std::jthread threads[4]; auto &thread : threads) thread = std::jthread(race);
        ASSERT_EQ(made, 1);
    }
}
