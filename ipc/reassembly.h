// Puts the fragments of large messages back together.
//
// Each endpoint has a table of fragment sets, made on the first fragment. A set is keyed by the two host ids
// and the fragment group id, holds one buffer of header and whole payload, and counts payload bytes: it is
// complete when the count reaches the message's size. Which pieces arrived is not tracked. A set that no
// fragment has been added to for more than 10 seconds is dropped by a sweep that visits a sixtieth of the
// table each second.
//
// A peer may claim any size: the buffer is never larger than the 1,024 fragments that can be placed, and
// comes zeroed from untouched pages, so that a claim costs nothing until it is filled and holes show no old
// memory.
#pragma once

#include "ipc/endpoint.h"

namespace tavipc {

// Adds one fragment (header with the fragment bit, header.size payload bytes). When it completes its message,
// returns the buffer with the rebuilt header and the payload; else null.
[[nodiscard]] MallocPtr<unsigned char> add_fragment(tav_ipc_st *ipc, const tav_ipc_hdr_st &header,
                                                    const unsigned char *payload);

// Drops every set of the endpoint and stops the sweep.
void release_fragments(tav_ipc_st *ipc);

} // namespace tavipc
