// The send path: where a message goes, how it is built, marked, compressed and cut, and what is refused.
#include "endpoint_world.h"
#include "ipc/transmitter.h"
#include "tavipc/tav_compress.h"

namespace {

using Names = std::vector<std::string>;

class SendTest : public EndpointWorld {
  protected:
    // Every accepted send completes at once after the call, so that budgets start empty.
    int settle(int result) {
        w.event.complete_all();
        return result;
    }
    Names paths() const {
        Names names;
        for (const auto &each : w.event.sends) names.push_back(each.path.substr(each.path.rfind('/') + 1));
        return names;
    }
    std::vector<uint32_t> reqids() const {
        std::vector<uint32_t> ids;
        for (size_t i = 0; i < w.event.sends.size(); ++i) ids.push_back(sent(i).header.reqid);
        return ids;
    }
    tav_ipc_st *ipc_ = open();
    const tav_addr_st beta_ = address("beta");
};

TEST_F(SendTest, MessageIsBuiltFieldByField) {
    setenv("IPC_TEST", "1", 1);
    tav_ipc_st *ipc = adopt(tav_ipc_create_temp("t", 0));
    const tav_addr_st dest = address("beta", 2, 0x05, 0xFFFFFFFF);
    uint32_t reqid = 0;
    ASSERT_EQ(settle(send(ipc, "hello", dest, 0x8000, &reqid)), 0);
    const Datagram datagram = sent(0);
    EXPECT_EQ(datagram.path, "/var/zon_ipc2/beta");
    EXPECT_EQ(datagram.payload, "hello");
    EXPECT_EQ(reqid, 1u);
    tav_ipc_hdr_st expected{};
    expected.dest = dest;
    expected.src = *tav_ipc_get_local_addr(ipc);
    expected.reqid = 1;
    expected.flags = 0x8000 | IPC_FLAG_TRACE;
    expected.cmd = 7;
    expected.size = 5;
    EXPECT_EQ(w.log.count("ipc->my_addr.name t, ipc->my_addr.hostid 4711, ipc->my_addr.flags 128, "
                          "ipc->my_addr.loc 2, dpipe beta, size 5|src=[4711:t:2]|dest=[4294967295:beta:2]|"
                          "reqid=1|frag_seq=0|frag_id=0|size=5|frag_orig=0",
                          4),
              1);
    EXPECT_EQ(w.log.count("cmd: 7, size: 5(0), send via dunix:/var/zon_ipc2/beta", 4), 1);
    expected.magic = tav_ipc_hdr_magic(&expected);
    EXPECT_EQ(std::memcmp(&datagram.header, &expected, sizeof expected), 0);

    reqid = 77;
    w.deployment.deploy_type = "tmp/x";
    ASSERT_EQ(settle(send(ipc, "", beta_, 0, &reqid)), 0);
    EXPECT_EQ(reqid, 77u);
    EXPECT_EQ(sent(1).header.reqid, 77u);
    EXPECT_EQ(sent(1).path, "/var/tmp/x/zon_ipc2/beta");
    tavipc::process_state().last_reqid = UINT32_MAX;
    ASSERT_EQ(settle(tav_ipc_send(ipc, &beta_, 0, nullptr, 3)), 0);
    EXPECT_EQ(sent(2).header.reqid, 1u); // never 0
    EXPECT_EQ(sent(2).payload, std::string(3, '\0'));
}

TEST_F(SendTest, SizesDecideAboutFragments) {
    const struct {
        uint32_t size;
        uint16_t flags;
        size_t datagrams;
    } cases[] = {{0, 0, 1},
                 {64'000, 0, 1},
                 {64'001, 0, 2},
                 {128'000, 0, 2},
                 {33'554'432, 0, 0},   // always over the small class
                 {33'554'431, 0, 524}, // one of the 525 finds no room and waits
                 {65'471'999, IPC_FLAG_REQUEST, 1023},
                 {65'472'000, IPC_FLAG_REQUEST, 0},
                 {UINT32_MAX, IPC_FLAG_REQUEST, 0}};
    const std::string data = pattern(65'472'000);
    tavipc::process_state().trace_flag = IPC_FLAG_TRACE;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.size);
        w.event.sends.clear();
        EXPECT_EQ(tav_ipc_send_with_flags(ipc_, &beta_, 7, data.data(), c.size, c.flags, nullptr),
                  c.datagrams ? 0 : IPC_ERR_SENDTO);
        const std::string size = std::to_string(c.size);
        EXPECT_EQ(w.log.count("size: " + size + "(0), too huge, dropped: " + size, 4), c.size >= 65'472'000);
        ASSERT_EQ(w.event.sends.size(), c.datagrams);
        for (size_t i = 0; i < c.datagrams; ++i) {
            const Datagram part = sent(i);
            const tav_ipc_hdr_st &header = part.header;
            const uint32_t offset = tavipc::fragment_sequence(header) * 64'000u;
            ASSERT_EQ(header.size, std::min(64'000u, c.size - offset));
            ASSERT_EQ(data.compare(offset, header.size, part.payload), 0);
            ASSERT_EQ(header.magic, tav_ipc_hdr_magic(&header));
            ASSERT_EQ(tavipc::is_fragment(header), c.datagrams > 1);
            ASSERT_EQ(header.frag_orig, c.datagrams > 1 ? c.size : 0);
            ASSERT_EQ(header.frag_id, sent(0).header.frag_id);
            ASSERT_EQ(offset + header.size == c.size, i + 1 == c.datagrams);
        }
        w.event.complete_all();
        w.event.advance(50);
        w.event.complete_all();
    }
}

TEST_F(SendTest, LocationDecidesAboutThePipe) {
    const Names hub = {"_prx0", "_prx1", "_prx2", "_prx3", "_prx4", "_prx5", "_prx6", "_prx7"};
    const struct {
        int here;
        uint8_t there;
        Names pipes;
    } cases[] = {{2, 2, {"beta"}},     {2, 0, {"beta"}},    {4, 0, {"beta"}},    {4, 4, {"beta"}},
                 {0x102, 2, {"beta"}}, {2, 4, {"_proxy_"}}, {1, 6, {"_proxy_"}}, {4, 5, {"_prx0"}},
                 {4, 11, {"_prx0"}},   {4, 1, hub},         {4, 12, hub},        {4, 255, hub}};
    for (const auto &c : cases) {
        close(ipc_);
        w.deployment.location = c.here;
        ipc_ = open();
        w.event.sends.clear();
        EXPECT_EQ(settle(send(ipc_, "x", address("beta", c.there))), 0);
        EXPECT_EQ(paths(), c.pipes) << c.here << " to " << int{c.there};
        EXPECT_EQ(sent(0).path.find("/var/zon_ipc" + std::to_string(c.here) + "/"), 0u);
        EXPECT_EQ(tavipc::name_text(sent(0).header.dest).text, std::string("beta"));
        EXPECT_EQ(xhash_count(ipc_->queue->mods), 1u); // kept for the final destination
    }
}

TEST_F(SendTest, HubCopiesShareARequestedIdAndSucceedTogether) {
    close(ipc_);
    w.deployment.location = 4;
    ipc_ = open();
    const tav_addr_st far = address("beta", 12);
    EXPECT_EQ(settle(send(ipc_, "x", far)), 0);
    EXPECT_EQ(reqids(), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    w.event.sends.clear();
    uint32_t reqid = 0;
    EXPECT_EQ(settle(send(ipc_, "x", far, 0, &reqid)), 0);
    EXPECT_EQ(reqid, 9u);
    EXPECT_EQ(reqids(), std::vector<uint32_t>(8, 9));

    w.event.sends.clear();
    module(ipc_)->sending_bytes = tavipc::kSmallClassBytes - 66;
    EXPECT_EQ(send(ipc_, "hello", far), 0); // the first copy is taken, no other fits
    EXPECT_EQ(paths(), Names{"_prx0"});
    module(ipc_)->sending_bytes = tavipc::kSmallClassBytes;
    EXPECT_EQ(settle(send(ipc_, "hello", far)), IPC_ERR_SENDTO);
}

TEST_F(SendTest, ApplicationMessagesAreMarkedAndCompressed) {
    const uint16_t kApp = IPC_FLAG_APP_MSG, kBoth = IPC_FLAG_APP_MSG | IPC_FLAG_COMPRESSED;
    std::string incompressible = app_message(148), other_tag = app_message(148);
    for (int i = 0; i < 128; ++i) incompressible[20 + i] = static_cast<char>(i * 167 + 13);
    other_tag[3] = '1';
    const struct {
        std::string payload;
        uint8_t dest_flags;
        uint16_t flags, expected;
    } cases[] = {{app_message(20).substr(0, 19), 8, 0, 0},
                 {app_message(20), 8, 0, kApp},
                 {app_message(147), 8, 0, kApp},
                 {app_message(148, 9), 8, 0, kBoth},
                 {app_message(200'000), 0x88, 0, kBoth},
                 {app_message(148), 0xF7, 0, kApp},
                 {app_message(148), 8, IPC_FLAG_COMPRESSED, kBoth}, // by the caller
                 {app_message(148, 0, 4), 8, 0, kApp},              // has a method
                 {app_message(148, 0, 0, 1), 8, 0, kApp},           // claims another size than it has
                 {app_message(148, 0, 0, -1), 8, 0, kApp},
                 {other_tag, 8, 0, 0},
                 {incompressible, 8, 0, kApp}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const auto &c = cases[i];
        w.log.lines.clear();
        w.event.sends.clear();
        ASSERT_EQ(settle(send(ipc_, c.payload, address("beta", 2, c.dest_flags), c.flags)), 0);
        const Datagram datagram = sent(0);
        EXPECT_EQ(datagram.header.flags, c.expected);
        std::string shown = datagram.payload;
        if (c.expected == kBoth && !c.flags) {
            EXPECT_EQ(datagram.header.size, 20 + tavipc::app_body_length(shown.data()));
            EXPECT_EQ(w.log.count("compress msg success, old_size=" + std::to_string(c.payload.size()) +
                                      ", new_size=" + std::to_string(shown.size()),
                                  4),
                      1);
            void *plain = nullptr;
            ASSERT_EQ(tav_msg_uncompress(datagram.payload.data(), &plain, 0), 0);
            shown.assign(static_cast<char *>(plain), c.payload.size());
            std::free(plain);
        }
        EXPECT_EQ(shown, c.payload);
        EXPECT_EQ(w.log.count("compress msg failed"), 0);
    }
}

TEST_F(SendTest, BudgetRefusesBeforeAnythingIsSent) {
    module(ipc_)->sending_bytes = tavipc::kSmallClassBytes - 5;
    const tav_addr_st dest = address("beta", 2, 0x1F, 99);
    EXPECT_EQ(send(ipc_, "hello", dest), IPC_ERR_SENDTO);
    EXPECT_EQ(send(ipc_, "hello", dest), IPC_ERR_SENDTO);
    w.clock.ticks_ms += 5000;
    EXPECT_EQ(send(ipc_, "hello", dest), IPC_ERR_SENDTO);
    const char *line = "to many messages, IPC:[alpha@4711:0],MSG:[alpha@4711:0]->[beta@99:1f] drop it";
    EXPECT_EQ(w.log.count(line, 2), 1);
    w.clock.ticks_ms += 1; // more than 5,000 ms
    EXPECT_EQ(send(ipc_, "hello", dest), IPC_ERR_SENDTO);
    EXPECT_EQ(w.log.count(line, 2), 2);
    EXPECT_TRUE(w.event.sends.empty());
    EXPECT_EQ(settle(send(ipc_, "hell", dest)), 0); // fits here; the header's 60 bytes make it wait
    EXPECT_EQ(settle(send(ipc_, "hello", dest, IPC_FLAG_NEED_ACK)), 0);
}

TEST_F(SendTest, DefaultModuleServesWhenThePoolHasNoSocket) {
    w.event.fail_create = 6;
    EXPECT_EQ(settle(send(ipc_, "x")), 0);
    EXPECT_EQ(settle(send(ipc_, "x")), 0);
    EXPECT_EQ(w.log.count("cannot find module info, mod_name: beta", 2), 1);
    EXPECT_EQ(w.event.sends[1].socket, ipc_->queue->default_mod->sock);
    EXPECT_EQ(ipc_->queue->default_mod->sending, 0u);
}

TEST_F(SendTest, PriorityOfTheMessageHoldsForItsFragments) {
    w.event.fail_send = 2;
    ASSERT_EQ(send(ipc_, app_message(64'010, 9)), 0); // the last fragment has no byte 15
    while (ipc_queue_msg_st *msg = ipc_queue_pop(ipc_->queue)) {
        EXPECT_EQ(msg->priority, 9u);
        free_ipc_queue_msg(msg);
    }
}

TEST_F(SendTest, NamesAndArgumentsFromAnywhere) {
    const tav_addr_st full = address("ten_chars_");
    EXPECT_EQ(settle(send(ipc_, "x", full)), 0);
    EXPECT_EQ(paths(), Names{"ten_chars_"});
    for (const char *name : {"../../x", "/", "a/b"})
        EXPECT_EQ(send(ipc_, "x", address(name)), IPC_ERR_SENDTO);
    const std::string raw = sent(0).bytes();
    EXPECT_EQ(tav_ipc_send(nullptr, &beta_, 0, "x", 1), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send(ipc_, nullptr, 0, "x", 1), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send_raw(nullptr, "x", raw.data()), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send_raw(ipc_, nullptr, raw.data()), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send_raw(ipc_, "x", nullptr), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send_raw(ipc_, "a/b", raw.data()), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send_raw(ipc_, std::string(200, 'p').c_str(), raw.data()), IPC_ERR_SENDTO);
    EXPECT_EQ(w.event.sends.size(), 1u);
}

TEST_F(SendTest, RawDatagramsOfAnyAlignmentStayTheCallers) {
    for (const size_t size : {10u, 70'000u}) {
        w.event.sends.clear();
        Datagram raw{.path = {}, .payload = pattern(size)};
        raw.header.dest = address("final", 9);
        raw.header.src = address("origin", 8);
        raw.header.reqid = 5;
        raw.header.rflags = 0x1234;
        raw.header.frag_word[1] = 0xF8; // bits that are carried
        std::string buffer = "?" + raw.bytes();
        std::memset(&buffer[1 + offsetof(tav_ipc_hdr_st, magic)], 0, 4);
        const std::string before = buffer;
        ASSERT_EQ(settle(tav_ipc_send_raw(ipc_, "gamma", buffer.data() + 1)), 0);
        EXPECT_EQ(buffer, before);
        const Datagram first = sent(0), last = sent(w.event.sends.size() - 1);
        EXPECT_EQ(first.path, "/var/zon_ipc2/gamma");
        EXPECT_EQ(tavipc::name_text(first.header.src).text, std::string("origin"));
        EXPECT_EQ(first.header.rflags, 0x1234);
        EXPECT_EQ(first.header.magic, tav_ipc_hdr_magic(&first.header));
        EXPECT_EQ(last.header.frag_word[1] & 0xF8, 0xF8);
        EXPECT_EQ(first.payload + (size > 64'000 ? last.payload : ""), raw.payload);
        EXPECT_TRUE(module(ipc_, "final")->last_used);
    }
}

TEST_F(SendTest, RandomNumberIsSeededWithMonotonicMilliseconds) {
    timespec now{4'294'967, 300'999'999};
    w.clock.gettime = [&](clockid_t clock, timespec *out) {
        EXPECT_EQ(clock, CLOCK_MONOTONIC);
        *out = now;
        return 0;
    };
    w.random.draws = {123'456, 5};
    EXPECT_EQ(ipc_rand_by_time(), 123'456);
    EXPECT_EQ(w.random.seeds, std::vector<unsigned>{4}); // 2^32 + 4 ms
    w.random.draws = {5, 0x7ABCDEF0};
    ASSERT_EQ(settle(send(ipc_, pattern(64'001))), 0);
    EXPECT_EQ(sent(1).header.frag_id, 0xDEF0);
    w.clock.gettime = nullptr;
}

} // namespace
