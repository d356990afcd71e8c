// Puts the fragments of large messages back together.
//
// Each endpoint gets its fragment sets and their buffers with the first fragment. A set counts payload bytes
// and is complete when the count reaches the size of the message. A repeated fragment counts, too: the one
// that is missing then reads as zeros. A sweep visits a sixtieth of the sets each second and drops those that
// have had no fragment for more than ten seconds.
//
// A peer may claim any size and need not finish. All unfinished messages of an endpoint, with the spare
// buffers, keep at most 512 MiB resident. Over that bound, or when memory is short, spares are released
// first; then sets that have stalled are evicted, then the newest. So the oldest message that still gets
// fragments is completed, whatever begins after it.
#pragma once

#include <optional>

#include "ipc/endpoint.h"
#include "ipc/reassembly_buffers.h"

namespace tavipc {

struct RebuiltMessage {
    tav_ipc_hdr_st header;
    ReassemblyBuffer payload; // header.size bytes
};

// Adds one fragment (header with the fragment bit, header.size payload bytes). Returns the message if the
// fragment completes it. May log: the endpoint may be closed afterwards.
[[nodiscard]] std::optional<RebuiltMessage> add_fragment(tav_ipc_st *ipc, const tav_ipc_hdr_st &header,
                                                         const unsigned char *payload);

// Gives the buffer of a message back that was delivered. The endpoint may be closed.
void give_back(tav_ipc_st *ipc, ReassemblyBuffer payload);

// Drops every set of the endpoint and every spare, and stops the sweep.
void release_fragments(tav_ipc_st *ipc);

// What the endpoint's unfinished messages and spares keep resident, in bytes; an upper bound.
size_t reassembly_bytes(const tav_ipc_st *ipc);

} // namespace tavipc
