// Transmission: what is tried at once and what waits, how refusals are retried and for how long, and the
// in-flight limits.
#include <array>
#include <optional>

#include "endpoint_world.h"
#include "ipc/ipc_conf.h"
#include "ipc/transmitter.h"
#include "temp_dir.h"

constexpr uint32_t kSmall = tavipc::kSmallClassBytes, kLarge = tavipc::kLargeClassBytes;

struct TransmitterTest : EndpointWorld {
    TransmitterTest() { w.random.draws.assign(1000, 3); } // a random delay is (3 + 10 * tries) % 50

    static std::string failed(int status) {
        return "|last_err=" + std::to_string(status) + "(" + cl_ev_strerror(status) + ")" + datagram_;
    }
    void send_hello(int refused_with = 0) {
        forget();
        tavipc::reset_sending();
        ASSERT_EQ(send(ipc_, "hello"), 0);
        if (refused_with) w.event.complete_all(refused_with);
    }
    const ipc_queue_msg_st *waiting(size_t count = 1) {
        EXPECT_EQ(ipc_queue_len(ipc_->queue), count);
        return ipc_queue_top(ipc_->queue);
    }
    void expect_idle() {
        w.event.complete_all();
        EXPECT_EQ(beta_->sending + beta_->sending_bytes + beta_->queued + beta_->queued_bytes, 0u);
        waiting(0);
    }

    inline static const std::string datagram_ = "|src=[4711:alpha:2]|dest=[4711:beta:2]|reqid=1|frag_seq=0|"
                                                "frag_id=0|size=5|frag_orig=0";
    tav_ipc_st *ipc_ = open();
    mod_info_st *beta_ = module(ipc_);
};

TEST_F(TransmitterTest, RefusalsAreRetriedUpToTheirLimit) {
    // status, configured retries, attempts, delay (0: random)
    const std::tuple<int, std::optional<uint32_t>, size_t, uint64_t> cases[] = {
        {4, 0, 1, 200}, {4, 3, 4, 200}, {1, 3, 5, 0}, {4, {}, 11, 0}};
    for (const auto &[status, configured, limit, fixed_delay_ms] : cases) {
        SCOPED_TRACE(testing::Message() << status << ", " << limit << " attempts");
        tavipc::reset_ipc_conf();
        if (configured) {
            load_ipc_proxy_conf("/nonexistent");
            get_ipc_proxy_conf()->eagain_max_retry_times = *configured;
            get_ipc_proxy_conf()->eagain_retry_interval_ms = 200;
        }
        send_hello();
        for (size_t tries = 1; tries < limit; ++tries) {
            w.event.complete(tries - 1, status);
            w.event.advance((fixed_delay_ms ? fixed_delay_ms : (3 + 10 * tries) % 50) - 1);
            ASSERT_EQ(w.event.sends.size(), tries);
            w.event.advance(1);
            EXPECT_EQ(sent(tries).bytes(), sent(0).bytes());
        }
        w.event.complete_all(status);
        const std::string end = "|try_limit=" + std::to_string(limit) + failed(status);
        EXPECT_EQ(w.log.count("msg send failed, retry later|try_times=1" + end, 4), limit != 1);
        const std::string drop = "msg consume times more than limit, drop it|try_times=";
        EXPECT_EQ(w.log.count(drop + std::to_string(limit) + end, 2), 1);
        expect_idle();
    }
    send_hello(CL_EV_WOULD_BLOCK);
    w.event.advance(50);
    expect_idle();
    EXPECT_EQ(w.log.count("msg retry success|try_times=2" + datagram_, 4), 1);
}

TEST_F(TransmitterTest, RefusedHandOverIsQueuedOnceAndThenDropped) {
    w.event.fail_send = 2;
    send_hello();
    EXPECT_EQ(waiting()->try_times, 1u);
    w.event.advance(13);
    EXPECT_EQ(w.log.count("send msg failed|ret=-1|reqid=1|frag_seq=0|frag_id=0|msg_size=5", 2), 2);
    expect_idle();
    w.event.fail_send = w.memory.fail_push = 1;
    send_hello();
    EXPECT_EQ(w.log.count("msg set send later failed, drop it|try_times=1" + datagram_, 2), 1);
    w.memory.fail_push = 1;
    send_hello(CL_EV_WOULD_BLOCK);
    EXPECT_EQ(w.log.count("msg set retry failed, drop it|try_times=1" + failed(4), 2), 1);
    expect_idle();
}

TEST_F(TransmitterTest, NewTrafficQueuesBehindWhatRanksBefore) {
    // priorities, the second later by, attempted at once
    const std::tuple<uint8_t, uint8_t, uint64_t, bool> cases[] = {
        {0, 4, 0, true}, {5, 4, 0, false}, {1, 9, 2000, false}};
    for (const auto &[first, second, later_ms, attempted] : cases) {
        forget();
        w.clock.loop_ms += 10'000 - w.clock.loop_ms % 1000;
        w.event.fail_send = 1;
        ASSERT_EQ(send(ipc_, app_message(20, first)), 0);
        w.clock.loop_ms += later_ms;
        ASSERT_EQ(send(ipc_, app_message(21, second)), 0);
        waiting(attempted ? 1 : 2);
        w.event.advance(100);
        EXPECT_EQ(sent(0).header.size, attempted ? 21u : 20u) << int{first} << " before " << int{second};
        expect_idle();
    }
}

