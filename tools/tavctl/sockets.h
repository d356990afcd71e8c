// Socket files: what is behind one, and all of them on this machine.
#pragma once

#include <string>

namespace tavctl {

enum class SocketState {
    kMissing,
    kLive,      // a process has it open
    kStale,     // the file of a process that is gone
    kForbidden, // this user may not connect to it: live or stale, nobody can tell
    kNoSocket   // a file of another kind
};
SocketState probe_socket(const std::string &path);

} // namespace tavctl
