// The send path: where a message goes, how it is built, marked, compressed and cut, and what is refused.

#include "endpoint_world.h"
#include "ipc/transmitter.h"

using tavipc::kSmallClassBytes;

struct SendTest : EndpointWorld {
    std::string pipe(size_t index) const { return sent(index).path.substr(sent(index).path.rfind('/') + 1); }
    // "pipe:reqid" of each datagram.
    std::string sends() const {
        std::string text;
        for (size_t i = 0; i < w.event.sends.size(); ++i)
            text += pipe(i) + ":" + std::to_string(sent(i).header.reqid) + " ";
        return text;
    }
    // Expects the datagrams of one message with this payload.
    void expect_sent(const std::string &payload, size_t datagrams) {
        ASSERT_EQ(w.event.sends.size(), datagrams);
        for (size_t i = 0; i < datagrams; ++i) {
            Datagram expected{"", sent(0).header, payload.substr(i * 64'000, 64'000)};
            if (datagrams > 1) tavipc::set_fragment(expected.header, static_cast<uint16_t>(i));
            ASSERT_TRUE(w.event.sends[i].bytes == expected.bytes()) << "datagram " << i;
        }
        EXPECT_EQ(sent(0).header.frag_orig, datagrams > 1 ? payload.size() : 0);
    }
    tav_ipc_st *ipc_ = open();
    const tav_addr_st beta_ = address("beta");
};

TEST_F(SendTest, MessageIsBuiltFieldByField) {
    setenv("IPC_TEST", "1x", 1);
    ipc_ = adopt(tav_ipc_create_temp("t", 0));
    const tav_addr_st dest = address("beta", 2, 0x05, 0xFFFFFFFF), src = *tav_ipc_get_local_addr(ipc_);
    uint32_t reqid = 0;
    ASSERT_EQ(send(ipc_, "hello", dest, 0x8000, &reqid), 0);
    const Datagram expected{"", {dest, src, 1, 0x8000 | IPC_FLAG_TRACE, 0, 7, 0, 0, {}, 0, 0}, "hello"};
    EXPECT_EQ(w.event.sends[0].bytes, expected.bytes());
    const char *line =
        "ipc->my_addr.name t, ipc->my_addr.hostid 4711, ipc->my_addr.flags 128, ipc->my_addr.loc 2, "
        "dpipe beta, size 5|src=[4711:t:2]|dest=[4294967295:beta:2]|reqid=1|frag_seq=0|frag_id=0|"
        "size=5|frag_orig=0";
    EXPECT_EQ(w.log.count(line, 4), 1);
    EXPECT_EQ(w.log.count("cmd: 7, size: 5(0), send via dunix:/var/zon_ipc2/beta", 4), 1);
    w.deployment.deploy_type = "tmp/x";
    ASSERT_EQ(send(ipc_, "", beta_, 0, &(reqid = 77)), 0);
    EXPECT_EQ(sent(1).path, "/var/tmp/x/zon_ipc2/beta");
    tavipc::reset_sending(UINT32_MAX); // the next id would be 0
    ASSERT_EQ(tav_ipc_send(ipc_, &beta_, 0, nullptr, 3), 0);
    EXPECT_EQ(sends(), "beta:1 beta:77 beta:1 ");
    EXPECT_EQ(sent(2).payload, std::string(3, '\0'));
}

