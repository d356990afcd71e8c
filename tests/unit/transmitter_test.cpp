// Transmission: what is tried at once and what waits, how refusals are retried and for how long, the
// in-flight counters, and completions that outlive their endpoint.
#include <dlfcn.h>

#include "endpoint_world.h"
#include "ipc/transmitter.h"

static int fail_push = 0; // so many heap_push refuse

extern "C" int heap_push(heap_t *heap, void *entry) noexcept {
    if (fail_push > 0) return --fail_push, -1;
    static const auto real = reinterpret_cast<decltype(&heap_push)>(dlsym(RTLD_NEXT, "heap_push"));
    return real(heap, entry);
}

namespace {

constexpr uint32_t kSmall = tavipc::kSmallClassBytes, kLarge = tavipc::kLargeClassBytes;

class TransmitterTest : public EndpointWorld {
  protected:
    TransmitterTest() { w.random.draws.assign(1000, 3); } // a random delay is (3 + 10 * tries) % 50

    // Lines at a level that begin so and end with all about the datagram of send_hello.
    int logged(const std::string &text, int level) {
        return w.log.count(
            text + "|src=[4711:alpha:2]|dest=[4711:beta:2]|reqid=1|frag_seq=0|frag_id=0|size=5|frag_orig=0",
            level);
    }
    std::string error(int status) {
        return "|last_err=" + std::to_string(status) + "(" + cl_ev_strerror(status) + ")";
    }
    void send_hello() {
        w.event.sends.clear();
        tavipc::process_state().last_reqid = 0;
        ASSERT_EQ(send(ipc_, "hello"), 0);
    }
    const ipc_queue_msg_st *waiting(size_t count = 1) {
        EXPECT_EQ(ipc_queue_len(ipc_->queue), count);
        return ipc_queue_top(ipc_->queue);
    }
    void expect_idle() {
        const mod_info_st *mod = module(ipc_);
        EXPECT_EQ(mod->sending + mod->sending_bytes + mod->queued + mod->queued_bytes, 0u);
        EXPECT_TRUE(!waiting(0) && !ipc_->in_flight);
    }

