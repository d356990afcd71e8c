// The receive path: what is believed of a datagram, how fragments and compressed payloads are restored, who
// gets the message, and callbacks that destroy the endpoint under it.
#include <algorithm>

#include "endpoint_world.h"
#include "ipc/receive.h"
#include "tavipc/tav_compress.h"

namespace {

class ReceiveTest : public EndpointWorld {
  protected:
    ReceiveTest() { listen(ipc_); }

    static Datagram message(std::string payload, uint16_t flags = 0) {
        Datagram result{.path = {}, .payload = std::move(payload)};
        result.header.dest = address("alpha");
        result.header.src = address("beta", 2, 0, 55);
        result.header.flags = flags;
        result.header.cmd = 7;
        result.header.reqid = 99;
        return result;
    }
    // Fragment seq of a message of total bytes, with the payload that belongs there.
    static Datagram fragment(uint16_t seq, uint32_t total, uint16_t flags = IPC_FLAG_TRACE) {
        const std::string whole = pattern(std::min(total, 200'000u));
        const size_t offset = std::min<size_t>(size_t{seq} * 64'000, whole.size());
        Datagram result = message(whole.substr(offset, 64'000), flags);
        tavipc::set_fragment(result.header, seq);
        result.header.frag_orig = total;
        result.header.frag_id = 5;
        return result;
    }
    static std::string compressed(const std::string &plain) {
        void *out = nullptr;
        EXPECT_EQ(tav_msg_compress(plain.data(), &out, 0), 0);
        const auto *bytes = static_cast<const char *>(out);
        const std::string result(bytes, 20 + tavipc::app_body_length(bytes));
        std::free(out);
        return result;
    }
    uint32_t sets() const { return ipc_->frag_table ? xhash_count(ipc_->frag_table) : 0; }
    int traced(const std::string &text) { return w.log.count(", " + text, 4); }
    Call got(std::string payload, const char *kind = "message", size_t sent_before = 0) {
        return {kind, "beta", std::move(payload), kind[0] == 'r' ? 99u : 0u, 7, sent_before};
    }
    std::vector<Call> only(Call call) { return {std::move(call)}; }

    tav_ipc_st *ipc_ = open();
};

TEST_F(ReceiveTest, OnlySoundDatagramsAreBelieved) {
    const std::string sound = message("hello").bytes();
    const auto claims = [&](uint32_t size) { // with a check value that agrees
        tav_ipc_hdr_st header = tavipc::read_header(sound.data());
        header.size = size;
        header.magic = tav_ipc_hdr_magic(&header);
        return std::string(reinterpret_cast<char *>(&header), sizeof header) + "hello";
    };
    std::string forged = sound;
    forged[40] ^= 1;
    const struct {
        std::string bytes;
        int status;
        const char *payload; // null: dropped
    } cases[] = {{sound, 0, "hello"},     {message("").bytes(), 0, ""},
                 {claims(4), 0, "hell"},  {message("").bytes().substr(0, 59), 0, nullptr},
                 {"", 0, nullptr},        {sound, 3, nullptr},
                 {claims(6), 0, nullptr}, {claims(UINT32_MAX - 59), 0, nullptr},
                 {forged, 0, nullptr}};
    for (const auto &c : cases) {
        calls_.clear();
        w.log.lines.clear();
        receive(ipc_, c.bytes, c.status);
        EXPECT_EQ(calls_, c.payload ? only(got(c.payload)) : std::vector<Call>{});
        EXPECT_TRUE(w.log.lines.empty());
    }
    tavipc::ipc_on_recv(0, nullptr, 60, nullptr, 0, ipc_);
    tavipc::ipc_on_recv(0, sound.data(), static_cast<uint32_t>(sound.size()), nullptr, 0, nullptr);
    EXPECT_TRUE(w.event.sends.empty());
}

TEST_F(ReceiveTest, FlagsDecideWhoGetsTheMessage) {
    const uint16_t kNeed = IPC_FLAG_NEED_ACK, kRequest = IPC_FLAG_REQUEST, kNone = 1;
    const struct {
        uint16_t flags;
        const char *callback;
        int reply;
    } cases[] = {{0, "message", kNone},
                 {kNeed, "message", 0},
                 {kRequest, "request", kNone},
                 {kRequest | kNeed, "request", 0},
                 {IPC_FLAG_PROBE | kNeed, "", 0},
                 {IPC_FLAG_PROBE | kRequest, "", kNone},
                 {IPC_FLAG_FILE, "", kNone},
                 {IPC_FLAG_FILE | kNeed, "", IPC_ERR_NOT_SUPPORTED},
                 {IPC_FLAG_RESPONSE | kNeed | kRequest, "", kNone},
                 {IPC_FLAG_ACK | kNeed, "", kNone}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.flags);
        calls_.clear();
        w.event.sends.clear();
        receive(ipc_, message("hello", c.flags));
        const size_t replies = c.reply != kNone; // sent before the callback ran
        EXPECT_EQ(calls_, *c.callback ? only(got("hello", c.callback, replies)) : std::vector<Call>{});
        ASSERT_EQ(w.event.sends.size(), replies);
        if (!replies) continue;
        const Datagram reply = sent(0);
        EXPECT_EQ(reply.payload, std::string(reinterpret_cast<const char *>(&c.reply), 4));
        EXPECT_EQ(reply.path, "/var/zon_ipc2/beta");
        EXPECT_TRUE(reply.header.flags == IPC_FLAG_ACK && reply.header.reqid == 99 && reply.header.cmd == 0);
        w.event.complete_all();
    }
    calls_.clear();
    ipc_->on_request = nullptr;
    receive(ipc_, message("hello", kRequest));
    EXPECT_EQ(calls_, only(got("hello")));
    ipc_->msg_recv = nullptr;
    receive(ipc_, message("hello"));
    EXPECT_EQ(calls_.size(), 1u);
}

TEST_F(ReceiveTest, FragmentsInAnyOrderBecomeOneMessage) {
    std::array<uint16_t, 3> order = {0, 1, 2};
    do {
        calls_.clear();
        for (const uint16_t seq : order) {
            EXPECT_TRUE(calls_.empty());
            receive(ipc_, fragment(seq, 130'000));
        }
        EXPECT_EQ(calls_, only(got(pattern(130'000))));
        EXPECT_EQ(sets(), 0u);
    } while (std::next_permutation(order.begin(), order.end()));
    for (const uint16_t seq : {0, 0, 2})
        receive(ipc_, fragment(seq, 130'000)); // bytes are counted, not pieces
    const std::string hole(64'000, '\0');
    EXPECT_EQ(calls_.back(), got(pattern(130'000).replace(64'000, 64'000, hole)));
    for (const uint32_t total : {0, 5}) { // complete at once
        receive(ipc_, fragment(0, total));
        EXPECT_EQ(calls_.back(), got(pattern(total)));
        EXPECT_EQ(traced("frag:0:5:0, cmd: 7, size: " + std::to_string(total) + "(0), recv from dunix"), 1);
    }
}

TEST_F(ReceiveTest, GroupsAreToldApartByHostsAndId) {
    receive(ipc_, fragment(0, 64'001));
    void (*const changes[])(tav_ipc_hdr_st &) = {[](auto &h) { h.src.hostid = 56; },
                                                 [](auto &h) { h.dest.hostid = 1; },
                                                 [](auto &h) { h.frag_id = 6; }};
    for (const auto change : changes) {
        Datagram other = fragment(1, 64'001);
        change(other.header);
        receive(ipc_, other);
    }
    EXPECT_EQ(sets(), 4u);
    Datagram same = fragment(1, 64'001);
    same.header.src = address("gamma", 9, 1, 55); // neither name nor location counts
    receive(ipc_, same);
    EXPECT_EQ(calls_, only(got(pattern(64'001))));
}

TEST_F(ReceiveTest, MisplacedFragmentsAreDroppedAndTheSetStays) {
    receive(ipc_, fragment(0, 130'000));
    Datagram short_last = fragment(2, 130'000);
    short_last.payload.pop_back();
    Datagram short_first = fragment(0, 130'000);
    short_first.payload.pop_back();
    const struct {
        Datagram datagram;
        const char *trace;
    } cases[] = {{fragment(1, 129'999), "Not expect frag seqno(1), dropped"},
                 {fragment(1023, 130'000), "Not expect frag seqno(1023), dropped"},
                 {fragment(3, 130'000), "Not expect frag seqno(3), dropped"},
                 {short_last, "Not expect frag size(1999 != 2000[expected]), dropped"},
                 {short_first, "Not expect frag size(63999 != 64000[expected]), dropped"}};
    for (const auto &c : cases) {
        w.log.lines.clear();
        receive(ipc_, c.datagram);
        EXPECT_EQ(traced(c.trace), 1) << c.trace;
        EXPECT_EQ(w.log.lines.size(), 1u);
    }
    EXPECT_TRUE(calls_.empty());
    receive(ipc_, fragment(1, 130'000));
    receive(ipc_, fragment(2, 130'000));
    EXPECT_EQ(calls_, only(got(pattern(130'000))));
}

TEST_F(ReceiveTest, ClaimsBeyondWhatCanBePlacedNeverComplete) {
    receive(ipc_, fragment(0, 4'294'967'236));
    EXPECT_EQ(traced("have integer overflow, frag orig(-60)"), 1);
    EXPECT_EQ(traced("frag_node_create fail"), 1);
    EXPECT_EQ(sets(), 0u);
    receive(ipc_, fragment(0, 4'294'967'235));
    Datagram last = fragment(0, 4'294'967'235);
    tavipc::set_fragment(last.header, 1023);
    receive(ipc_, last);
    EXPECT_EQ(traced("frag_node_create fail"), 1);
    EXPECT_EQ(sets(), 1u);
    Datagram over = fragment(0, 65'536'001);
    over.header.frag_id = 6;
    for (int i = 0; i < 1025; ++i) receive(ipc_, over);
    EXPECT_TRUE(calls_.empty());
    EXPECT_EQ(sets(), 2u);
}

TEST_F(ReceiveTest, IdleSetsExpireAfterTenSeconds) {
    const auto idle_for = [&](time_t seconds) {
        w.clock.wall_s += seconds;
        w.event.advance(60'000);
    };
    receive(ipc_, fragment(0, 130'000));
    idle_for(10);
    receive(ipc_, fragment(1, 130'000)); // an accepted fragment keeps it
    idle_for(10);
    receive(ipc_, fragment(3, 130'000)); // a refused one does not
    EXPECT_EQ(sets(), 1u);
    idle_for(1);
    EXPECT_EQ(sets(), 0u);
    EXPECT_EQ(w.log.count("[Invalid message header] Fragment(5) not complete, dropped", 4), 1);
    w.event.fail_timers = 1;
    w.event.advance(1000); // the sweep could not go on: the next fragment starts it again
    receive(ipc_, fragment(0, 130'000));
    idle_for(11);
    EXPECT_EQ(sets(), 0u);
}

TEST_F(ReceiveTest, SweepTakesAMinuteForAllAndLittleOfItATime) {
    for (uint16_t id = 0; id < 600; ++id) {
        Datagram misplaced = fragment(0, 2);
        misplaced.payload.pop_back();
        misplaced.header.frag_id = id;
        receive(ipc_, misplaced);
    }
    EXPECT_EQ(sets(), 600u);
    w.clock.wall_s += 11;
    w.event.advance(1000);
    EXPECT_GT(sets(), 550u);
    w.event.advance(59'000);
    EXPECT_EQ(sets(), 0u);
}

TEST_F(ReceiveTest, CompressedMessagesAreRestored) {
    const std::string plain = app_message(100'000, 9), packed = compressed(plain);
    receive(ipc_, message(packed, IPC_FLAG_COMPRESSED | IPC_FLAG_APP_MSG));
    EXPECT_EQ(calls_, only(got(plain)));
    EXPECT_EQ(w.log.count("uncompress msg success, curr_size=" + std::to_string(packed.size()) +
                              ", uncompress_size=100000",
                          4),
              1);
    const auto with = [&](size_t at, std::string_view bytes) {
        return std::string(packed).replace(at, bytes.size(), bytes);
    };
    using namespace std::string_view_literals;
    const struct {
        std::string payload;
        int result;
    } cases[] = {{packed.substr(0, 19), 9002},
                 {packed.substr(0, 20), 9002},
                 {with(16, "\xFF\xFF\xFF\xFF"), 9002}, // body behind the message's end
                 {packed.substr(0, packed.size() - 1), 9002},
                 {with(20, "\x10\0\0\1"sv), 9002}, // claims more than is believed
                 {with(20, "\0\0\0\1"sv), -5},     // claims less than it holds
                 {with(6, "\0\0"sv), 9002},        // plain
                 {with(16, "\0\0\0\3"sv), 9001},   // no envelope
                 {with(24, "zzzz"), -3}};
    for (const auto &c : cases) {
        calls_.clear();
        w.log.lines.clear();
        w.clock.ticks_ms += 5001;
        receive(ipc_, message(c.payload, IPC_FLAG_COMPRESSED | IPC_FLAG_NEED_ACK));
        receive(ipc_, message(c.payload, IPC_FLAG_COMPRESSED));
        EXPECT_EQ(w.log.count("uncompress msg failed, ret = " + std::to_string(c.result), 2), 1);
        EXPECT_TRUE(calls_.empty() && w.event.sends.empty());
    }
}

TEST_F(ReceiveTest, CallbackMayDestroyItsEndpointAndReadOn) {
    const Datagram packed = message(compressed(app_message(300)), IPC_FLAG_NEED_ACK | IPC_FLAG_COMPRESSED);
    const struct {
        std::vector<Datagram> datagrams;
        Call call;
    } cases[] = {{{message("hello")}, got("hello")},
                 {{message("hello", IPC_FLAG_REQUEST | IPC_FLAG_NEED_ACK)}, got("hello", "request", 1)},
                 {{fragment(0, 64'001), fragment(1, 64'001)}, got(pattern(64'001))},
                 {{packed}, got(app_message(300), "message", 1)}};
    for (const auto &c : cases) {
        calls_.clear();
        w.event.sends.clear();
        then_ = [&](tav_ipc_st *ipc) {
            const tav_addr_st beta = address("beta");
            tav_ipc_send(ipc, &beta, 0, "x", 1);
            close(ipc);
            EXPECT_EQ(tav_ipc_send(ipc, &beta, 0, "x", 1), IPC_ERR_SENDTO);
            tav_ipc_destroy(ipc);
        };
        for (const Datagram &each : c.datagrams) receive(ipc_, each);
        EXPECT_EQ(calls_, only(c.call));
        EXPECT_TRUE(open_.empty());
        EXPECT_EQ(w.event.pending(), 0u);
        listen(ipc_ = open());
    }
}

TEST_F(ReceiveTest, NestedCallbackMayDestroyTheEndpoint) {
    tav_ipc_st *other = open("other");
    listen(other);
    int depth = 0;
    then_ = [&](tav_ipc_st *ipc) {
        if (++depth == 1) {
            receive(ipc, fragment(0, 64'001));
            receive(ipc, message("inner", IPC_FLAG_REQUEST));
        } else if (depth == 2) {
            close(ipc);
            receive(other, message("elsewhere"));
        }
    };
    receive(ipc_, message("outer"));
    EXPECT_EQ(calls_, (std::vector{got("elsewhere"), got("inner", "request"), got("outer")}));
}

} // namespace
