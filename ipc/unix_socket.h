// Socket files: where an endpoint's socket lies, and sockets bound there.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavipc {

// Composes the path of a socket: "/var/zon_ipc<location>/<name>", or with a deployment type
// "/var/<type>/zon_ipc<location>/<name>". False when name is null or empty, holds a "/" (it would leave the
// directory) or the path was cut to size bytes; out then still holds a terminated text for a log line.
bool socket_path(char *out, size_t size, int32_t location, const char *name);

} // namespace tavipc
