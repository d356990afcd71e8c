// Sending to a peer that is busy, gone, replaced or missing; and what closing does to pending sends.
#include <sys/resource.h>

#include "event_fixture.h"
#include "tavcl_loop.h"

struct SendTest : EventTest {
    SendTest() { cl_dunix_set_send_wait(60'000); }
    // Sends datagrams that begin with their number.
    void send_numbered(const std::string &to, int first, int end, size_t size = 0) {
        for (int i = first; i < end; ++i) {
            (data_[i] = std::to_string(100'000'000 + i)).resize(std::max<size_t>(size, 9), '.');
            ASSERT_EQ(send(socket_, to, data_[i]), 0);
        }
    }
    // Reads from the peer a few at a time until all have come, whole and in order. Some of them wait.
    void expect_in_order(const RawPeer &peer, int number, int next = 0) {
        cl_event_loop_run_once(0);
        EXPECT_LT(reported_, number);
        run_until([&] {
            ++skipped_s; // past the interval of tries without a descriptor
            for (const std::string &got : peer.read(3)) EXPECT_EQ(got, data_[next++]);
            return next >= number && reported_ == number;
        });
        EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, number}}));
    }
    // Lets the destination checks run that are due after these seconds.
    static void skip(long seconds) { skipped_s += seconds, cl_event_loop_run_once(0); }
    static long open_descriptors() {
        using Entries = std::filesystem::directory_iterator;
        return std::distance(Entries("/proc/self/fd"), Entries());
    }

    const cl_dunix_t socket_ = create("s");
    std::map<int, std::string> data_;
};

TEST_F(SendTest, ABusyPeerGetsEverythingInOrderAlsoInBatchesAndWithoutDescriptors) {
    const RawPeer peer(path("peer"));
    const size_t sizes[] = {0, 64'060, 160, 9'000, 500'000, 64'060, 12};
    for (int i = 0; i < 300; i += 5) send_numbered("peer", i, i + 5, sizes[i / 5 % 7]);
    EXPECT_EQ(reported_, 0) << "no report from inside the call";
    expect_in_order(peer, 300);
    const RawPeer by_path(path("by_path"));
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{3, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    send_numbered("by_path", 300, 340);
    expect_in_order(by_path, 340, 300);
    setrlimit(RLIMIT_NOFILE, &before);
    peer.fill(11);
    cl_event_loop_set_batching(16, 0);
    send_numbered("peer", 340, 440);
    expect_in_order(peer, 440, 340);
}

TEST_F(SendTest, AStalledDestinationIsReportedOnceAfterTheWaitAndDelaysNoOther) {
    const RawPeer stalled(path("stalled")), other(path("other"));
    cl_dunix_set_send_wait(10'000);
    send_numbered("stalled", 0, 40);
    send_numbered("other", 40, 45);
    cl_event_loop_run_once(0);
    EXPECT_EQ(other.read().size(), 5u);
    skip(9);
    EXPECT_EQ(stalled.read(1).size(), 1u); // too little to wake the sender, but progress
    for (const long seconds : {0, 1, 9}) skip(seconds);
    EXPECT_EQ(statuses_[CL_EV_WOULD_BLOCK], 0);
    skip(2);
    cl_event_loop_run_once(0);
    const int left = 1 + static_cast<int>(stalled.read().size());
    EXPECT_LT(left, 40);
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, 5 + left}, {CL_EV_WOULD_BLOCK, 40 - left}}));
    cl_dunix_set_send_wait(0);
    stalled.fill(0);
    send_numbered("stalled", 50, 90);
    cl_event_loop_run_once(0); // without a wait the next turn reports
    EXPECT_EQ(statuses_[CL_EV_WOULD_BLOCK], 40 - left + 40);
}

TEST_F(SendTest, FailuresAreReportedByTheirKind) {
    RawPeer(path("stale"));
    const RawPeer peer(path("peer"));
    for (const char *absent : {"missing", "stale"}) send_numbered(absent, 1, 2);
    send_numbered("peer", 3, 4, 64 << 20);
    const cl_sockaddr_t empty{};
    EXPECT_EQ(cl_dunix_sendto2(socket_, &empty, "x", 1, done, this), 0);
    run_until([&] { return reported_ == 4; });
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_NO_PEER, 2}, {CL_EV_TOO_BIG, 1}, {CL_EV_IO, 1}}));
}

