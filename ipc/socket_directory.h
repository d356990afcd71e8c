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

// Composes the path of the directory, with a slash at its end, in out. Returns false when it does not fit.
bool directory_path(char *out, size_t size, int32_t location);

// Composes the path of a socket file in out. Returns false when the name cannot be a file name (see
// is_file_name) or the path does not fit into size bytes; out then still holds a terminated text for a log
// line.
bool socket_path(char *out, size_t size, int32_t location, const char *name);

// The name of the number-th sending socket of a process.
void sending_socket_name(char *out, size_t size, pid_t pid, int number);

// The name of the file of a process's counters.
void stats_file_name(char *out, size_t size, pid_t pid);

// Whether somebody has a socket bound at the name: a killed process leaves its file, which refuses
// connections. Takes about 5 us. Absent also for a name that is no file name, and for a socket that this user
// may not send to. Unknown when descriptors or memory are short.
enum class Presence { kAbsent, kPresent, kUnknown };
Presence look_for_peer(int32_t location, const char *name) noexcept;
inline bool peer_is_present(int32_t location, const char *name) noexcept {
    return look_for_peer(location, name) != Presence::kAbsent;
}

// Removes the files of sending sockets whose process is gone and whose socket refuses connections, and the
// files of counters whose process is gone. Runs once in a process and stops after 5 ms (0.2 s when another
// process holds the directory's lock). Later processes remove what it leaves.
void remove_stale_socket_files(int32_t location) noexcept;

// For tests: the next call of remove_stale_socket_files does its work again.
void reset_socket_directory();

} // namespace tavipc
