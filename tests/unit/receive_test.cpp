// The receive path: what is believed of a datagram, how fragments and compressed payloads are restored, who
// gets the message, and callbacks that destroy the endpoint under it.
#include "endpoint_world.h"
#include "ipc/reassembly.h"
#include "ipc/receive.h"
#include "tavipc/tav_compress.h"
#include "tavipc/tav_ipc_ext.h"

constexpr uint16_t kNeed = IPC_FLAG_NEED_ACK, kRequest = IPC_FLAG_REQUEST;

struct ReceiveTest : EndpointWorld {
    using Calls = std::vector<Call>;
    ReceiveTest() { listen(ipc_); }

    static Datagram message(std::string payload, uint16_t flags = 0) {
        const tav_addr_st src = address("beta", 2, 0, 55);
        return {"", {address("alpha"), src, 99, flags, 0, 7, 0, 0, {}, 0, 0}, std::move(payload)};
    }
    // Fragment seq of a message of total bytes from a host, with the payload that belongs there.
    static Datagram fragment(int seq, uint32_t total = 130'000, uint16_t id = 5, uint32_t host = 55) {
        const std::string whole = pattern(std::min(total, 200'000u));
        const size_t offset = std::min(static_cast<size_t>(seq) * 64'000, whole.size());
        Datagram result = message(whole.substr(offset, 64'000), IPC_FLAG_TRACE);
        tavipc::set_fragment(result.header, static_cast<uint16_t>(seq));
        result.header.src.hostid = host;
        result.header.frag_orig = total;
        result.header.frag_id = id;
        return result;
    }
    static Datagram shortened(Datagram datagram) { return datagram.payload.pop_back(), datagram; }
    static Datagram filled(Datagram datagram, char with) {
        datagram.payload.assign(datagram.payload.size(), with);
        return datagram;
    }
    static Call got(std::string payload, const char *kind = "message", size_t sent_before = 0) {
        return {kind, "beta", std::move(payload), kind[0] == 'r' ? 99u : 0u, 7, sent_before};
    }
    // What the callbacks get of these; the last may destroy the endpoint.
    template <typename... Datagrams> Calls feed(const Datagrams &...datagrams) {
        calls_.clear();
        (receive(ipc_, datagrams), ...);
        return calls_;
    }
    uint32_t sets() const { return xhash_count(ipc_->frag_table); }
    int traced(const std::string &text) { return w.log.count(", " + text, 4); }
    void pass(time_t seconds, uint64_t sweep_ms = 60'000) {
        w.clock.wall_s += seconds;
        w.event.advance(sweep_ms);
    }

    tav_ipc_st *ipc_ = open();
};

TEST_F(ReceiveTest, OnlySoundDatagramsAreBelieved) {
    const auto claims = [](uint32_t size, std::string_view payload = "hello") { // with its check value
        tav_ipc_hdr_st header = message("").header;
        header.size = size;
        header.magic = tav_ipc_hdr_magic(&header);
        return bytes_of(header).append(payload);
    };
    const std::string sound = claims(5), empty = claims(0, "");
    forget();
    EXPECT_EQ(feed(sound, claims(4), empty), (Calls{got("hello"), got("hell"), got("")}));
    const std::string changed = std::string(sound).replace(40, 1, "x");
    EXPECT_EQ(feed(empty.substr(0, 59), claims(6), claims(UINT32_MAX - 59), changed), Calls{});
    receive(ipc_, sound, CL_EV_TOO_BIG);
    tavipc::ipc_on_recv(0, nullptr, 60, nullptr, 0, ipc_);
    EXPECT_EQ(calls_.size() + w.log.lines.size() + w.event.sends.size(), 0u);
}

TEST_F(ReceiveTest, FlagsDecideWhoGetsTheMessage) {
    const int kNone = 1;
    const std::tuple<uint16_t, const char *, int> cases[] = {
        {0, "message", kNone},
        {kNeed, "message", 0},
        {kRequest | kNeed, "request", 0},
        {IPC_FLAG_PROBE | kNeed, "", 0},
        {IPC_FLAG_PROBE | kRequest, "", kNone},
        {IPC_FLAG_FILE, "", kNone},
        {IPC_FLAG_FILE | kNeed, "", IPC_ERR_NOT_SUPPORTED},
        {IPC_FLAG_RESPONSE | kNeed | kRequest, "", kNone},
        {IPC_FLAG_ACK | kNeed, "", kNone}};
    for (const auto &[flags, callback, result] : cases) {
        SCOPED_TRACE(flags);
        forget();
        const size_t replies = result != kNone; // sent before the callback runs
        EXPECT_EQ(feed(message("hello", flags)), Calls(*callback != 0, got("hello", callback, replies)));
        ASSERT_EQ(w.event.sends.size(), replies);
        if (!replies) continue;
        const tav_ipc_hdr_st expected{
            address("beta", 2, 0, 55), *tav_ipc_get_local_addr(ipc_), 99, IPC_FLAG_ACK, 0, 0, 4, 0, {}, 0, 0};
        EXPECT_EQ(w.event.sends[0].bytes, (Datagram{"", expected, bytes_of(result)}.bytes()));
    }
    EXPECT_EQ(tav_ipc_unset_callbacks(ipc_, 8), -1);
    tav_ipc_unset_callbacks(ipc_, TAV_IPC_CALLBACK_REQUEST);
    EXPECT_EQ(feed(message("hello", kRequest)), Calls{got("hello")});
    tav_ipc_unset_callbacks(ipc_, TAV_IPC_CALLBACK_MESSAGE);
    EXPECT_EQ(feed(message("hello")), Calls{});
}

TEST_F(ReceiveTest, FragmentsInAnyOrderBecomeOneMessage) {
    for (const int last : {0, 1, 2}) {
        EXPECT_EQ(feed(fragment((last + 1) % 3), fragment((last + 2) % 3)), Calls{});
        EXPECT_EQ(feed(fragment(last)), Calls{got(pattern(130'000))});
    }
    const std::string hole(64'000, '\0'); // bytes are counted, not pieces
    EXPECT_EQ(feed(fragment(0), fragment(0), fragment(2)),
              Calls{got(pattern(130'000).replace(64'000, 64'000, hole))});
    EXPECT_EQ(feed(fragment(0, 0), fragment(0, 5)), (Calls{got(""), got(pattern(5))})); // complete at once
    EXPECT_EQ(traced("frag:0:5:0, cmd: 7, size: 5(0), recv from dunix"), 1);
}

TEST_F(ReceiveTest, FragmentsOfDifferentMessagesDoNotMix) {
    std::vector<Datagram> begun(5, fragment(0, 64'001));
    begun[1].header.src.hostid = 56;
    begun[2].header.dest.hostid = 1;
    begun[3].header.reqid = 100; // these two have the same key as the first
    begun[4].header.src = address("gamma", 2, 0, 55);
    for (size_t i = 0; i < begun.size(); ++i)
        EXPECT_EQ(feed(filled(begun[i], static_cast<char>('a' + i))), Calls{});
    for (const size_t i : {3, 0, 4, 1, 2}) { // the rest comes in another order
        Datagram rest = begun[i];
        rest.payload = static_cast<char>('a' + i);
        rest.header.src.loc = 9; // is not compared
        tavipc::set_fragment(rest.header, 1);
        feed(rest);
        EXPECT_EQ(calls_.at(0).payload, std::string(64'001, static_cast<char>('a' + i)));
    }
    EXPECT_EQ(sets(), 0u);
}

TEST_F(ReceiveTest, WhatFitsNowhereIsDroppedAndTheSetStays) {
    feed(fragment(0), fragment(0, 4'294'967'235, 6));
    const std::pair<Datagram, const char *> cases[] = {
        {fragment(1, 129'999), "Not expect frag seqno(1), dropped"},
        {fragment(3), "Not expect frag seqno(3), dropped"},
        {shortened(fragment(2)), "Not expect frag size(1999 != 2000[expected]), dropped"},
        {fragment(0, 4'294'967'236, 7), "have integer overflow, frag orig(-60)"},
        {fragment(0, 4'294'967'236, 7), "frag_node_create fail"}};
    for (const auto &[misplaced, trace] : cases) {
        forget();
        EXPECT_EQ(feed(misplaced), Calls{});
        EXPECT_EQ(traced(trace), 1) << trace;
    }
    EXPECT_EQ(feed(fragment(1023, 4'294'967'235, 6)), Calls{}); // the last place that there is
    for (int i = 0; i < 1025; ++i) EXPECT_EQ(feed(fragment(0, 65'536'001, 8)), Calls{});
    EXPECT_EQ(feed(fragment(1), fragment(2)), Calls{got(pattern(130'000))});
    EXPECT_EQ(sets(), 2u);
}

TEST_F(ReceiveTest, IdleSetsExpireAfterTenSeconds) {
    feed(fragment(0));
    pass(10);
    feed(fragment(1)); // an accepted fragment keeps it
    pass(10);
    feed(fragment(3)); // a refused one does not
    EXPECT_EQ(sets(), 1u);
    pass(1);
    EXPECT_EQ(sets(), 0u);
    EXPECT_EQ(w.log.count("[Invalid message header] Fragment(5) not complete, dropped", 4), 1);
    w.event.fail_timers = 1;
    pass(0, 1000); // the sweep could not go on: the next fragment starts it again
    for (uint16_t id = 0; id < 600; ++id) feed(shortened(fragment(0, 2, id)));
    pass(11, 1000);
    EXPECT_GT(sets(), 500u); // a minute for all, about ten sets at a time: the hash is random
    EXPECT_LT(sets(), 600u);
    pass(0, 59'000);
    EXPECT_EQ(sets(), 0u);
}

TEST_F(ReceiveTest, UnfinishedMessagesAreBoundedAndTheOldestIsCompleted) {
    const auto whole_from = [this](uint32_t host) {
        const auto part = [host](int seq) { return fragment(seq, 130'000, 5, host); };
        return feed(part(1), part(2), part(0)).size();
    };
    w.log.threshold = 2;
    feed(fragment(0));
    Datagram other = fragment(0);
    for (uint32_t host = 1000; host < 5500; ++host) { // each counts 128 KiB
        other.header.src.hostid = host;
        feed(other);
        ASSERT_LE(tavipc::reassembly_bytes(ipc_), 512u << 20);
    }
    EXPECT_EQ(w.log.count("too many fragments wait, some are dropped, ", 2), 1);
    EXPECT_EQ(feed(fragment(1), fragment(2)), Calls{got(pattern(130'000))});
    EXPECT_EQ(whole_from(5499), 0u) << "no set that can never be complete";
    pass(3, 0);
    // The oldest goes on, and two new ones take the space that is left.
    for (const uint32_t host : {1000, 7000, 7001}) other.header.src.hostid = host, feed(other);
    EXPECT_EQ(whole_from(6000), 1u) << "messages that do not go on make way";
    pass(11);
    EXPECT_EQ(sets(), 0u);
    EXPECT_EQ(tavipc::reassembly_bytes(ipc_), 0u);
    EXPECT_EQ(whole_from(5499), 1u);
}

TEST_F(ReceiveTest, ABufferServesAgainWithoutItsContent) {
    constexpr uint32_t kTotal = 18 * 64'000;
    const auto feed_all = [&](char with, uint16_t id, int missing) { // the one before comes in its place
        for (int i = 0; i < 18; ++i) {
            Datagram piece = fragment(i == missing ? i - 1 : i, kTotal, id);
            piece.payload.assign(64'000, with);
            feed(piece);
        }
        return calls_;
    };
    EXPECT_EQ(feed_all('a', 1, -1), Calls{got(std::string(kTotal, 'a'))});
    const size_t spare_bytes = tavipc::reassembly_bytes(ipc_);
    EXPECT_GE(spare_bytes, kTotal);
    feed(fragment(18, kTotal, 2)); // an empty one behind the end replaces none that is missing
    EXPECT_EQ(feed_all('b', 2, 9),
              Calls{got(std::string(kTotal, 'b').replace(9 * 64'000, 64'000, 64'000, '\0'))});
    EXPECT_EQ(tavipc::reassembly_bytes(ipc_), spare_bytes) << "one buffer for both";
    for (const time_t step_s : {11, -1}) { // the clock may be set back
        pass(step_s);
        EXPECT_EQ(tavipc::reassembly_bytes(ipc_), 0u);
        feed_all('d', 4, -1);
        EXPECT_EQ(tavipc::reassembly_bytes(ipc_), spare_bytes);
    }
}

TEST_F(ReceiveTest, HugePagesAreForSendersWhoseMessagesBecomeComplete) {
    constexpr uint32_t kTotal = 40 * 64'000;
    const auto first_fragment = [&](uint32_t host) { // and nothing else: what it keeps resident
        pass(11);
        feed(fragment(0, kTotal, 2, host));
        return tavipc::reassembly_bytes(ipc_);
    };
    EXPECT_LT(first_fragment(7), 1u << 20);
    for (int i = 0; i < 40; ++i) {
        Datagram piece = fragment(i, kTotal, 1, 7);
        piece.payload.assign(64'000, 'a');
        EXPECT_EQ(feed(piece).size(), i == 39 ? 1u : 0u);
    }
    EXPECT_GE(first_fragment(7), 2u << 20);
    EXPECT_LT(first_fragment(8), 1u << 20);
}

TEST_F(ReceiveTest, CompressedMessagesAreRestored) {
    const std::string plain = app_message(100'000, 9);
    void *out = nullptr;
    ASSERT_EQ(tav_msg_compress(plain.data(), &out, 0), 0);
    const std::string packed(static_cast<char *>(out), 20 + tavipc::app_body_length(out));
    std::free(out);
    EXPECT_EQ(feed(message(packed, IPC_FLAG_COMPRESSED | IPC_FLAG_APP_MSG)), Calls{got(plain)});
    const std::string sizes = std::to_string(packed.size()) + ", uncompress_size=100000";
    EXPECT_EQ(w.log.count("uncompress msg success, curr_size=" + sizes, 4), 1);
    using namespace std::string_view_literals;
    const std::tuple<size_t, size_t, std::string_view, int> cases[] = {
        // cut to, changed at, into
        {19, 0, "", 9002},
        {packed.size() - 1, 0, "", 9002},
        {~0, 16, "\xFF\xFF\xFF\xFF", 9002}, // a body that wraps
        {~0, 20, "\x10\0\0\1"sv, 9002},     // claims more than is believed
        {~0, 20, "\0\0\0\1"sv, -5},         // claims less than it holds
        {~0, 16, "\0\0\0\3"sv, 9001}};      // no envelope
    for (const auto &[size, at, change, result] : cases) {
        forget();
        w.clock.ticks_ms += 5001;
        const std::string bad = packed.substr(0, size).replace(at, change.size(), change);
        const Datagram datagram = message(bad, IPC_FLAG_COMPRESSED | kNeed);
        EXPECT_EQ(feed(datagram, datagram), Calls{});
        EXPECT_EQ(w.log.count("uncompress msg failed, ret = " + std::to_string(result), 2), 1);
        EXPECT_EQ(w.event.sends.size(), 0u);
    }
}

TEST_F(ReceiveTest, CallbackMayDestroyItsEndpointAndReadOn) {
    then_ = [&](tav_ipc_st *ipc) {
        close(ipc);
        EXPECT_EQ(send(ipc, "x"), IPC_ERR_SENDTO);
    };
    EXPECT_EQ(feed(fragment(0, 64'001), fragment(1, 64'001)), Calls{got(pattern(64'001))});
}

TEST_F(ReceiveTest, NothingIsDeliveredOnceALineHasDestroyedTheEndpoint) {
    const auto scenario = [&] {
        listen(ipc_);
        w.event.fail_send = 1; // of the acknowledgement
        feed(message("hello", kNeed | IPC_FLAG_TRACE));
        EXPECT_EQ(calls_.size(), ipc_ ? 1u : 0u);
    };
    const auto close_it = [&] { close(std::exchange(ipc_, nullptr)); };
    EXPECT_GE(at_each_line(ipc_, scenario, close_it), 4u);
    const auto other_thread = [&] {
        ipc_->use_count = 1; // is inside, so that the guard writes a line
        feed(fragment(0, 64'001));
        EXPECT_TRUE(ipc_ || w.event.timers.empty());
    };
    EXPECT_GE(at_each_line(ipc_, other_thread, close_it), 1u);
}
