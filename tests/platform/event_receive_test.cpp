// Reception: what is delivered, in which order, and what a callback may do.
#include "event_fixture.h"

namespace {

class ReceiveTest : public EventTest {
  protected:
    void send_letters(const std::string &letters) const {
        for (const char letter : letters) EXPECT_TRUE(RawPeer().send(path("s"), std::string(1, letter)));
    }
    // Appends each datagram to got_, then calls `then` with it.
    void collect(std::function<void(const std::string &)> then) {
        on_datagram_ = [this, then](const std::string &data, auto &&...) { got_ += data, then(data); };
        ASSERT_EQ(receive(socket_, on_datagram_), 0);
    }
    static void run_turns() {
        for (int turns = 0; turns < 3; ++turns) cl_event_loop_run_once(0);
    }

    const cl_dunix_t socket_ = create("s");
    OnDatagram on_datagram_;
    std::string got_;
};

TEST_F(ReceiveTest, EmptyTruncatedNamedAndNamelessDatagramsAreDistinguished) {
    const RawPeer named(path("named"));
    OnDatagram look = [&](const std::string &data, const cl_sockaddr_t &from, int status) {
        const bool has_name = from.len && from.addr.sun_path == path("named");
        got_ += std::to_string(data.size()) + (has_name ? " named " : " ") + cl_ev_strerror(status) + "|";
    };
    ASSERT_EQ(receive(socket_, look), 0);
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
    collect([&](const std::string &) { send_letters("x"); }); // there is always one more
    send_letters("xxxxx");
    cl_timer_start(
        1, [](void *) { cl_event_loop_stop(); }, nullptr);
    EXPECT_EQ(cl_event_loop_run(), 1);
}

} // namespace