TEST_F(TransmitterTest, InFlightClassBoundsWhatIsAttempted) {
    const std::string short_of_priority(15, '\xFF');
    const std::tuple<uint16_t, std::string, uint32_t> cases[] = {{0x0C, "unconfirmed", kSmall},
                                                                 {0x20, "response", kLarge},
                                                                 {0, app_message(30, 6), kSmall},
                                                                 {0, app_message(30, 7), kLarge},
                                                                 {0x200, short_of_priority, kSmall}};
    for (const auto &[flags, payload, limit] : cases) {
        SCOPED_TRACE(payload);
        forget();
        const auto size = static_cast<uint32_t>(60 + payload.size());
        for (const uint32_t left : {size + 1, size}) { // of the class; the header counts too
            beta_->sending_bytes = limit - left;
            ASSERT_EQ(send(ipc_, payload, address("beta"), flags), 0);
            w.event.complete_all();
        }
        waiting();
        w.event.advance(13); // the class is still full: dropped
        EXPECT_EQ(w.event.sends.size(), 1u);
        EXPECT_EQ(w.log.count("", 2), payload == "response") << "whose requester would wait in vain";
        beta_->sending_bytes = 0;
        expect_idle();
    }
}

TEST_F(TransmitterTest, IdleDestinationsGoWhenThereAreVeryMany) {
    for (const auto &[count, status, left] : {std::tuple{5000, 0, 5000}, {5001, 4, 5001}, {5001, 0, 5000}}) {
        send_hello();
        ipc_->queue->mod_count = count;
        w.event.complete_all(status);
        EXPECT_EQ(ipc_->queue->mod_count, left) << "one that waits stays";
        w.event.advance(50);
        ipc_->queue->mod_count = 1;
        w.event.complete_all();
    }
    EXPECT_EQ(xhash_count(ipc_->queue->mods), 0u);
    ipc_->queue->mod_count = 5001;
    w.event.settles = true;
    ASSERT_EQ(send(ipc_, pattern(200'000)), 0);
    EXPECT_EQ(xhash_count(ipc_->queue->mods), 1u) << "it is in use while its fragments are sent";
    w.event.complete_all();
}

TEST_F(TransmitterTest, RecordsOfOtherCodeAreSentOrDropped) {
    for (tav_ipc_st *owner : {ipc_, static_cast<tav_ipc_st *>(nullptr)}) {
        ipc_queue_msg_st *msg = create_ipc_queue_msg(3); // shorter than a header
        std::memcpy(msg->inline_data, "abc", 3);
        *msg = {owner, nullptr, {}, w.clock.loop_ms, 0, 0, 0, 3, msg->inline_data, nullptr};
        ASSERT_EQ(ipc_queue_push(ipc_->queue, &msg, w.clock.loop_ms), 0);
        w.event.advance(1);
    }
    EXPECT_EQ(w.event.sends.size(), 1u) << "the second has no endpoint";
    w.event.complete_all(CL_EV_IO);
    EXPECT_EQ(w.log.count("msg send failed, retry later|try_times=1", 4), 1);
    expect_balanced(ipc_); // which count nothing of this
}

TEST_F(TransmitterTest, ALineAboutADropMaySettleTheLastSend) {
    load_ipc_proxy_conf(nullptr);
    get_ipc_proxy_conf()->eagain_max_retry_times = 0; // the first refusal drops
    ASSERT_TRUE(module(ipc_, "gamma"));
    for (int i = 0; i < 2; ++i) ASSERT_EQ(send(ipc_, "hello"), 0);
    w.event.settles = true;
    ipc_->queue->mod_count = 5002;
    w.log.on_line = [&] { EXPECT_EQ(send(ipc_, "x", address("gamma")), 0); };
    w.event.complete(0, CL_EV_WOULD_BLOCK);
    w.log.on_line = nullptr;
    EXPECT_EQ(ipc_->queue->mod_count, 5001) << "beta, once";
    EXPECT_EQ(xhash_count(ipc_->queue->mods), 1u);
    ipc_->queue->mod_count = 1;
}

TEST_F(TransmitterTest, MissingAndBadValuesOfTheConfigurationGetDefaults) {
    using Words = std::array<uint32_t, 13>;
    const auto &words = reinterpret_cast<const Words &>(*get_ipc_proxy_conf());
    const std::tuple<std::string, uint32_t, uint32_t, uint32_t> cases[] = {
        {"3\n[transfer]\neagain_retry_interval_ms=200\neagain_max_retry_times=0\n", 7, 200, 0},
        {"-1\n[transfer]\neagain_retry_interval_ms=-1\neagain_max_retry_times=12x\n", 6, 1000, 12},
        {"1\n[transfer]\neagain_retry_interval_ms=99999999999\neagain_max_retry_times=2147483648\n", 7,
         INT32_MAX, INT32_MAX},
        {"", 6, 1000, 10}}; // no file
    const TempDir directory;
    const std::string path = directory / "transfer.ini";
    for (const auto &[text, options, interval_ms, retry_times] : cases) {
        tavipc::reset_ipc_conf();
        std::ofstream(path) << "[ipc_proxy]\ndisable_offline_cache=" << text;
        if (text.empty()) unlink(path.c_str());
        EXPECT_EQ(load_ipc_proxy_conf(path.c_str()), 0);
        EXPECT_EQ(words, (Words{options, 1, 200000, 0, 0, interval_ms, retry_times, 10000, 60}));
    }
    EXPECT_EQ(w.log.count("config not found, set default: " + path, 2), 1);
}