TEST_F(SendTest, SizesDecideAboutFragments) {
    const std::string data = pattern(65'472'000);
    for (const auto &[size, datagrams] :
         {std::pair{0, 1}, {64'000, 1}, {64'001, 2}, {128'000, 2}, {65'471'999, 1023}}) {
        const std::string payload = data.substr(0, static_cast<size_t>(size));
        EXPECT_EQ(send(ipc_, payload, beta_, IPC_FLAG_REQUEST), 0);
        w.event.complete_all();
        w.event.advance(50); // what did not fit into the class
        expect_sent(payload, static_cast<size_t>(datagrams));
        forget();
    }
    EXPECT_EQ(send(ipc_, data.substr(0, kSmallClassBytes)), IPC_ERR_SENDTO) << "more than the class";
    tavipc::trace_sent_messages();
    EXPECT_EQ(send(ipc_, data, beta_, IPC_FLAG_REQUEST), IPC_ERR_SENDTO);
    EXPECT_EQ(w.log.count("(0), too huge, dropped: 65472000", 4), 1);
    tav_ipc_response(ipc_, &beta_, 9, 7, data.data(), 65'472'000); // nobody sees its result
    EXPECT_EQ(w.log.count("response is too large, drop it|reqid=9|dest=[4711:beta:2]|size=65472000", 2), 1);
    EXPECT_EQ(w.event.sends.size(), 0u);
}

TEST_F(SendTest, LocationDecidesAboutThePipe) {
    const std::string hub = "_prx0:1 _prx1:2 _prx2:3 _prx3:4 _prx4:5 _prx5:6 _prx6:7 _prx7:8 ";
    const std::tuple<int, uint8_t, std::string> cases[] = {
        {2, 0, "beta:1 "},    {4, 4, "beta:1 "},    {0x102, 2, "beta:1 "},
        {2, 4, "_proxy_:1 "}, {1, 6, "_proxy_:1 "}, {4, 5, "_prx0:1 "},
        {4, 11, "_prx0:1 "},  {4, 1, hub},          {4, 12, hub}};
    for (const auto &[here, there, expected] : cases) {
        close(ipc_);
        w.deployment.location = here;
        ipc_ = open();
        forget();
        tavipc::reset_sending();
        EXPECT_EQ(send(ipc_, "x", address("beta", there)), 0);
        EXPECT_EQ(sends(), expected) << here << " to " << int{there};
        EXPECT_EQ(sent(0).path.find("/var/zon_ipc" + std::to_string(here) + "/"), 0u);
        EXPECT_EQ(tavipc::name_text(sent(0).header.dest).text, std::string("beta"));
        EXPECT_EQ(xhash_count(ipc_->queue->mods), 1u) << "counted for the final destination";
    }
    forget();
    uint32_t reqid = 0; // hub copies share an id that is asked for
    EXPECT_EQ(send(ipc_, "x", address("beta", 12), 0, &reqid), 0);
    EXPECT_EQ(sends(), "_prx0:9 _prx1:9 _prx2:9 _prx3:9 _prx4:9 _prx5:9 _prx6:9 _prx7:9 ");
    forget();
    module(ipc_)->sending_bytes = kSmallClassBytes - 66; // the first copy fits, no other
    EXPECT_EQ(send(ipc_, "hello", address("beta", 12)), 0);
    EXPECT_EQ(send(ipc_, "hello", address("beta", 12)), IPC_ERR_SENDTO);
}

TEST_F(SendTest, ApplicationMessagesAreMarkedAndCompressed) {
    const uint16_t kApp = IPC_FLAG_APP_MSG, kPacked = IPC_FLAG_COMPRESSED, kBoth = kApp | kPacked;
    std::string incompressible = app_message(148);
    for (int i = 0; i < 128; ++i) incompressible[20 + i] = static_cast<char>(i * 167 + 13);
    // Payload, flags of the destination, flags given and sent. One has a method, one a wrong length.
    const std::tuple<std::string, uint8_t, uint16_t, uint16_t> kept[] = {
        {app_message(20).substr(0, 19), 8, 0, 0}, {app_message(20), 8, 0, kApp},
        {app_message(147), 8, 0, kApp},           {app_message(148), 0xF7, 0, kApp},
        {app_message(148), 8, kPacked, kBoth},    {app_message(148, 0, 4), 8, 0, kApp},
        {app_message(148, 0, 0, -1), 8, 0, kApp}, {incompressible, 8, 0, kApp}};
    for (const auto &[payload, dest_flags, flags, expected] : kept) {
        SCOPED_TRACE(&payload - &std::get<0>(kept[0]));
        forget();
        ASSERT_EQ(send(ipc_, payload, address("beta", 2, dest_flags), flags), 0);
        EXPECT_EQ(sent(0).header.flags, expected);
        EXPECT_EQ(sent(0).payload, payload);
    }
    for (const std::string &payload : {app_message(148, 9), app_message(200'000)}) {
        forget();
        ASSERT_EQ(send(ipc_, payload, address("beta", 2, 0x88)), 0);
        EXPECT_EQ(sent(0).header.flags, kBoth);
        EXPECT_LT(sent(0).header.size, payload.size());
        const std::string new_size = ", new_size=" + std::to_string(sent(0).header.size);
        EXPECT_EQ(w.log.count(std::to_string(payload.size()) + new_size, 4), 1);
    }
}

TEST_F(SendTest, FullDestinationRefusesBeforeAnythingIsSent) {
    module(ipc_)->sending_bytes = kSmallClassBytes - 5;
    const tav_addr_st dest = address("beta", 2, 0x1F, 99);
    const char *line = "to many messages, IPC:[alpha@4711:0],MSG:[alpha@4711:0]->[beta@99:1f] drop it";
    for (const auto &[after_ms, lines] : {std::pair{0u, 1}, {5000u, 1}, {1u, 2}}) { // limited
        w.clock.ticks_ms += after_ms;
        EXPECT_EQ(send(ipc_, "hello", dest), IPC_ERR_SENDTO);
        EXPECT_EQ(w.log.count(line, 2), lines);
    }
    EXPECT_EQ(send(ipc_, "hell", dest), 0) << "fits here; the header's 60 bytes make it wait";
    EXPECT_EQ(send(ipc_, "hello", dest, IPC_FLAG_NEED_ACK), 0);
    w.event.fail_create = 6; // no sending socket can be had: the endpoint's own serves
    EXPECT_EQ(send(ipc_, "x", address("gamma")) + send(ipc_, "x", address("gamma")), 0);
    EXPECT_EQ(w.log.count("cannot find module info, mod_name: gamma", 2), 1);
    w.event.complete_all();
    EXPECT_EQ(w.event.sends.back().socket, ipc_->queue->default_mod->sock);
}

// The sink of log lines may be a module's: it sends too, which settles finished sends.
TEST_F(SendTest, EachLineMaySend) {
    w.event.settles = true;
    tavipc::trace_sent_messages();
    // Where the nested message goes, and its pipe.
    for (const auto &[to, nested_pipe] :
         {std::pair(beta_, "beta"), {address("beta", 9), "_proxy_"}, {address("other"), "other"}}) {
        const auto scenario = [&, expected_pipe = std::string(nested_pipe)] {
            w.event.fail_send = 1;
            EXPECT_EQ(send(ipc_, pattern(200'000)), 0);
            w.event.advance(50);
            w.event.complete_all();
            int fragments = 0;
            for (size_t i = 0; i < w.event.sends.size(); ++i) {
                fragments += sent(i).header.frag_orig > 0;
                EXPECT_EQ(pipe(i), sent(i).header.frag_orig ? "beta" : expected_pipe);
            }
            EXPECT_EQ(fragments, 4);
            EXPECT_EQ(module(ipc_)->sending, 0u);
        };
        const auto nested_send = [&, &dest = to] { EXPECT_EQ(send(ipc_, "x", dest), 0); };
        EXPECT_GE(at_each_line(ipc_, scenario, nested_send), 3u);
    }
}

TEST_F(SendTest, EachLineMayDestroyTheEndpoint) {
    w.event.settles = true;
    const std::string message = app_message(200'000);
    const auto scenario = [&] {
        w.event.fail_create = 1;
        w.event.fail_send = 2;
        (void)send(ipc_, message, address("gamma", 2, ADDR_FLAG_COMPRESS_OK));
        (void)send(ipc_, pattern(130'000));
        for (int tries = 0; tries < 12; ++tries) {
            w.event.advance(50);
            w.event.complete_all(tries % 2 ? CL_EV_WOULD_BLOCK : CL_EV_IO);
        }
        w.event.fail_create = w.event.fail_send = 0;
    };
    EXPECT_GE(at_each_line(ipc_, scenario, [&] { close(std::exchange(ipc_, nullptr)); }), 15u);
}

TEST_F(SendTest, NamesThatAreNoFileNamesAreRefused) {
    EXPECT_EQ(send(ipc_, "x", address("ten_chars_")), 0);
    EXPECT_EQ(sends(), "ten_chars_:1 ");
    for (const char *name : {"../../x", "/", "a/b", ".", "..", ""})
        EXPECT_EQ(send(ipc_, "x", address(name)), IPC_ERR_SENDTO) << name;
    const std::string raw = sent(0).bytes();
    for (const std::string &pipe : {std::string("a/b"), std::string(94, 'p'), std::string(5000, 'p')})
        EXPECT_EQ(tav_ipc_send_raw(ipc_, pipe.c_str(), raw.data()), IPC_ERR_SENDTO) << pipe;
    EXPECT_EQ(w.event.sends.size(), 1u);
    EXPECT_EQ(xhash_count(ipc_->queue->mods), 1u);
}

TEST_F(SendTest, RawDatagramsOfAnyAlignmentStayTheCallers) {
    w.random.draws = {5, 0x7ABCDEF0}; // the sending socket's number, the fragments' id
    w.clock.gettime = [](clockid_t clock, timespec *out) {
        return *out = {clock == CLOCK_MONOTONIC ? 4'294'967 : 0, 300'999'999}, 0; // 2^32 + 4 ms
    };
    for (const size_t size : {10u, 70'000u}) {
        forget();
        const std::string data = pattern(size);
        const Datagram raw{
            "", {address("final", 9), address("origin", 8), 5, 0, 3, 0, 0, 0, {0, 0xF8}, 0, 0}, data};
        const std::string buffer = "?" + raw.bytes(), before = buffer;
        ASSERT_EQ(tav_ipc_send_raw(ipc_, "gamma", buffer.data() + 1), 0);
        EXPECT_EQ(buffer, before);
        EXPECT_EQ(pipe(0), "gamma");
        EXPECT_EQ(w.event.sends[0].bytes.substr(0, 44), raw.bytes().substr(0, 44)) << "dest to cmd";
        EXPECT_EQ(sent(0).header.frag_word[1] & 0xF8, 0xF8) << "bits that are carried";
        EXPECT_EQ(sent(0).header.frag_id, size > 64'000 ? 0xDEF0 : 0);
        expect_sent(data, size > 64'000 ? 2 : 1);
    }
    EXPECT_EQ(w.random.seeds, std::vector<unsigned>{4});
}

#if !defined __SANITIZE_ADDRESS__ && !defined __SANITIZE_THREAD__ // their allocators end the process instead
TEST_F(SendTest, ShortMemoryRefusesALargeMessageWhole) {
    const std::string message = pattern(60'000'000);
    rlimit before{};
    getrlimit(RLIMIT_AS, &before);
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlimit tight{pages * 4096 + 40'000'000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    const int result = send(ipc_, message, beta_, IPC_FLAG_REQUEST);
    setrlimit(RLIMIT_AS, &before);
    EXPECT_EQ(result, IPC_ERR_SENDTO);
    EXPECT_EQ(w.event.sends.size(), 0u);
}
#endif
