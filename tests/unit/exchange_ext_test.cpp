// Exchanges with an id: how each kind completes once, by its answer, its own timer, or its cancellation.
#include "tavipc/tav_ipc_ext.h"

#include <cerrno>

#include <gmock/gmock.h>

#include "endpoint_world.h"

using testing::ElementsAre;

namespace {

using Result = std::pair<uint64_t, int32_t>;
std::vector<Result> done;
std::function<void(uint64_t id)> then; // runs in every callback

void on_done(uint64_t id, int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user) {
    done.emplace_back(id, code);
    EXPECT_EQ(user, &done);
    const bool response = code == 0 && cmd == 9;
    EXPECT_EQ(std::string(static_cast<const char *>(data), len), response ? "yes" : "");
    if (const auto action = then) action(id);
}

class ExchangeExt : public EndpointWorld {
  protected:
    ExchangeExt() { done = {}, then = nullptr; }
    uint64_t start(tav_ipc_st *ipc, int kind, uint32_t timeout_ms = 1500, const char *name = "beta",
                   uint32_t size = 3) {
        const tav_addr_st dest = address(name, 2, 0x88);
        return errno = 0, tav_ipc_exchange_start(ipc, kind, &dest, 7, size == 3 ? "ask" : nullptr, size,
                                                 timeout_ms, on_done, &done);
    }
    void answer(tav_ipc_st *ipc, uint16_t flags, const std::string &payload) {
        Datagram reply{"", {}, payload};
        reply.header.flags = flags;
        reply.header.reqid = tavipc::last_reqid();
        reply.header.cmd = 9;
        receive(ipc, reply);
    }
};

TEST_F(ExchangeExt, SendsAndCompletesWithTheAnswer) {
    tav_ipc_st *ipc = open();
    const tav_addr_st dest = address("beta");
    const uint64_t request = start(ipc, TAV_IPC_EXCHANGE_REQUEST);
    answer(ipc, IPC_FLAG_RESPONSE, "yes");
    const uint64_t confirmed = start(ipc, TAV_IPC_EXCHANGE_CONFIRMED);
    for (int copy = 0; copy < 2; ++copy) answer(ipc, IPC_FLAG_ACK, bytes_of(1005));
    const uint64_t probe = start(ipc, TAV_IPC_EXCHANGE_PROBE);
    answer(ipc, IPC_FLAG_ACK, bytes_of(0));
    EXPECT_THAT(done, ElementsAre(Result{request, 0}, Result{confirmed, 1005}, Result{probe, 0}));
    EXPECT_EQ(ipc_req_manager_count(&ipc->req_mgr), 0u);
    EXPECT_EQ(tav_ipc_response2(ipc, &dest, 77, 9, "yes", 3), IPC_OK);
    EXPECT_EQ(tav_ipc_response2(ipc, &dest, 0, 9, "yes", 3), IPC_ERR_SENDTO);
    const std::tuple<int, std::string, uint32_t> expected[] = {{IPC_FLAG_REQUEST, "ask", 0x88},
                                                               {IPC_FLAG_NEED_ACK, "ask", 0x88},
                                                               {IPC_FLAG_PROBE | IPC_FLAG_NEED_ACK, "", 0},
                                                               {IPC_FLAG_RESPONSE, "yes", 0}};
    ASSERT_EQ(w.event.sends.size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(std::tuple(int{sent(i).header.flags}, sent(i).payload, uint32_t{sent(i).header.dest.flags}),
                  expected[i]);
}

TEST_F(ExchangeExt, TimesOutByTheMonotonicClock) {
    tav_ipc_st *ipc = open();
    const uint64_t later = start(ipc, TAV_IPC_EXCHANGE_CONFIRMED), soon = start(ipc, 0, 20);
    w.clock.wall_s += 3600;
    w.event.advance(1499); // a tick of the manager included
    EXPECT_THAT(done, ElementsAre(Result{soon, IPC_ERR_TIMEOUT}));
    then = [&](uint64_t id) { EXPECT_EQ(tav_ipc_exchange_cancel(ipc, id), -1) << "it is completing"; };
    w.event.advance(1);
    EXPECT_EQ(done.back(), Result(later, IPC_ERR_TIMEOUT));
    w.event.advance(5000);
    EXPECT_EQ(done.size(), 2u);
}

TEST_F(ExchangeExt, CancellationRunsTheCallbackOnce) {
    tav_ipc_st *ipc = open();
    const tav_addr_st dest = address("beta");
    const uint64_t id = start(ipc, TAV_IPC_EXCHANGE_REQUEST), other = start(ipc, 0);
    EXPECT_EQ(tav_ipc_exchange_cancel(ipc, id), 0);
    EXPECT_EQ(tav_ipc_exchange_cancel(ipc, id), -1);
    EXPECT_EQ(errno, ENOENT);
    tav_ipc_send2(ipc, &dest, 1, nullptr, 0, nullptr, nullptr, 1);
    EXPECT_EQ(tav_ipc_exchange_cancel(ipc, tavipc::last_reqid()), -1) << "not of this kind";
    then = [&](uint64_t) { close(ipc); };
    EXPECT_EQ(tav_ipc_exchange_cancel(ipc, other), 0);
    EXPECT_THAT(done, ElementsAre(Result{id, IPC_ERR_CANCELLED}, Result{other, IPC_ERR_CANCELLED}));
}

TEST_F(ExchangeExt, DestructionCompletesIt) {
    tav_ipc_st *ipc = open();
    const uint64_t id = start(ipc, TAV_IPC_EXCHANGE_PROBE);
    then = [&](uint64_t) {
        EXPECT_EQ(start(ipc, 0), 0u);
        EXPECT_EQ(errno, ESHUTDOWN);
    };
    close(ipc);
    EXPECT_THAT(done, ElementsAre(Result{id, IPC_ERR_CLOSED}));
}

TEST_F(ExchangeExt, WhatCannotBeginReportsTheReason) {
    tav_ipc_st *ipc = open();
    const auto reason = [&](auto... arguments) { return start(arguments...) == 0 ? errno : 0; };
    EXPECT_EQ(reason(nullptr, 0), EINVAL);
    EXPECT_EQ(reason(ipc, 3), EINVAL);
    EXPECT_EQ(reason(ipc, 0, 1, "a/b"), EINVAL);
    EXPECT_EQ(reason(ipc, 0, 1, "beta", TAV_IPC_MESSAGE_MAX + 1), EMSGSIZE);
    module(ipc)->sending_bytes = 64 << 20;
    EXPECT_EQ(reason(ipc, 0), ENOBUFS);
    module(ipc)->sending_bytes = 0;
    w.event.fail_timers = 1;
    EXPECT_EQ(reason(ipc, 0), ENOMEM);
    w.event.advance(5000);
    EXPECT_THAT(done, ElementsAre());
}

} // namespace
