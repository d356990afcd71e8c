// Open sockets and the processes that have them, from /proc.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include <sys/types.h>

namespace tavctl {

struct SocketFile;

// The number that is the whole text, or -1.
long number_of(std::string_view text);
std::string user_name(uid_t user); // or the number

// Path -> the system's number of the datagram socket that is bound to it, in this network namespace; 0 where
// that is ambiguous. The table's lines hold whatever path a process has chosen, line ends included: what it
// claims twice counts for nothing.
using Inodes = std::unordered_map<std::string, uint64_t>;
Inodes open_sockets();

// Fills in process, executable and user of each file whose socket has the number: one pass over /proc.
void find_processes(const std::unordered_map<uint64_t, SocketFile *> &wanted);

} // namespace tavctl
