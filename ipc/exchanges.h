// Exchanges that expect an answer: requests, confirmed messages, probes.
//
// An outstanding exchange is a record in the endpoint's request manager under its message's id. It leaves by
// exactly one of: its answer, its time-out, the endpoint's destruction. Its callback may do anything, so the
// record is marked finished (callback cleared) before the call, is not touched after it, and a finished
// record that is still in the table is skipped. An exchange whose message could not be sent never enters the
// table: it completes from a 1 ms timer that does not refer to the endpoint.
#pragma once

#include <cstdint>

#include "ipc/endpoint.h"

namespace tavipc {

// What is sent, whom it is for, and until when an answer is waited for.
struct Exchange {
    const tav_addr_st *dest;
    uint32_t cmd;
    const void *data;
    uint32_t len;
    uint16_t flags;
    int32_t timeout_s;
};

// Starts an exchange that the peer's library confirms (IPC_FLAG_NEED_ACK is added).
void ipc_send_with_ack(tav_ipc_st *ipc, Exchange exchange, tav_ipc_status_cb callback, void *user);

// An answer came. Ignored when nothing is outstanding under the id. May end the endpoint.
void ipc_complete_request(tav_ipc_st *ipc, uint32_t reqid, int32_t code, uint32_t cmd, const void *data,
                          uint32_t len);

// The endpoint's request manager with its clock (whole seconds of the wall clock, in ms) and time-outs.
[[nodiscard]] bool open_requests(tav_ipc_st *ipc);

// Completes everything outstanding with IPC_ERR_CLOSED and releases the manager. The endpoint is marked
// closed.
void close_requests(tav_ipc_st *ipc);

} // namespace tavipc
