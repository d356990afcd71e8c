// Counters: each way that a message can take ends in its own counter, and the sums balance.
#include <map>

#include "endpoint_world.h"
#include "ipc/accounting.h"
#include "ipc/ipc_conf.h"
#include "ipc/transmitter.h"
#include "tavipc/tav_ipc_ext.h"

namespace {

class AccountingTest : public EndpointWorld {
  protected:
    using Counts = std::map<int, uint64_t>; // the counters that are not 0
    // What an action changes, without the counters of traffic in general.
    Counts changes(const std::function<void()> &action) {
        const tav_ipc_stats_st before = stats(ipc_);
        action();
        expect_balanced(ipc_);
        Counts result;
        for (int i = 0; i < TAV_IPC_STATS_COUNT; ++i) {
            const bool traffic = i < TAV_IPC_STATS_LEFT || i == TAV_IPC_STATS_RETRIED ||
                                 i == TAV_IPC_STATS_DROPPED_BYTES || i == TAV_IPC_STATS_RECEIVED_BYTES;
            if (!traffic && stats(ipc_).values[i] != before.values[i])
                result[i] = stats(ipc_).values[i] - before.values[i];
        }
        return result;
    }
    Counts refused_with(int status) {
        return changes([&] {
            EXPECT_EQ(send(ipc_, "x"), 0);
            for (; w.event.pending() > 0; w.event.advance(50)) w.event.complete_all(status);
        });
    }
    uint64_t pending() {
        uint64_t messages = 0, bytes = 0;
        EXPECT_EQ(tav_ipc_pending(ipc_, &messages, &bytes), 0);
        EXPECT_EQ(messages > 0, bytes > 0);
        return messages;
    }
    tav_ipc_st *ipc_ = open();
    const tav_addr_st beta_ = address("beta");
};

TEST_F(AccountingTest, EachDropAndRefusalHasItsReason) {
    EXPECT_EQ(refused_with(CL_EV_NO_PEER), (Counts{{TAV_IPC_STATS_DROPPED_NO_PEER, 1}}));
    EXPECT_EQ(refused_with(CL_EV_WOULD_BLOCK), (Counts{{TAV_IPC_STATS_DROPPED_WOULD_BLOCK, 1}}));
    EXPECT_EQ(refused_with(CL_EV_IO), (Counts{{TAV_IPC_STATS_DROPPED_OTHER, 1}}));
    w.memory.fail_push = 1;
    EXPECT_EQ(refused_with(CL_EV_IO), (Counts{{TAV_IPC_STATS_DROPPED_NO_MEMORY, 1}}));
    mod_info_st *beta = module(ipc_);
    const auto fill = [&](uint32_t room) {
        beta->sending_bytes = tavipc::kSmallClassBytes - room;
        EXPECT_EQ(send(ipc_, "hello"), room > 5 ? 0 : IPC_ERR_SENDTO);
        EXPECT_EQ(pending(), room > 5);
        w.event.advance(50), beta->sending_bytes = 0;
    };
    EXPECT_EQ(changes([&] { fill(65); }), (Counts{{TAV_IPC_STATS_DROPPED_BUDGET, 1}}));
    EXPECT_EQ(changes([&] { fill(5); }), (Counts{{TAV_IPC_STATS_REFUSED_BUDGET, 1}}));
    const auto huge = [&] { tav_ipc_send(ipc_, &beta_, 1, nullptr, TAV_IPC_MESSAGE_MAX + 1); };
    EXPECT_EQ(changes(huge), (Counts{{TAV_IPC_STATS_REFUSED_SIZE, 1}}));
    const auto elsewhere = [&] { send(ipc_, "x", address("a/b")); };
    EXPECT_EQ(changes(elsewhere), (Counts{{TAV_IPC_STATS_REFUSED_OTHER, 1}}));
    // Three fragments, one of which is dropped, are one dropped message, also when the endpoint goes.
    load_ipc_proxy_conf(nullptr);
    get_ipc_proxy_conf()->eagain_max_retry_times = 0;
    ASSERT_EQ(send(ipc_, pattern(150'000)), 0);
    w.event.complete(w.event.sends.size() - 2, CL_EV_WOULD_BLOCK);
    EXPECT_EQ(pending(), 1u);
    const auto dropped_before = ipc_->messages.dropped;
    w.event.complete_all();
    EXPECT_EQ(pending(), 0u);
    w.event.fail_send = 1;
    for (int i = 0; i < 2; ++i) ASSERT_EQ(send(ipc_, "x"), 0); // one waits, the other one, too, behind it
    const tavipc::EndpointPin pin(ipc_);
    close(ipc_);
    EXPECT_EQ(ipc_->messages.dropped, dropped_before + 3);
    EXPECT_EQ(pending(), 0u);
}

TEST_F(AccountingTest, ReceivedDatagramsAndExchangesAreCountedByKind) {
    listen(ipc_);
    then_ = [&](tav_ipc_st *) {
        w.clock.gettime = [](clockid_t, timespec *t) { return *t = {1'000'000, 0}, 0; };
    };
    Datagram good{"", {}, "hello"}, fragment = good;
    tavipc::set_fragment(fragment.header, 1);
    fragment.header.frag_orig = 64'005;
    Datagram misfit = fragment, packed = good;
    misfit.header.frag_orig = 100;
    packed.header.flags = IPC_FLAG_COMPRESSED;
    const auto got = [&](const std::string &bytes, int kind, int status = 0) {
        Counts counts = changes([&] { receive(ipc_, bytes, status); });
        EXPECT_EQ(std::exchange(counts[TAV_IPC_STATS_RECEIVED], 0), 1u);
        EXPECT_EQ(counts[kind], 1u) << kind;
        return counts.size();
    };
    EXPECT_EQ(got("short", TAV_IPC_STATS_BAD_SHORT), 2u);
    EXPECT_EQ(got(good.bytes().replace(0, 4, "host") + "!", TAV_IPC_STATS_DELIVERED), 4u) << "handler, too";
    EXPECT_GT(stats(ipc_).values[TAV_IPC_STATS_HANDLER_LONGEST_MS], 0u);
    EXPECT_EQ(got(good.bytes().replace(56, 1, "x"), TAV_IPC_STATS_BAD_CHECK), 2u);
    EXPECT_EQ(got(good.bytes().substr(0, 62), TAV_IPC_STATS_BAD_SIZE), 2u);
    EXPECT_EQ(got(good.bytes(), TAV_IPC_STATS_BAD_OTHER, CL_EV_IO), 2u);
    EXPECT_EQ(got(packed.bytes(), TAV_IPC_STATS_BAD_COMPRESSED), 2u);
    EXPECT_EQ(got(fragment.bytes(), TAV_IPC_STATS_SETS_OPEN), 2u);
    EXPECT_EQ(got(misfit.bytes(), TAV_IPC_STATS_BAD_FRAGMENT), 2u);
    for (int i = 0; i < 75; ++i) w.clock.wall_s += 1, w.event.advance(1000);
    EXPECT_EQ(stats(ipc_).values[TAV_IPC_STATS_SETS_EXPIRED], 1u);
    EXPECT_EQ(stats(ipc_).values[TAV_IPC_STATS_SETS_OPEN], 0u);

    const auto start = [&](uint32_t timeout_ms) {
        return tav_ipc_exchange_start(ipc_, 1, &beta_, 1, "", 0, timeout_ms, nullptr, nullptr);
    };
    const uint64_t id = start(1000);
    start(10);
    start(1000);
    answer(ipc_, IPC_FLAG_ACK, "");
    w.event.advance(20);
    EXPECT_EQ(stats(ipc_).values[TAV_IPC_STATS_EXCHANGES_OPEN], 1u);
    tav_ipc_exchange_cancel(ipc_, id);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(stats(ipc_).values[TAV_IPC_STATS_EXCHANGES_OPEN + i], i > 0) << i << " of the exchanges";
}

} // namespace
