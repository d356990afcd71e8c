// Exchanges: requests, confirmed messages and probes, which all wait for an answer.
//
// An outstanding exchange is a record in the endpoint's request manager under its message id. It completes
// exactly once: with its answer, its time-out, the end of the endpoint, or because a new exchange took over
// its id. The callback may do anything, so the record is marked as finished before the call and only
// looked up again after it. An exchange whose message could not be sent never enters the table: it completes
// from a timer of 1 ms that does not refer to the endpoint.
#pragma once

#include <cstdint>

#include "ipc/endpoint.h"

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
