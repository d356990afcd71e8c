// The watches of an endpoint for its peers (tav_ipc_watch.h).
//
// A pass compares each watched name with what is there now, and calls back about what has changed. The
// directory_watch starts a pass at once when a watched name has changed; a timer starts one a second later,
// because the death of a process leaves no event. A socket is another one when its file is (inode and time of
// birth), or when the directory_watch has seen the file go: a file system may use the inode again, and its
// times have steps of milliseconds.
#pragma once

#include "ipc/endpoint.h"

namespace tavipc {

// Ends all watches of the endpoint.
void close_peer_watches(tav_ipc_st *ipc) noexcept;

} // namespace tavipc
