// Counters: each way that a message can take ends in its own counter, and the sums balance.
#include "endpoint_world.h"
#include "ipc/ipc_conf.h"
#include "ipc/transmitter.h"
#include "tavipc/tav_ipc_ext.h"

namespace {

class AccountingTest : public EndpointWorld {
  protected:
    // Expects that the action changes these counters and no others, but for those of all traffic.
    void expect_counts(const std::vector<int> &counters, const std::function<void()> &action) {
        const tav_ipc_stats_st before = stats(ipc_);
        action();
        expect_balanced(ipc_);
        std::vector<int> changed;
        for (int i = TAV_IPC_STATS_DROPPED_NO_PEER; i < TAV_IPC_STATS_HANDLER_LONGEST_MS; ++i)
            if (i != TAV_IPC_STATS_DROPPED_BYTES &&
                (i < TAV_IPC_STATS_QUEUED || i > TAV_IPC_STATS_RECEIVED_BYTES) &&
                stats(ipc_).values[i] != before.values[i])
                changed.push_back(i);
        EXPECT_EQ(changed, counters);
    }
    uint64_t pending() {
        uint64_t messages = 0, bytes = 0;
        EXPECT_EQ(tav_ipc_pending(ipc_, &messages, &bytes), 0);
        EXPECT_EQ(messages > 0, bytes > 0);
        return messages;
    }
    tav_ipc_st *ipc_ = open();
};

TEST_F(AccountingTest, EachDropAndRefusalHasItsReason) {
    const auto refuse = [&](int status, int fail_push) {
        w.memory.fail_push = fail_push;
        (void)send(ipc_, "x");
        for (; pending() > 0; w.event.advance(50)) w.event.complete_all(status);
    };
    expect_counts({TAV_IPC_STATS_DROPPED_NO_PEER}, [&] { refuse(CL_EV_NO_PEER, 0); });
    expect_counts({TAV_IPC_STATS_DROPPED_WOULD_BLOCK}, [&] { refuse(CL_EV_WOULD_BLOCK, 0); });
    expect_counts({TAV_IPC_STATS_DROPPED_OTHER}, [&] { refuse(CL_EV_IO, 0); });
    expect_counts({TAV_IPC_STATS_DROPPED_NO_MEMORY}, [&] { refuse(CL_EV_IO, 1); });
    const auto fill = [&](uint32_t room) {
        module(ipc_)->sending_bytes = tavipc::kSmallClassBytes - room;
        EXPECT_EQ(send(ipc_, "hello"), room > 5 ? 0 : IPC_ERR_SENDTO);
        w.event.advance(50), module(ipc_)->sending_bytes = 0;
    };
    expect_counts({TAV_IPC_STATS_DROPPED_BUDGET}, [&] { fill(65); });
    expect_counts({TAV_IPC_STATS_REFUSED_BUDGET}, [&] { fill(5); });
    const tav_addr_st beta = address("beta");
    expect_counts({TAV_IPC_STATS_REFUSED_SIZE},
                  [&] { (void)tav_ipc_send(ipc_, &beta, 1, nullptr, TAV_IPC_MESSAGE_MAX + 1); });
    expect_counts({TAV_IPC_STATS_REFUSED_OTHER}, [&] { send(ipc_, "x", address("a/b")); });
    // Three fragments, one of which is dropped, are one dropped message. So are the two at the end.
    load_ipc_proxy_conf(nullptr);
    get_ipc_proxy_conf()->eagain_max_retry_times = 0;
    ASSERT_EQ(send(ipc_, pattern(150'000)), 0);
    w.event.complete(w.event.sends.size() - 2, CL_EV_WOULD_BLOCK);
    EXPECT_EQ(pending(), 1u);
    w.event.complete_all();
    w.event.fail_send = 1;
    for (int i = 0; i < 2; ++i) ASSERT_EQ(send(ipc_, "x"), 0);
    const uint64_t before = ipc_->messages.dropped;
    const tavipc::EndpointPin pin(ipc_);
    close(ipc_);
    EXPECT_EQ(ipc_->messages.dropped, before + 2);
    EXPECT_EQ(ipc_->messages.left + pending(), 0u);
}

TEST_F(AccountingTest, ReceivedDatagramsAndExchangesAreCountedByKind) {
    listen(ipc_);
    then_ = [&](auto) { w.clock.gettime = [](clockid_t, timespec *t) { return *t = {1'000'000, 0}, 0; }; };
    Datagram good{"", {}, "hello"}, fragment = good, packed = good;
    tavipc::set_fragment(fragment.header, 1);
    fragment.header.frag_orig = 64'005;
    Datagram misfit = fragment;
    misfit.header.frag_orig = 100;
    packed.header.flags = IPC_FLAG_COMPRESSED;
    const auto got = [&](const std::vector<int> &counters, const std::string &bytes, int status = 0) {
        expect_counts(counters, [&] { receive(ipc_, bytes, status); });
    };
    got({TAV_IPC_STATS_BAD_SHORT}, "short");
    got({TAV_IPC_STATS_DELIVERED, TAV_IPC_STATS_HANDLER_CALLS}, good.bytes());
    EXPECT_GT(stats(ipc_).values[TAV_IPC_STATS_HANDLER_LONGEST_MS], 0u);
    tav_ipc_unset_callbacks(ipc_, TAV_IPC_CALLBACK_MESSAGE);
    got({TAV_IPC_STATS_DELIVERED}, good.bytes()); // there is a callback, but for requests
    got({TAV_IPC_STATS_BAD_CHECK}, good.bytes().replace(56, 1, "x"));
    got({TAV_IPC_STATS_BAD_SIZE}, good.bytes().substr(0, 62));
    got({TAV_IPC_STATS_BAD_OTHER}, good.bytes(), CL_EV_IO);
    got({TAV_IPC_STATS_BAD_COMPRESSED}, packed.bytes());
    got({TAV_IPC_STATS_SETS_OPEN}, fragment.bytes());
    got({TAV_IPC_STATS_BAD_FRAGMENT}, misfit.bytes());
    expect_counts({TAV_IPC_STATS_SETS_EXPIRED, TAV_IPC_STATS_SETS_OPEN}, [&] {
        for (int i = 0; i < 75; ++i) w.clock.wall_s += 1, w.event.advance(1000);
    });
    const tav_addr_st beta = address("beta");
    const auto start = [&](uint32_t timeout_ms) {
        return tav_ipc_exchange_start(ipc_, 1, &beta, 1, "", 0, timeout_ms, nullptr, nullptr);
    };
    const uint64_t id = start(1000);
    expect_counts({TAV_IPC_STATS_EXCHANGES_OPEN, TAV_IPC_STATS_EXCHANGES_TIMED_OUT},
                  [&] { start(10), start(1000), w.event.advance(20); });
    expect_counts({TAV_IPC_STATS_EXCHANGES_OPEN, TAV_IPC_STATS_EXCHANGES_ENDED},
                  [&] { tav_ipc_exchange_cancel(ipc_, id); });
    expect_counts({TAV_IPC_STATS_DELIVERED, TAV_IPC_STATS_EXCHANGES_OPEN, TAV_IPC_STATS_EXCHANGES_COMPLETED},
                  [&] { answer(ipc_, IPC_FLAG_ACK, ""); });
    EXPECT_EQ(stats(ipc_).values[TAV_IPC_STATS_EXCHANGES_OPEN], 0u);
}

} // namespace
