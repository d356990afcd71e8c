// Exchanges: requests, confirmed messages and probes, which all wait for an answer.
//
// An outstanding exchange is a record in the endpoint's request manager under its message id. It completes
// exactly once: with its answer, its time-out, the end of the endpoint, or because a new exchange took over
// its id. The callback may do anything, so the record leaves the manager before the call.
//
// An exchange whose message could not be sent never enters the table. One of tav_ipc.h then completes from a
// timer of 1 ms that does not refer to the endpoint. One of tav_ipc_ext.h (ipc_start_exchange) fails with
// errno, and its callback does not run.
#pragma once

#include <cstdint>

#include "ipc/endpoint.h"
#include "tavipc/tav_ipc_ext.h"

namespace tavipc {

// The message of an exchange and the time to wait for the answer.
struct Exchange {
    const tav_addr_st *dest;
    uint32_t cmd;
    const void *data;
    uint32_t len; // bytes
    uint16_t flags;
    int32_t timeout_s;
};

// Starts an exchange that the peer's library acknowledges (adds IPC_FLAG_NEED_ACK). The callback (may be
// null) never runs inside this call.
void ipc_send_with_ack(tav_ipc_st *ipc, Exchange exchange, tav_ipc_status_cb callback, void *user);

// Starts an exchange with a timer of its own, in milliseconds; timeout_s is not used. Returns its id for
// tav_ipc_exchange_cancel; 0 with errno ENOBUFS, ENOMEM or ESHUTDOWN, and the callback (may be null) never
// runs. It never runs inside this call either.
struct TimedExchange {
    Exchange message;
    uint32_t timeout_ms;
    bool waits_for_peer; // else it ends with IPC_ERR_NO_PEER when no endpoint is at its destination
};
uint64_t ipc_start_exchange(tav_ipc_st *ipc, const TimedExchange &exchange, tav_ipc_exchange_cb callback,
                            void *user);

// No endpoint is at the destination of a datagram that this endpoint sent: what the exchange wants that the
// datagram belongs to. One that does not wait for its peer ends on the next turn of the loop. Reaches no user
// code.
enum class WithoutPeer { kNoExchange, kGivesUp, kWaits };
WithoutPeer exchange_without_peer(tav_ipc_st *ipc, const tav_ipc_hdr_st &header);

// An answer arrived. Ignored if no exchange is outstanding under the id. The callback may destroy the
// endpoint.
void ipc_complete_request(tav_ipc_st *ipc, uint32_t reqid, int32_t code, uint32_t cmd, const void *data,
                          uint32_t len);

// Sets up the endpoint's request manager with its clock (the seconds of the wall clock, in ms). False if
// memory is short.
[[nodiscard]] bool open_requests(tav_ipc_st *ipc);

// Completes all outstanding exchanges with IPC_ERR_CLOSED and releases the manager. The endpoint is already
// marked as closed.
void close_requests(tav_ipc_st *ipc);

} // namespace tavipc
