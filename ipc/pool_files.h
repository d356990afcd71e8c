// The socket files of the sending sockets: their names, and what is left of them by processes that were
// killed.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

namespace tavipc {

// The name of the number-th sending socket of a process.
void pool_socket_name(char *out, size_t size, pid_t pid, int number);

// Removes such files of a location whose process is gone and whose socket refuses connections. Takes 5
// milliseconds (0.2 s where the lock of the directory is held), and only the first time in a process: what it
// does not come to is the next one's.
void remove_stale_pool_files(int32_t location) noexcept;

} // namespace tavipc
