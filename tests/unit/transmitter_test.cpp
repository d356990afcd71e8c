// Transmission: what is tried at once and what waits, how refusals are retried and for how long, the
// in-flight counters, and completions that outlive their endpoint.
#include <dlfcn.h>

#include "endpoint_world.h"
#include "ipc/transmitter.h"

namespace {

int fail_push = 0; // so many heap_push refuse

} // namespace

extern "C" int heap_push(heap_t *heap, void *entry) noexcept {
    if (fail_push > 0) return --fail_push, -1;
    static const auto real = reinterpret_cast<decltype(&heap_push)>(dlsym(RTLD_NEXT, "heap_push"));
    return real(heap, entry);
}

namespace {

constexpr uint32_t kSmall = tavipc::kSmallClassBytes, kLarge = tavipc::kLargeClassBytes;
constexpr char kAbout[] =
    "src=[4711:alpha:2]|dest=[4711:beta:2]|reqid=1|frag_seq=0|frag_id=0|size=5|frag_orig=0";

class TransmitterTest : public EndpointWorld {
  protected:
    TransmitterTest() {
        fail_push = 0;
        w.random.draws.assign(1000, 3); // every random delay is (3 + 10 * tries) % 50
    }
    void configure(uint32_t max_retries, uint32_t interval_ms) {
        tavipc::process_state().conf_loaded = true;
        get_ipc_proxy_conf()->eagain_max_retry_times = max_retries;
        get_ipc_proxy_conf()->eagain_retry_interval_ms = interval_ms;
    }
    const ipc_queue_msg_st *waiting(size_t count = 1) {
        EXPECT_EQ(ipc_queue_len(ipc_->queue), count);
        return ipc_queue_top(ipc_->queue);
    }
    void expect_idle() {
        const mod_info_st *mod = module(ipc_);
        EXPECT_EQ(waiting(0), nullptr);
        EXPECT_EQ(mod->sending + mod->sending_bytes + mod->queued + mod->queued_bytes, 0u);
        EXPECT_EQ(ipc_->in_flight, nullptr);
    }
    int logged(const std::string &text, int level) { return w.log.count(text, level); }

