// Sending: to a peer that is busy, gone, replaced or missing; and the end of what is under way.
#include <dirent.h>
#include <set>
#include <sys/resource.h>

#include "event_fixture.h"

namespace {

class SendTest : public EventTest {
  protected:
    void SetUp() override {
        EventTest::SetUp();
        socket_ = create("s");
        ASSERT_NE(socket_, 0u);
    }
    // Datagrams that begin with their number, of 9 bytes or as large as given.
    const std::string &numbered(int number, size_t size = 0) {
        std::string &data = data_[number];
        data = std::to_string(100'000'000 + number);
        if (size > data.size()) data.resize(size, '.');
        return data;
    }
    void send_numbered(const std::string &to, int first, int end) {
        for (int i = first; i < end; ++i) ASSERT_EQ(send(socket_, to, numbered(i)), 0);
    }
    static size_t open_descriptors() {
        size_t count = 0;
        DIR *directory = opendir("/proc/self/fd");
        while (readdir(directory)) ++count;
        closedir(directory);
        return count;
    }
    // Reads from the peer a few at a time until all have come, whole and in order.
    void expect_in_order(const RawPeer &peer, int number, int next = 0) {
        run_until([&] {
            for (const std::string &got : peer.read(3)) EXPECT_EQ(got, data_[next++]);
            return next >= number;
        });
        run_until([&] { return reported() == number; });
        EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, number}}));
        EXPECT_TRUE(peer.read().empty());
    }

    cl_dunix_t socket_ = 0;
    std::map<int, std::string> data_;
};

TEST_F(SendTest, ABusyPeerGetsEverythingInOrder) {
    const RawPeer peer(path("peer"));
    const size_t sizes[] = {0, 64'060, 160, 9'000, 500'000, 64'060, 12};
    cl_dunix_set_send_wait(60'000);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(send(socket_, "peer", numbered(i, sizes[i / 5 % 7])), 0);
    EXPECT_EQ(reported(), 0) << "no report from inside the call";
    expect_in_order(peer, 300);
    ASSERT_EQ(send(socket_, "peer", numbered(300, 500'000)), 0); // far larger than the last that waited
    expect_in_order(peer, 301, 300);
}

TEST_F(SendTest, AStalledDestinationIsReportedOnceAfterTheWaitAndHoldsUpNoOther) {
    const RawPeer stalled(path("stalled")), other(path("other"));
    const uint64_t start = cl_event_loop_now();
    send_numbered("stalled", 0, 40);
    send_numbered("other", 40, 45);
    EXPECT_EQ(other.read().size(), 5u);
    on_sent_ = [&](int status) {
        if (status == CL_EV_WOULD_BLOCK) {
            EXPECT_GE(cl_event_loop_now() - start, 1000u);
        }
    };
    run_until([&] { return reported() == 45; });
    const int left = static_cast<int>(stalled.read().size());
    EXPECT_GT(left, 0);
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, 5 + left}, {CL_EV_WOULD_BLOCK, 40 - left}}));
    send_numbered("stalled", 50, 51);
    run_until([&] { return reported() == 46; });
    EXPECT_EQ(stalled.read(), std::vector<std::string>{data_[50]});
}

TEST_F(SendTest, OneDatagramReadIsProgress) {
    const RawPeer peer(path("peer"));
    cl_dunix_set_send_wait(400);
    send_numbered("peer", 0, 40);
    run_for(200); // past the first look at what was read
    if (statuses_[CL_EV_WOULD_BLOCK] > 0) GTEST_SKIP() << "the machine stood still for too long";
    EXPECT_EQ(peer.read(1).size(), 1u); // too little to wake the sender
    const uint64_t read_at = cl_event_loop_now();
    run_until([&] { return statuses_[CL_EV_WOULD_BLOCK] > 0; });
    EXPECT_GE(cl_event_loop_now() - read_at, 400u);
}

TEST_F(SendTest, WithoutAWaitAFullDestinationIsReportedOnTheNextTurn) {
    const RawPeer peer(path("peer"));
    cl_dunix_set_send_wait(0);
    send_numbered("peer", 0, 40);
    EXPECT_EQ(reported(), 0);
    cl_event_loop_run_once(0);
    EXPECT_EQ(reported(), 40);
    EXPECT_EQ(static_cast<size_t>(statuses_[CL_EV_OK]), peer.read().size());
    EXPECT_GT(statuses_[CL_EV_WOULD_BLOCK], 0);
}

TEST_F(SendTest, FailuresAreReportedByTheirKind) {
    RawPeer(path("stale")).die();
    const RawPeer peer(path("peer"));
    EXPECT_EQ(send(socket_, "missing", numbered(1)), 0);
    EXPECT_EQ(send(socket_, "stale", numbered(2)), 0);
    EXPECT_EQ(send(socket_, "peer", numbered(3, 64 << 20)), 0);
    const auto done = [](cl_dunix_t, int status, void *seen) { *static_cast<int *>(seen) = status; };
    int seen = -1;
    const cl_sockaddr_t empty{}, to = address_of(path("peer"));
    EXPECT_EQ(cl_dunix_sendto2(socket_, &empty, "x", 1, done, &seen), 0);
    run_until([&] { return reported() == 3; });
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_NO_PEER, 2}, {CL_EV_TOO_BIG, 1}}));
    EXPECT_EQ(seen, CL_EV_IO);

    EXPECT_NE(cl_dunix_sendto2(socket_, nullptr, "x", 1, done, &seen), 0);
    EXPECT_NE(cl_dunix_sendto2(socket_, &to, nullptr, 0, done, &seen), 0);
    close(socket_);
    EXPECT_NE(send(socket_, "peer", numbered(5)), 0);
    EXPECT_NE(send(0, "peer", numbered(5)), 0);
    EXPECT_EQ(cl_event_loop_run(), 0);
    EXPECT_EQ(reported(), 3);
    std::set<std::string> texts;
    for (int status = -1; status <= 6; ++status) texts.insert(cl_ev_strerror(status));
    EXPECT_EQ(texts.size(), 7u);
}

