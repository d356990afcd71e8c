// The attempts of an endpoint to send records: one SendContext for each, from cl_dunix_sendto2 to its
// completion. It links the record, its destination and its endpoint, and counts the record's bytes in flight.
// Destroying the endpoint cuts the links; the late completion of such an orphan only releases the record.
#pragma once

#include <cstdint>

#include "ipc/destination.h"
#include "ipc/endpoint.h"

namespace tavipc {

struct SendContext {
    tav_ipc_st *ipc; // null: an orphan
    ipc_queue_msg_st *msg;
    Destination *to;
    uint32_t size;      // bytes that are counted in flight
    SendContext *next;  // of the endpoint's in_flight or spare_contexts
    SendContext **link; // what points at this one in in_flight; null: not in it
};

// Begins an attempt: counts it and links it. Null when memory is short.
[[nodiscard]] SendContext *begin_attempt(ipc_queue_msg_st &msg, Destination &to);
// The opposite. The context is gone then.
void end_attempt(SendContext *context);
// Ends all attempts of the endpoint, whose completions then only release their records.
void abandon_in_flight(tav_ipc_st *ipc);

} // namespace tavipc