TEST_F(SendTest, APathIsFollowedToItsNextOwner) {
    auto peer = std::make_unique<RawPeer>(path("peer"));
    send_numbered("peer", 0, 30);
    cl_event_loop_run_once(0);
    const int left = std::exchange(statuses_[CL_EV_OK], 0);
    EXPECT_LT(left, 30);
    peer.reset(); // while 30 - left wait
    run_until([&] { return reported_ == 30; });
    EXPECT_EQ(statuses_[CL_EV_NO_PEER], 30 - left);
    std::filesystem::remove(path("peer"));
    const RawPeer second(path("peer"));
    send_numbered("peer", 30, 60);
    std::filesystem::remove(path("peer"));
    const RawPeer third(path("peer")); // while the second is alive: noticed when the file is checked again
    skipped_s += 1;
    std::vector<std::string> got;
    run_until([&] { return !(got = third.read()).empty(); });
    EXPECT_EQ(got.at(0), data_[30 + static_cast<int>(second.read().size())]);
}

TEST_F(SendTest, ClosingReportsEverythingOnceAlsoInACompletion) {
    const RawPeer peer(path("peer"));
    send_numbered("peer", 0, 40);
    on_sent_ = [&](int) {
        if (reported_ == 3) cl_event_loop_run_once(0);
        close(socket_);
        EXPECT_NE(send(socket_, "peer", data_[0]), 0) << "the handle is stale";
        cl_event_loop_run_once(0);
    };
    EXPECT_EQ(cl_event_loop_run(), 0);
    const int left = static_cast<int>(peer.read().size());
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, left}, {CL_EV_CANCELLED, 40 - left}}));
}

TEST_F(SendTest, SendsThatLeftAreReportedOnDemandButNotInsideACompletion) {
    const RawPeer peer(path("peer"));
    send_numbered("peer", 0, 30); // most of them wait
    cl_dunix_settle(300, done);   // more than thirty datagrams of nine bytes
    cl_dunix_settle(0, [](cl_dunix_t, int, void *) {});
    EXPECT_EQ(reported_, 0) << "too few bytes; another callback";
    on_sent_ = [&](int) {
        const int before = reported_;
        cl_dunix_settle(0, done);
        EXPECT_EQ(reported_, before);
    };
    cl_dunix_settle(9, done);
    EXPECT_GT(reported_, 1);
    expect_in_order(peer, 30);
    send_numbered("nobody", 30, 31), send_numbered("peer", 31, 32), cl_dunix_settle(0, done);
    EXPECT_EQ(std::pair(reported_, statuses_[CL_EV_OK]), std::pair(31, 31)) << "the other one has failed";
    cl_event_loop_run_once(0);
    EXPECT_EQ(statuses_[CL_EV_NO_PEER], 1);
}

TEST_F(SendTest, ManyDestinationsUseFewDescriptorsAndGiveThemBack) {
    receive(socket_, [](auto &&...) {}); // keeps the loop running
    const long before = open_descriptors();
    std::deque<RawPeer> peers;
    for (int i = 0; i < 200; ++i) peers.emplace_back(path("peer" + std::to_string(i)));
    for (int i = 0; i < 2400; ++i) send_numbered("peer" + std::to_string(i % 200), i, i + 1);
    EXPECT_LE(open_descriptors() - before, 200 + 64);
    cl_event_loop_run_once(0);
    EXPECT_LE(reported_, 2200) << "one waits for each peer";
    run_until([&] {
        for (const RawPeer &peer : peers) peer.read(1);
        return reported_ == 2400;
    });
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, 2400}}));
    skip(20);
    EXPECT_EQ(open_descriptors() - before, 200) << "idle";
    for (int i = 0; i < 100; ++i) send_numbered("nobody" + std::to_string(i), i, i + 1);
    EXPECT_EQ(open_descriptors() - before, 200) << "there is no listener";
}