    tav_ipc_st *ipc_ = open();
};

TEST_F(TransmitterTest, RefusalsAreRetriedUpToTheirLimit) {
    const struct {
        int status;
        bool configured;
        uint32_t max_retries;
        size_t attempts;   // 0: more than are tried here
        uint64_t delay_ms; // 0: random
    } cases[] = {{4, false, 0, 11, 0}, {2, false, 0, 5, 0},          {4, true, 3, 4, 200},
                 {4, true, 0, 1, 200}, {4, true, INT32_MAX, 0, 200}, {1, true, 3, 5, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.status << ", " << c.attempts << " attempts");
        w.log.lines.clear();
        tavipc::process_state().conf_loaded = c.configured;
        get_ipc_proxy_conf()->eagain_max_retry_times = c.max_retries;
        get_ipc_proxy_conf()->eagain_retry_interval_ms = 200;
        send_hello();
        const size_t attempts = c.attempts ? c.attempts : 20;
        for (size_t tries = 1; tries <= attempts; ++tries) {
            ASSERT_EQ(w.event.sends.size(), tries);
            w.event.complete(tries - 1, c.status);
            if (tries == c.attempts) break;
            const uint64_t delay_ms = c.delay_ms ? c.delay_ms : (3 + 10 * tries) % 50;
            ASSERT_EQ(waiting()->retry_later, w.clock.loop_ms + delay_ms);
            w.event.advance(delay_ms - 1);
            ASSERT_EQ(w.event.sends.size(), tries);
            w.event.advance(1);
            EXPECT_EQ(sent(tries).bytes(), sent(0).bytes());
        }
        const std::string limit = "|try_limit=" + std::to_string(c.attempts ? c.attempts : 2147483648u);
        EXPECT_EQ(logged("msg send failed, retry later|try_times=1" + limit + error(c.status), 4),
                  c.attempts != 1);
        EXPECT_EQ(logged("msg consume times more than limit, drop it|try_times=" + std::to_string(attempts) +
                             limit + error(c.status),
                         2),
                  c.attempts != 0);
        w.event.complete_all();
        expect_idle();
    }
}

TEST_F(TransmitterTest, SuccessIsReportedAfterARetryOnly) {
    send_hello();
    EXPECT_EQ(module(ipc_)->sending, 1u);
    EXPECT_EQ(module(ipc_)->sending_bytes, 65u);
    module(ipc_)->sending = 0; // counts stop at 0
    module(ipc_)->sending_bytes = 64;
    w.event.complete_all();
    EXPECT_EQ(w.log.count("|try_times"), 0);
    expect_idle();
    send_hello();
    w.event.complete_all(4);
    w.event.advance(50);
    w.event.complete_all();
    EXPECT_EQ(logged("msg retry success|try_times=2", 4), 1);
    EXPECT_EQ(w.log.count("", 2), 0);
    expect_idle();
}

TEST_F(TransmitterTest, RefusedHandOverIsQueuedOnceAndThenDropped) {
    w.event.fail_send = 2;
    send_hello();
    EXPECT_EQ(waiting()->try_times, 1u);
    EXPECT_EQ(waiting()->retry_later, w.clock.loop_ms + 13);
    EXPECT_EQ(module(ipc_)->sending + module(ipc_)->sending_bytes, 0u);
    w.event.advance(13);
    EXPECT_EQ(w.log.count("send msg failed|ret=-1|reqid=1|frag_seq=0|frag_id=0|msg_size=5", 2), 2);
    expect_idle();
}

TEST_F(TransmitterTest, NewTrafficQueuesBehindWhatRanksBefore) {
    const struct {
        uint8_t waiting, fresh; // priorities
        uint64_t later_ms;
        bool attempted;
    } cases[] = {{0, 4, 0, true}, {5, 4, 0, false}, {4, 5, 0, true}, {1, 9, 2000, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << int{c.waiting} << " before " << int{c.fresh});
        w.event.sends.clear();
        w.clock.loop_ms += 10'000 - w.clock.loop_ms % 1000;
        w.event.fail_send = 1;
        ASSERT_EQ(send(ipc_, app_message(20, c.waiting)), 0);
        w.clock.loop_ms += c.later_ms;
        ASSERT_EQ(send(ipc_, app_message(21, c.fresh)), 0);
        EXPECT_EQ(w.event.sends.size(), c.attempted);
        waiting(c.attempted ? 1 : 2);
        w.event.advance(100);
        ASSERT_EQ(w.event.sends.size(), 2u);
        EXPECT_EQ(sent(0).header.size, c.attempted ? 21u : 20u);
        w.event.complete_all();
        expect_idle();
    }
}

TEST_F(TransmitterTest, InFlightClassBoundsWhatIsAttempted) {
    const struct {
        uint16_t flags;
        std::string payload;
        uint32_t limit;
    } cases[] = {{0, "plain", kSmall},
                 {IPC_FLAG_FILE | IPC_FLAG_PROBE, "unconfirmed", kSmall},
                 {IPC_FLAG_REQUEST, "request", kLarge},
                 {IPC_FLAG_NEED_ACK, "confirmed", kLarge},
                 {0, app_message(30, 6), kSmall},
                 {0, app_message(30, 7), kLarge},
                 {IPC_FLAG_APP_MSG, std::string(15, '\xFF'), kSmall}}; // too short to have a priority
    for (const auto &c : cases) {
        SCOPED_TRACE(c.payload);
        w.event.sends.clear();
        mod_info_st *mod = module(ipc_);
        const auto datagram = static_cast<uint32_t>(60 + c.payload.size());
        mod->sending_bytes = c.limit - datagram - 1;
        ASSERT_EQ(send(ipc_, c.payload, address("beta"), c.flags), 0);
        EXPECT_EQ(w.event.sends.size(), 1u);
        EXPECT_EQ(mod->sending_bytes, c.limit - 1);
        w.event.complete_all();
        mod->sending_bytes = c.limit - datagram;
        ASSERT_EQ(send(ipc_, c.payload, address("beta"), c.flags), 0);
        EXPECT_EQ(waiting()->retry_later, w.clock.loop_ms + 13);
        w.event.advance(13); // still no room: dropped
        EXPECT_EQ(w.event.sends.size() + static_cast<size_t>(w.log.count("", 2)), 1u);
        mod->sending_bytes = 0;
        expect_idle();
    }
}

TEST_F(TransmitterTest, QueueThatRefusesDropsAndOneWithoutATimerKeeps) {
    w.event.fail_send = fail_push = 1;
    send_hello();
    EXPECT_EQ(logged("msg set send later failed, drop it|try_times=1", 2), 1);
    send_hello();
    fail_push = 1;
    w.event.complete_all(4);
    EXPECT_EQ(logged("msg set retry failed, drop it|try_times=1" + error(4), 2), 1);
    expect_idle();
    send_hello();
    w.event.fail_timers = 1;
    w.event.complete_all(4);
    EXPECT_EQ(logged("msg send failed, retry later|try_times=1|try_limit=11" + error(4), 4), 1);
    waiting();
}

TEST_F(TransmitterTest, IdleModulesGoWhenThereAreVeryMany) {
    const struct {
        int64_t count;
        int status;
        int64_t left;
    } cases[] = {{5000, 0, 5000}, {5001, 4, 5001}, {5001, 0, 5000}};
    for (const auto &c : cases) {
        send_hello();
        ipc_->queue->mod_count = c.count;
        w.event.complete_all(c.status);
        EXPECT_EQ(ipc_->queue->mod_count, c.left);
        w.event.advance(50);
        ipc_->queue->mod_count = 1;
        w.event.complete_all();
    }
    EXPECT_EQ(xhash_count(ipc_->queue->mods), 0u);
}

TEST_F(TransmitterTest, CompletionsOfADestroyedEndpointTouchNothing) {
    for (const bool late : {false, true}) { // late: a platform that reports after the sockets are gone
        w.event.sends.clear();
        tav_ipc_st *ipc = open("gone");
        send(ipc, pattern(130'000));
        w.event.complete(1, 4); // back into the queue
        w.event.fail_send = 1;
        send(ipc, "refused");
        for (auto &each : w.event.sends) each.done |= late;
        w.log.lines.clear();
        close(ipc);
        for (const size_t i : {0, 2})
            if (late) w.event.sends[i].callback(0, i ? 4 : 0, w.event.sends[i].context);
        EXPECT_TRUE(w.log.lines.empty());
    }
}

} // namespace
