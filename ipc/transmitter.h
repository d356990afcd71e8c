// Hands datagrams to the event library, settles what it reports, and retries what a peer refused.
//
// A queue record (ipc_queue_msg_st) is owned by exactly one of: the frame that works on it; the queue,
// while it waits; the event library, during an attempt (SendContext). A completion releases it or puts it
// back, up to a limit of attempts. A context is linked into its endpoint: destruction cuts the links, and the
// late completion of such an orphan just releases the record.
#pragma once

#include <cstdint>

#include "ipc/endpoint.h"
#include "tavipc/ipc_queue.h"

namespace tavipc {

// Bytes that may be in flight to one destination.
inline constexpr uint32_t kLargeClassBytes = 64u << 20; // control traffic and priority 7 or more
inline constexpr uint32_t kSmallClassBytes = 32u << 20;

inline uint32_t in_flight_class(bool control, uint32_t priority) {
    return control || get_real_priority(static_cast<int32_t>(priority)) >= 7 ? kLargeClassBytes
                                                                             : kSmallClassBytes;
}

// Where a datagram goes and what all fragments of its message share.
struct Route {
    tav_ipc_st *ipc;
    mod_info_st *mod;
    const cl_sockaddr_t *dest;
    uint32_t priority;
    uint64_t now_ms; // loop clock
};

// Stamps the check value and sends the datagram, or queues it behind waiting traffic. submit_copy copies
// header and header.size payload bytes (payload null: zeros) into a record; submit_buffer takes over a
// datagram whose payload stands ready behind room for the header, and which release gives up. 0: sent,
// queued, or dropped with a log line; -101: no record could be made, and the buffer stays the caller's.
[[nodiscard]] int submit_copy(const Route &route, const tav_ipc_hdr_st &header, const void *payload);
[[nodiscard]] int submit_buffer(const Route &route, const tav_ipc_hdr_st &header, void *datagram,
                                void (*release)(void *datagram, uint32_t size));

// The queue's consume callback: sends a record whose time has come.
int consume_queued(uint64_t now_ms, ipc_queue_msg_st *msg);

// Completions that wait hold records: those of a sender that does not let the loop run are settled here, so
// that the memory which it fills next is still in the cache.
void settle_sent();

// Cuts every pending completion of the endpoint loose from it.
void orphan_in_flight(tav_ipc_st *ipc);

} // namespace tavipc
