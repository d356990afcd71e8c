// Puts the fragments of large messages back together.
//
// Each endpoint has a table of fragment sets, made on the first fragment. A set is keyed by the two host ids
// and the fragment group id, holds one buffer of header and whole payload, and counts payload bytes: it is
// complete when the count reaches the message's size. A repeated piece counts, too: a piece that is missing
// then reads as zeros. A set that no fragment has been added to for more than 10 seconds is dropped by a
// sweep that visits a sixtieth of the table each second.
//
// A peer may claim any size: the buffer comes from untouched pages, so that a claim costs nothing until it is
// filled, and what claims more than its 1,024 fragments can fill gets none. All unfinished messages of an
// endpoint hold 512 MiB at most; those that waited longest for a fragment make room. One large buffer that
// has served is kept for ten seconds for the next message, since most of the cost of a fresh one is its page
// faults.
#pragma once

#include "ipc/endpoint.h"

namespace tavipc {

struct Rebuilt {
    MallocPtr<unsigned char> buffer; // the rebuilt header and the payload; null: not complete yet
    size_t size = 0;                 // of the buffer, which may be larger than the message
};

// Adds one fragment (header with the fragment bit, header.size payload bytes).
[[nodiscard]] Rebuilt add_fragment(tav_ipc_st *ipc, const tav_ipc_hdr_st &header,
                                   const unsigned char *payload);

// Gives a buffer back that its message has been read from.
void keep_spare(tav_ipc_st *ipc, Rebuilt used);

// Drops every set of the endpoint and the spare buffer, and stops the sweep.
void release_fragments(tav_ipc_st *ipc);

} // namespace tavipc
