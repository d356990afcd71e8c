// The socket directory of a location: the paths in it, sockets that are bound there, and the files that
// killed processes left there.
//
// The directory is "/var/zon_ipc<location>", or "/var/<type>/zon_ipc<location>" with a deployment type. An
// endpoint's socket file has the endpoint's name. The sockets that an endpoint sends through are named
// "ipc<pid>_<number>", the file of a process's counters "ipc<pid>.stats".
#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

namespace tavipc {

// Composes the path of a socket file in out. Returns false when the name cannot be a file name (see
// is_file_name) or the path does not fit into size bytes; out then still holds a terminated text for a log
// line.
bool socket_path(char *out, size_t size, int32_t location, const char *name);

// The name of the number-th sending socket of a process.
void sending_socket_name(char *out, size_t size, pid_t pid, int number);

// The name of the file of a process's counters.
void stats_file_name(char *out, size_t size, pid_t pid);

// Removes the files of sending sockets whose process is gone and whose socket refuses connections, and the
// files of counters whose process is gone. Runs once
// in a process and stops after 5 ms (0.2 s when another process holds the directory's lock). Later processes
// remove what it leaves.
void remove_stale_socket_files(int32_t location) noexcept;

// For tests: the next call of remove_stale_socket_files does its work again.
void reset_socket_directory();

} // namespace tavipc