    tav_ipc_st *ipc_ = open();
};

TEST_F(TransmitterTest, RefusalsAreRetriedUpToTheirLimit) {
    const struct {
        const char *name;
        int status;
        bool configured;
        uint32_t max_retries;
        size_t attempts;
        uint64_t delay_ms; // 0: random
    } cases[] = {{"would block", 4, false, 0, 11, 0},         {"other", 2, false, 0, 5, 0},
                 {"would block, 3 more", 4, true, 3, 4, 200}, {"would block, none more", 4, true, 0, 1, 200},
                 {"many more", 4, true, INT32_MAX, 0, 200},   {"other, configured", 1, true, 3, 5, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        w.log.lines.clear();
        w.event.sends.clear();
        tavipc::process_state() = {};
        if (c.configured) configure(c.max_retries, 200);
        ASSERT_EQ(send(ipc_, "hello"), 0);
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
        const std::string error =
            "|last_err=" + std::to_string(c.status) + "(" + cl_ev_strerror(c.status) + ")|";
        const std::string limit = "|try_limit=" + std::to_string(c.attempts ? c.attempts : 2147483648u);
        EXPECT_EQ(logged("msg send failed, retry later|try_times=1" + limit + error + kAbout, 4),
                  c.attempts != 1);
        EXPECT_EQ(logged("msg consume times more than limit, drop it|try_times=" +
                             std::to_string(c.attempts) + limit + error + kAbout,
                         2),
                  c.attempts != 0);
        w.event.complete_all();
        expect_idle();
    }
}

TEST_F(TransmitterTest, SuccessIsReportedAfterARetryOnly) {
    send(ipc_, "hello");
    w.event.complete_all();
    EXPECT_EQ(logged("|try_times", 4), 0);
    tavipc::process_state().last_reqid = 0;
    send(ipc_, "hello");
    w.event.complete_all(4);
    w.event.advance(50);
    w.event.complete_all();
    EXPECT_EQ(logged(std::string("msg retry success|try_times=2|") + kAbout, 4), 1);
    EXPECT_EQ(logged("", 2), 0);
    expect_idle();
}

TEST_F(TransmitterTest, RefusedHandOverIsQueuedOnceAndThenDropped) {
    w.event.fail_send = 2;
    EXPECT_EQ(send(ipc_, "hello"), 0);
    EXPECT_EQ(waiting()->try_times, 1u);
    EXPECT_EQ(waiting()->retry_later, w.clock.loop_ms + 13);
    EXPECT_EQ(module(ipc_)->sending + module(ipc_)->sending_bytes, 0u);
    w.event.advance(13);
    EXPECT_EQ(logged("send msg failed|ret=-1|reqid=1|frag_seq=0|frag_id=0|msg_size=5", 2), 2);
    expect_idle();
}

TEST_F(TransmitterTest, NewTrafficQueuesBehindWhatRanksBefore) {
    const struct {
        const char *name;
        uint8_t waiting, fresh;
        uint64_t later_ms;
        bool attempted;
    } cases[] = {{"same second, same priority", 0, 4, 0, true},
                 {"same second, lower", 5, 4, 0, false},
                 {"same second, higher", 4, 5, 0, true},
                 {"overdue", 1, 9, 2000, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        w.event.sends.clear();
        w.clock.loop_ms = w.clock.loop_ms / 1000 * 1000 + 10'000;
        w.event.fail_send = 1;
        ASSERT_EQ(send(ipc_, app_message(20, c.waiting)), 0);
        w.clock.loop_ms += c.later_ms;
        ASSERT_EQ(send(ipc_, app_message(21, c.fresh)), 0);
        EXPECT_EQ(w.event.sends.size(), c.attempted);
        waiting(c.attempted ? 1 : 2);
        w.event.advance(100);
        ASSERT_EQ(w.event.sends.size(), 2u);
        EXPECT_EQ(sent(0).header.size, c.attempted ? 21u : 20u);
        w.event.complete_all(); // a record first tried from the queue counts that as its first attempt
        EXPECT_EQ(logged("retry success", 4), 0);
        expect_idle();
    }
}

TEST_F(TransmitterTest, InFlightClassBoundsWhatIsAttempted) {
    const struct {
        const char *name;
        uint16_t flags;
        std::string payload;
        uint32_t limit;
    } cases[] = {{"plain", 0, "hello", kSmall},
                 {"file chunk", IPC_FLAG_FILE | IPC_FLAG_PROBE, "hello", kSmall},
                 {"request", IPC_FLAG_REQUEST, "hello", kLarge},
                 {"confirmed", IPC_FLAG_NEED_ACK, "hello", kLarge},
                 {"priority 6", 0, app_message(30, 6), kSmall},
                 {"priority 7", 0, app_message(30, 7), kLarge},
                 {"marked, but without a priority byte", IPC_FLAG_APP_MSG, std::string(15, '\xFF'), kSmall}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
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
        EXPECT_EQ(w.event.sends.size(), 1u);
        EXPECT_EQ(logged("", 2), 0);
        mod->sending_bytes = 0;
        expect_idle();
    }
}

TEST_F(TransmitterTest, CountersStopAtZero) {
    send(ipc_, "hello");
    send(ipc_, "hello");
    EXPECT_EQ(module(ipc_)->sending, 2u);
    EXPECT_EQ(module(ipc_)->sending_bytes, 130u);
    module(ipc_)->sending = 1;
    module(ipc_)->sending_bytes = 100;
    w.event.complete_all();
    expect_idle();
}

TEST_F(TransmitterTest, RefusedQueueDropsWithALine) {
    w.event.fail_send = 1;
    fail_push = 1;
    EXPECT_EQ(send(ipc_, "hello"), 0);
    EXPECT_EQ(logged(std::string("msg set send later failed, drop it|try_times=1|") + kAbout, 2), 1);
    tavipc::process_state().last_reqid = 0;
    send(ipc_, "hello");
    fail_push = 1;
    w.event.complete_all(4);
    const std::string error = std::string("(") + cl_ev_strerror(4) + ")|";
    EXPECT_EQ(logged("msg set retry failed, drop it|try_times=1|last_err=4" + error + kAbout, 2), 1);
    expect_idle();
}

TEST_F(TransmitterTest, RecordTakenByAQueueWithoutATimerIsKept) {
    send(ipc_, "hello");
    w.event.fail_timers = 1;
    w.event.complete_all(4);
    EXPECT_EQ(logged("msg send failed, retry later", 4), 1);
    EXPECT_EQ(logged("drop it", 2), 0);
    waiting();
}

TEST_F(TransmitterTest, IdleModulesGoWhenThereAreVeryMany) {
    const struct {
        int64_t count;
        int status;
        int64_t left;
    } cases[] = {{5000, 0, 5000}, {5001, 4, 5001}, {5001, 0, 5000}};
    for (const auto &c : cases) {
        w.event.sends.clear();
        send(ipc_, "hello");
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
    const std::string large = pattern(130'000);
    for (const bool late : {false, true}) {
        w.log.lines.clear();
        w.event.sends.clear();
        if (late) ipc_ = open("alpha2");
        send(ipc_, large);
        w.event.complete(1, 4); // back into the queue
        w.event.fail_send = 1;
        send(ipc_, "refused");
        // A platform that reports pending sends only after the sockets are gone.
        for (auto &each : w.event.sends) each.done |= late;
        w.log.lines.clear();
        close(ipc_);
        if (late) {
            w.event.sends[0].callback(0, 0, w.event.sends[0].context);
            w.event.sends[2].callback(0, 4, w.event.sends[2].context);
        }
        EXPECT_EQ(w.log.count(""), 0);
    }
}

} // namespace
