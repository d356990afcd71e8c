// Hands datagrams to the event library, settles the sends that have left, and retries the datagrams
// that a destination refused.
//
// A datagram for which nothing has to wait leaves inside submit, out of the caller's memory, and is done
// then. Every other one becomes a record.
//
// A record (ipc_queue_msg_st) has one owner at a time: the frame that works on it; the queue, while it waits;
// or the event library, during an attempt (send_context.h). The completion releases the record or puts it
// back into the queue, up to a limit of attempts.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc/destination.h"
#include "ipc/endpoint.h"

namespace tavipc {

class FragmentBlock;

// Bytes that may be in flight to one destination.
inline constexpr uint32_t kLargeClassBytes = 64u << 20; // control traffic and priority 7 or more
inline constexpr uint32_t kSmallClassBytes = 32u << 20; // everything else

inline uint32_t in_flight_class(bool control, uint32_t priority) {
    return control || get_real_priority(static_cast<int32_t>(priority)) >= 7 ? kLargeClassBytes
                                                                             : kSmallClassBytes;
}

// Where a datagram goes, and what all fragments of its message share. The caller pins the endpoint, whose
// queue is alive, and the destination.
struct Route {
    tav_ipc_st *ipc;
    Destination *to;
    const cl_sockaddr_t *address;
    uint32_t priority;
    uint64_t now_ms;      // loop clock
    FragmentBlock *block; // gives the memory for the datagram; null: the record has it inline
};

// Sends a datagram of header, with its check value set, and header.size bytes of payload (null: zeros), or
// queues it behind traffic that waits. What has not left in this call is copied. Returns -101 when no record
// could be made, else 0: the datagram was sent, queued, or dropped. It is dropped when the queue has no
// memory for it, with a log line; or when the sink of a log line destroyed the endpoint. Can reach user code.
[[nodiscard]] int submit(const Route &route, const tav_ipc_hdr_st &header, const void *payload);

// The queue's consume callback: sends a record that is due.
int consume_queued(uint64_t now_ms, ipc_queue_msg_st *msg);

// Of sends that have left: about four large datagrams, so they stay in the cache.
inline constexpr size_t kHeldBytes = size_t{256} * 1024;

// Settles those of this thread's sends that have left, when they hold at least that many bytes, so a sender
// that does not let the loop run fills memory that is still in the cache. A send that failed counts as in
// flight until the loop runs: else a sender to a missing peer would fill the queue and never be refused.
// Settling writes log lines, and the sink of a log line may send, settle other sends, and destroy any
// endpoint. It may also release every destination that is idle. So a frame that holds an endpoint or a
// destination across this call, or across any log line, pins it (EndpointPin, DestinationPin), and looks at
// the endpoint's queue before it goes on.
void settle_sent(size_t held_bytes);

} // namespace tavipc
