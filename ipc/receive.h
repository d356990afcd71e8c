// From a datagram to the endpoint's callbacks: validates, reassembles, restores compressed payloads and
// dispatches. Datagrams come from any local process: length and check value are tested here, every other
// field may hold anything.
#pragma once

#include "tavcl_ev.h"

namespace tavipc {

// The library's datagram handler; context is the endpoint.
void ipc_on_recv(cl_dunix_t socket, const void *data, uint32_t len, const cl_sockaddr_t *from, int status,
                 void *context);

} // namespace tavipc