TEST_F(SendTest, ADeadPeersPlaceIsTakenByTheNextOne) {
    auto peer = std::make_unique<RawPeer>(path("peer"));
    send_numbered("peer", 0, 30);
    cl_event_loop_run_once(0);
    const int left = statuses_[CL_EV_OK];
    EXPECT_LT(left, 30);
    peer.reset(); // with 30 - left waiting
    run_until([&] { return reported() == 30; });
    EXPECT_EQ(statuses_[CL_EV_NO_PEER], 30 - left);

    std::filesystem::remove(path("peer"));
    const RawPeer second(path("peer"));
    cl_dunix_set_send_wait(60'000);
    send_numbered("peer", 30, 60);
    std::filesystem::remove(path("peer"));
    const RawPeer third(path("peer")); // while the second lives: noticed when the path is looked at again
    std::vector<std::string> got;
    run_until([&] { return !(got = third.read()).empty(); });
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.front(), data_[30 + static_cast<int>(second.read().size())]);
}

TEST_F(SendTest, ClosingReportsEverythingOnce) {
    const RawPeer peer(path("peer"));
    send_numbered("peer", 0, 40);
    on_sent_ = [&](int) { EXPECT_NE(send(socket_, "peer", data_[0]), 0) << "the handle is stale"; };
    close(socket_);
    EXPECT_EQ(reported(), 40);
    const int left = static_cast<int>(peer.read().size());
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, left}, {CL_EV_CANCELLED, 40 - left}}));
    EXPECT_EQ(cl_event_loop_run(), 0);
    EXPECT_EQ(reported(), 40);
}

TEST_F(SendTest, WhatHasLeftIsReportedOnDemand) {
    const RawPeer peer(path("peer"));
    send_numbered("peer", 0, 5);
    cl_dunix_settle(46, done); // five datagrams of nine bytes
    EXPECT_EQ(reported(), 0);
    cl_dunix_settle(45, done);
    EXPECT_EQ(reported(), 5);
    cl_dunix_settle(1, done);
    send_numbered("peer", 5, 30); // what waits for room is not touched
    cl_dunix_settle(0, [](cl_dunix_t, int, void *) {});
    EXPECT_EQ(reported(), 5) << "of others";
    cl_dunix_settle(0, done);
    EXPECT_GT(reported(), 5);
    expect_in_order(peer, 30);
}

TEST_F(SendTest, ACompletionMayCloseItsSocketAndRunTheLoop) {
    const RawPeer peer(path("peer"));
    send_numbered("peer", 0, 40);
    on_sent_ = [&](int) {
        if (reported() == 3) cl_event_loop_run_once(0);
        close(socket_);
        cl_event_loop_run_once(0);
    };
    run_until([&] { return reported() == 40; });
    EXPECT_EQ(cl_event_loop_run(), 0);
    EXPECT_EQ(reported(), 40);
}

TEST_F(SendTest, ManyDestinationsUseFewDescriptorsAndGiveThemBack) {
    cl_dunix_set_send_wait(60'000);
    const size_t before = open_descriptors();
    for (int i = 0; i < 100; ++i) ASSERT_EQ(send(socket_, "nobody" + std::to_string(i), numbered(i)), 0);
    run_until([&] { return reported() == 100; });
    EXPECT_EQ(open_descriptors(), before);
    statuses_.clear();
    std::vector<RawPeer> peers;
    for (int i = 0; i < 200; ++i) peers.emplace_back(path("peer" + std::to_string(i)));
    for (int round = 0; round < 12; ++round) // the last rounds find all of them full
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(send(socket_, "peer" + std::to_string(i), numbered(round * 200 + i)), 0);
    EXPECT_LE(open_descriptors() - before, 200u + 64);
    int next[200] = {};
    run_until([&] {
        for (int i = 0; i < 200; ++i)
            for (const std::string &got : peers[i].read(1)) EXPECT_EQ(got, data_[next[i]++ * 200 + i]);
        return reported() == 2400;
    });
    EXPECT_EQ(statuses_, (std::map<int, int>{{CL_EV_OK, 2400}}));
    close(socket_);
    peers.clear();
    cl_event_loop_run_once(0);
    EXPECT_LT(open_descriptors(), before);
}

TEST_F(SendTest, WithoutDescriptorsDatagramsGoByPath) {
    const RawPeer peer(path("peer"));
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{3, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    send_numbered("peer", 0, 40);
    expect_in_order(peer, 40);
    setrlimit(RLIMIT_NOFILE, &before);
}

} // namespace
