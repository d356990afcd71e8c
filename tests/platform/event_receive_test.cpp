// Reception: what is delivered, in which order, and what a callback may do.
#include "event_fixture.h"

namespace {

class ReceiveTest : public EventTest {
  protected:
    void SetUp() override {
        EventTest::SetUp();
        socket_ = create("s");
        ASSERT_NE(socket_, 0u);
    }
    OnDatagram collect() {
        return [this](cl_dunix_t, const void *data, uint32_t len, const cl_sockaddr_t *, int) {
            got_ += std::string(static_cast<const char *>(data), len);
        };
    }
    void send_letters(const std::string &letters) const {
        for (const char letter : letters) EXPECT_TRUE(RawPeer().send(path("s"), std::string(1, letter)));
    }

    cl_dunix_t socket_ = 0;
    std::string got_;
};

TEST_F(ReceiveTest, EmptyTruncatedNamedAndNamelessDatagramsAreToldApart) {
    struct Seen {
        bool null;
        uint32_t len;
        int status;
        std::string from;
    };
    std::vector<Seen> seen;
    OnDatagram look = [&](cl_dunix_t socket, const void *data, uint32_t len, const cl_sockaddr_t *from,
                          int status) {
        EXPECT_EQ(socket, socket_);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % 16, 0u);
        seen.push_back({data == nullptr, len, status, from->len ? from->addr.sun_path : ""});
    };
    ASSERT_EQ(receive(socket_, look), 0);
    const RawPeer named(path("named"));
    for (const size_t size : {0, 65536, 65537, 5}) EXPECT_TRUE(named.send(path("s"), std::string(size, 'x')));
    EXPECT_TRUE(RawPeer().send(path("s"), "abc"));
    run_until([&] { return seen.size() == 5; });
    const uint32_t lengths[] = {0, 65536, 0, 5, 3};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(seen[i].len, lengths[i]) << i;
        EXPECT_EQ(seen[i].status, i == 2 ? CL_EV_TOO_BIG : CL_EV_OK) << i;
        EXPECT_EQ(seen[i].null, i == 2) << i;
        EXPECT_EQ(seen[i].from, i == 4 ? "" : path("named")) << i;
    }
}

TEST_F(ReceiveTest, AReplacedCallbackGetsTheNextDatagram) {
    OnDatagram second = [this](cl_dunix_t, const void *, uint32_t, const cl_sockaddr_t *, int) {
        got_ += "2";
    };
    OnDatagram first = [&](cl_dunix_t socket, const void *, uint32_t, const cl_sockaddr_t *, int) {
        got_ += "1";
        receive(socket, second);
    };
    receive(socket_, first);
    send_letters("abc");
    run_until([&] { return got_.size() == 3; });
    EXPECT_EQ(got_, "122");
}

TEST_F(ReceiveTest, ClosingInTheCallbackEndsDelivery) {
    OnDatagram take_two = [&](cl_dunix_t socket, const void *, uint32_t, const cl_sockaddr_t *, int) {
        got_ += "x";
        if (got_.size() == 2) close(socket);
    };
    receive(socket_, take_two);
    send_letters("abcde");
    EXPECT_EQ(cl_event_loop_run(), 0) << "nothing receives any more";
    EXPECT_EQ(got_, "xx");
    EXPECT_NE(receive(socket_, take_two), 0);
}

TEST_F(ReceiveTest, ARunInsideTheCallbackKeepsTheOrder) {
    int depth = 0;
    OnDatagram nest = [&](cl_dunix_t, const void *data, uint32_t len, const cl_sockaddr_t *, int) {
        const std::string text(static_cast<const char *>(data), len);
        got_ += text;
        if (text == "e") send_letters("ijk"); // for an inner run to fetch
        if (text == "b" || text == "f" || text == "i") {
            ++depth;
            for (int turns = 0; turns < 3; ++turns) cl_event_loop_run_once(0);
            --depth;
        }
        EXPECT_EQ(std::string(static_cast<const char *>(data), len), text) << "valid until the return";
    };
    receive(socket_, nest);
    send_letters("abcdefgh");
    run_until([&] { return got_.size() == 11; });
    EXPECT_EQ(got_, "abcdefghijk");
    EXPECT_EQ(depth, 0);
}

TEST_F(ReceiveTest, ClosingInARunInsideTheCallbackEndsDelivery) {
    OnDatagram nest = [&](cl_dunix_t socket, const void *, uint32_t, const cl_sockaddr_t *, int) {
        got_ += "x";
        if (got_.size() == 1) cl_event_loop_run_once(0);
        if (got_.size() == 3) {
            close(socket);
            for (int turns = 0; turns < 3; ++turns) cl_event_loop_run_once(0); // libuv lets go of it here
        }
    };
    receive(socket_, nest);
    send_letters("abcdef");
    cl_event_loop_run();
    EXPECT_EQ(got_, "xxx");
}

TEST_F(ReceiveTest, ASteadyFloodLeavesTimersTheirTurn) {
    OnDatagram flood = [&](cl_dunix_t, const void *, uint32_t, const cl_sockaddr_t *, int) {
        send_letters("x"); // there is always one more
        got_ += "x";
    };
    receive(socket_, flood);
    send_letters("xxxxx");
    run_until([&] { return got_.size() > 200; });
    run_for(1);
}

} // namespace
