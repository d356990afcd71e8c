// The send path: where a message goes, how it is built, marked, compressed and cut, and what is refused.
#include <fstream>
#include <sys/resource.h>

#include "endpoint_world.h"
#include "ipc/transmitter.h"
#include "tavipc/tav_compress.h"

namespace {

using tavipc::kSmallClassBytes;

class SendTest : public EndpointWorld {
  protected:
    // "pipe:reqid" of each datagram.
    std::string sends() const {
        std::string text;
        for (size_t i = 0; i < w.event.sends.size(); ++i) {
            const Datagram each = sent(i);
            text +=
                each.path.substr(each.path.rfind('/') + 1) + ":" + std::to_string(each.header.reqid) + " ";
        }
        return text;
    }
    void reopen(int location) {
        close(ipc_);
        w.deployment.location = location;
        ipc_ = open();
    }
    tav_ipc_st *ipc_ = open();
    const tav_addr_st beta_ = address("beta");
};

TEST_F(SendTest, MessageIsBuiltFieldByField) {
    setenv("IPC_TEST", "1", 1);
    close(ipc_);
    ipc_ = adopt(tav_ipc_create_temp("t", 0));
    const tav_addr_st dest = address("beta", 2, 0x05, 0xFFFFFFFF), src = *tav_ipc_get_local_addr(ipc_);
    uint32_t reqid = 0;
    ASSERT_EQ(send(ipc_, "hello", dest, 0x8000, &reqid), 0);
    const Datagram expected{"", {dest, src, 1, 0x8000 | IPC_FLAG_TRACE, 0, 7, 0, 0, {}, 0, 0}, "hello"};
    EXPECT_EQ(w.event.sends[0].bytes, expected.bytes());
    EXPECT_EQ(reqid, 1u);
    EXPECT_EQ(w.log.count("ipc->my_addr.name t, ipc->my_addr.hostid 4711, ipc->my_addr.flags 128, "
                          "ipc->my_addr.loc 2, dpipe beta, size 5|src=[4711:t:2]|dest=[4294967295:beta:2]|"
                          "reqid=1|frag_seq=0|frag_id=0|size=5|frag_orig=0",
                          4),
              1);
    EXPECT_EQ(w.log.count("cmd: 7, size: 5(0), send via dunix:/var/zon_ipc2/beta", 4), 1);
    reqid = 77;
    w.deployment.deploy_type = "tmp/x";
    ASSERT_EQ(send(ipc_, "", beta_, 0, &reqid), 0);
    EXPECT_EQ(reqid, 77u);
    EXPECT_EQ(sent(1).header.reqid, 77u);
    EXPECT_EQ(sent(1).path, "/var/tmp/x/zon_ipc2/beta");
    tavipc::reset_sending(UINT32_MAX);
    ASSERT_EQ(tav_ipc_send(ipc_, &beta_, 0, nullptr, 3), 0);
    EXPECT_EQ(sent(2).header.reqid, 1u); // never 0
    EXPECT_EQ(sent(2).payload, std::string(3, '\0'));
}

TEST_F(SendTest, SizesDecideAboutFragments) {
    const std::tuple<uint32_t, uint16_t, size_t> cases[] = {
        {0, 0, 1},
        {64'000, 0, 1},
        {64'001, 0, 2},
        {128'000, 0, 2},
        {33'554'432, 0, 0},   // always over the small class
        {33'554'431, 0, 524}, // one of the 525 finds no room and waits
        {65'471'999, IPC_FLAG_REQUEST, 1023},
        {65'472'000, IPC_FLAG_REQUEST, 0},
        {UINT32_MAX, IPC_FLAG_REQUEST, 0}};
    const std::string data = pattern(65'472'000);
    tavipc::trace_sent_messages();
    for (const auto &[size, flags, datagrams] : cases) {
        SCOPED_TRACE(size);
        const int result = tav_ipc_send_with_flags(ipc_, &beta_, 7, data.data(), size, flags, nullptr);
        EXPECT_EQ(result, datagrams ? 0 : IPC_ERR_SENDTO);
        ASSERT_EQ(w.event.sends.size(), datagrams);
        w.event.complete_all();
        w.event.advance(50);
        uint32_t total = 0;
        for (size_t i = 0; i < w.event.sends.size(); ++i) {
            const tav_ipc_hdr_st header = sent(i).header;
            const uint32_t offset = tavipc::fragment_sequence(header) * 64'000u;
            Datagram expected{"", sent(0).header, data.substr(offset, std::min(64'000u, size - offset))};
            if (datagrams > 1) tavipc::set_fragment(expected.header, static_cast<uint16_t>(offset / 64'000));
            ASSERT_TRUE(w.event.sends[i].bytes == expected.bytes());
            ASSERT_EQ(header.frag_orig, datagrams > 1 ? size : 0);
            total += header.size;
        }
        EXPECT_EQ(total, datagrams ? size : 0);
        w.event.complete_all();
        w.event.sends.clear();
    }
    for (const char *size : {"65472000", "4294967295"})
        EXPECT_EQ(w.log.count(std::string("(0), too huge, dropped: ") + size, 4), 1);
    tav_ipc_response(ipc_, &beta_, 9, 7, data.data(), 65'472'000); // nobody sees its result
    EXPECT_EQ(w.log.count("response is too large, drop it|reqid=9|dest=[4711:beta:2]|size=65472000", 2), 1);
}

TEST_F(SendTest, LocationDecidesAboutThePipe) {
    const std::string hub = "_prx0:1 _prx1:2 _prx2:3 _prx3:4 _prx4:5 _prx5:6 _prx6:7 _prx7:8 ";
    const std::tuple<int, uint8_t, std::string> cases[] = {
        {2, 2, "beta:1 "},     {2, 0, "beta:1 "},    {4, 0, "beta:1 "},    {4, 4, "beta:1 "},
        {0x102, 2, "beta:1 "}, {2, 4, "_proxy_:1 "}, {1, 6, "_proxy_:1 "}, {4, 5, "_prx0:1 "},
        {4, 11, "_prx0:1 "},   {4, 1, hub},          {4, 255, hub},        {4, 12, hub}};
    for (const auto &[here, there, expected] : cases) {
        reopen(here);
        forget();
        tavipc::reset_sending();
        EXPECT_EQ(send(ipc_, "x", address("beta", there)), 0);
        EXPECT_EQ(sends(), expected) << here << " to " << int{there};
        EXPECT_EQ(sent(0).path.find("/var/zon_ipc" + std::to_string(here) + "/"), 0u);
        EXPECT_EQ(tavipc::name_text(sent(0).header.dest).text, std::string("beta"));
        EXPECT_EQ(xhash_count(ipc_->queue->mods), 1u); // kept for the final destination
    }
    forget();
    uint32_t reqid = 0; // hub copies share an id that is asked for
    EXPECT_EQ(send(ipc_, "x", address("beta", 12), 0, &reqid), 0);
    EXPECT_EQ(sends(), "_prx0:9 _prx1:9 _prx2:9 _prx3:9 _prx4:9 _prx5:9 _prx6:9 _prx7:9 ");
    forget();
    module(ipc_)->sending_bytes = kSmallClassBytes - 66;
    EXPECT_EQ(send(ipc_, "hello", address("beta", 12)), 0); // the first copy is taken, no other fits
    EXPECT_EQ(sends(), "_prx0:10 ");
    module(ipc_)->sending_bytes = kSmallClassBytes;
    EXPECT_EQ(send(ipc_, "hello", address("beta", 12)), IPC_ERR_SENDTO);
}

TEST_F(SendTest, ApplicationMessagesAreMarkedAndCompressed) {
    const uint16_t kApp = IPC_FLAG_APP_MSG, kBoth = IPC_FLAG_APP_MSG | IPC_FLAG_COMPRESSED;
    std::string incompressible = app_message(148), other_tag = app_message(148);
    for (int i = 0; i < 128; ++i) incompressible[20 + i] = static_cast<char>(i * 167 + 13);
    other_tag[3] = '1';
    const std::tuple<std::string, uint8_t, uint16_t, uint16_t> cases[] = {
        {app_message(20).substr(0, 19), 8, 0, 0},
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
    for (const auto &[payload, dest_flags, flags, expected] : cases) {
        forget();
        ASSERT_EQ(send(ipc_, payload, address("beta", 2, dest_flags), flags), 0);
        EXPECT_EQ(w.log.count("compress msg failed"), 0);
        std::string shown = sent(0).payload;
        EXPECT_EQ(sent(0).header.flags, expected) << &payload - &std::get<0>(cases[0]);
        if (expected == kBoth && !flags) {
            EXPECT_EQ(shown.size(), 20 + tavipc::app_body_length(shown.data()));
            const std::string sizes =
                std::to_string(payload.size()) + ", new_size=" + std::to_string(shown.size());
            EXPECT_EQ(w.log.count("compress msg success, old_size=" + sizes, 4), 1);
            void *plain = nullptr;
            ASSERT_EQ(tav_msg_uncompress(sent(0).payload.data(), &plain, 0), 0);
            shown.assign(static_cast<char *>(plain), payload.size());
            std::free(plain);
        }
        EXPECT_EQ(shown, payload);
    }
    forget();
    w.event.fail_send = 2;
    ASSERT_EQ(send(ipc_, app_message(64'010, 9)), 0); // the last fragment has no byte 15
    while (ipc_queue_msg_st *msg = ipc_queue_pop(ipc_->queue)) {
        EXPECT_EQ(msg->priority, 9u);
        free_ipc_queue_msg(msg);
    }
}

TEST_F(SendTest, BudgetRefusesBeforeAnythingIsSent) {
    module(ipc_)->sending_bytes = kSmallClassBytes - 5;
    const tav_addr_st dest = address("beta", 2, 0x1F, 99);
    for (const auto &[after_ms, lines] : {std::pair{0, 1}, {0, 1}, {5000, 1}, {1, 2}}) { // limited
        w.clock.ticks_ms += static_cast<uint64_t>(after_ms);
        EXPECT_EQ(send(ipc_, "hello", dest), IPC_ERR_SENDTO);
        const char *line = "to many messages, IPC:[alpha@4711:0],MSG:[alpha@4711:0]->[beta@99:1f] drop it";
        EXPECT_EQ(w.log.count(line, 2), lines);
    }
    EXPECT_TRUE(w.event.sends.empty());
    EXPECT_EQ(send(ipc_, "hell", dest), 0); // fits here; the header's 60 bytes make it wait
    EXPECT_EQ(send(ipc_, "hello", dest, IPC_FLAG_NEED_ACK), 0);
    w.event.fail_create = 6; // the pool has no socket: the default module serves
    EXPECT_EQ(send(ipc_, "x", address("gamma")) + send(ipc_, "x", address("gamma")), 0);
    EXPECT_EQ(w.log.count("cannot find module info, mod_name: gamma", 2), 1);
    w.event.complete_all();
    EXPECT_EQ(w.event.sends.back().socket, ipc_->queue->default_mod->sock);
    EXPECT_EQ(ipc_->queue->default_mod->sending, 0u);
}

// The sink of log lines may be a module's: it sends, too, and completes finished sends by that.
TEST_F(SendTest, EachLineMaySend) {
    w.event.settles = true;
    tavipc::trace_sent_messages();
    const std::tuple<tav_addr_st, const char *, int> cases[] = {// nested to, arrives at, hand-overs refused
                                                                {beta_, "beta beta", 0},
                                                                {beta_, "beta beta", 1},
                                                                {address("beta", 9), "_proxy_ beta", 0},
                                                                {address("other"), "other other", 1}};
    for (const auto &[to, arrives, refused] : cases) {
        const auto scenario = [&] {
            w.event.fail_send = refused;
            EXPECT_EQ(send(ipc_, pattern(200'000)), 0);
            w.event.fail_send = 0;
            w.event.advance(50);
            w.event.complete_all();
            std::map<std::string, int> arrived;
            const bool at_a_line = w.event.sends.size() > 4;
            for (size_t i = 0; i < w.event.sends.size(); ++i) {
                const Datagram each = sent(i);
                ++arrived[each.path.substr(each.path.rfind('/') + 1) + " " +
                          tavipc::name_text(each.header.dest).text + (each.header.frag_orig ? " piece" : "")];
            }
            EXPECT_EQ(arrived["beta beta piece"], 4);
            EXPECT_EQ(arrived[arrives], at_a_line);
            EXPECT_EQ(module(ipc_)->sending, 0u);
        };
        EXPECT_GE(at_each_line(ipc_, scenario, [&, &dest = to] { EXPECT_EQ(send(ipc_, "x", dest), 0); }), 3u);
    }
}

TEST_F(SendTest, EachLineMayDestroyTheEndpoint) {
    w.event.settles = true;
    tavipc::trace_sent_messages();
    const std::string message = app_message(200'000);
    const auto scenario = [&] {
        w.event.fail_create = 1;
        w.event.fail_send = 2;
        for (const char *name : {"beta", "gamma"}) {
            (void)send(ipc_, message, address(name, 2, ADDR_FLAG_COMPRESS_OK));
            (void)send(ipc_, pattern(130'000), address(name));
            w.event.complete_all(CL_EV_IO);
        }
        w.event.fail_create = w.event.fail_send = 0;
    };
    EXPECT_GE(at_each_line(ipc_, scenario, [&] { close(std::exchange(ipc_, nullptr)); }), 15u);
}

#ifndef __SANITIZE_ADDRESS__ // its allocator ends the process instead
TEST_F(SendTest, ShortMemoryRefusesALargeMessageWhole) {
    const std::string message = pattern(60'000'000);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    long pages = 0;
    ASSERT_TRUE(std::ifstream("/proc/self/statm") >> pages);
    const rlimit tight{static_cast<rlim_t>(pages) * 4096 + 40'000'000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    const int result = send(ipc_, message, beta_, IPC_FLAG_REQUEST);
    setrlimit(RLIMIT_AS, &before);
    EXPECT_EQ(result, IPC_ERR_SENDTO);
    EXPECT_EQ(w.event.sends.size(), 0u);
    EXPECT_EQ(w.log.count("", 2) + w.log.count("", 0), 0);
}
#endif

TEST_F(SendTest, NamesAndArgumentsFromAnywhere) {
    EXPECT_EQ(send(ipc_, "x", address("ten_chars_")), 0);
    EXPECT_EQ(sends(), "ten_chars_:1 ");
    const std::string raw = sent(0).bytes();
    for (const char *name : {"../../x", "/", "a/b", ".", "..", ""})
        EXPECT_EQ(send(ipc_, "x", address(name)), IPC_ERR_SENDTO);
    EXPECT_EQ(send(nullptr, "x"), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send(ipc_, nullptr, 0, "x", 1), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send_raw(nullptr, "x", raw.data()), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_send_raw(ipc_, "x", nullptr), IPC_ERR_SENDTO);
    const std::string longer(94, 'p'), longest(5000, 'p'); // than an address and than a path can be
    for (const char *name :
         {"", "a/b", "..", longer.c_str(), longest.c_str(), static_cast<const char *>(nullptr)})
        EXPECT_EQ(tav_ipc_send_raw(ipc_, name, raw.data()), IPC_ERR_SENDTO);
    EXPECT_EQ(w.event.sends.size(), 1u);
}

TEST_F(SendTest, RawDatagramsOfAnyAlignmentStayTheCallers) {
    for (const size_t size : {10u, 70'000u}) {
        forget();
        Datagram raw{
            "", {address("final", 9), address("origin", 8), 5, 0, 0x1234, 0, 0, 0, {}, 0, 0}, pattern(size)};
        raw.header.frag_word[1] = 0xF8; // bits that are carried
        std::string buffer = "?" + raw.bytes();
        std::memset(&buffer[1 + offsetof(tav_ipc_hdr_st, magic)], 0, 4);
        const std::string before = buffer;
        ASSERT_EQ(tav_ipc_send_raw(ipc_, "gamma", buffer.data() + 1), 0);
        EXPECT_EQ(buffer, before);
        const Datagram first = sent(0), last = sent(w.event.sends.size() - 1);
        EXPECT_EQ(first.path, "/var/zon_ipc2/gamma");
        EXPECT_EQ(first.payload + (size > 64'000 ? last.payload : ""), raw.payload);
        EXPECT_EQ(bytes_of(first.header.src), bytes_of(raw.header.src));
        EXPECT_EQ(first.header.rflags, 0x1234);
        EXPECT_EQ(first.header.magic, tav_ipc_hdr_magic(&first.header));
        EXPECT_EQ(last.header.frag_word[1] & 0xF8, 0xF8);
    }
    EXPECT_EQ(xhash_count(ipc_->queue->mods), 1u) << "the final destination";
}

TEST_F(SendTest, RandomNumberIsSeededWithMonotonicMilliseconds) {
    w.clock.gettime = [](clockid_t clock, timespec *out) {
        EXPECT_EQ(clock, CLOCK_MONOTONIC);
        return *out = {4'294'967, 300'999'999}, 0;
    };
    w.random.draws = {123'456, 5, 0x7ABCDEF0};
    EXPECT_EQ(ipc_rand_by_time(), 123'456);
    EXPECT_EQ(w.random.seeds, std::vector<unsigned>{4}); // 2^32 + 4 ms
    ASSERT_EQ(send(ipc_, pattern(64'001)), 0);
    EXPECT_EQ(sent(1).header.frag_id, 0xDEF0);
    w.clock.gettime = nullptr;
}

} // namespace
