// Socket files: whether a process has one open, and all of them on this machine.
#pragma once

#include "cli/cli.h"

namespace tavctl {

std::string user_name(uid_t user); // or the number

enum class SocketState {
    kMissing,
    kLive,      // a process has it open
    kStale,     // its process is gone
    kForbidden, // this user may not connect to it, so it is not known whether it is live
    kNoSocket   // a file of another kind
};
SocketState probe_socket(const std::string &path);

struct SocketFile {
    std::string name;
    SocketState state = SocketState::kMissing;
    dev_t device = 0;
    ino_t inode = 0;
    uid_t owner = 0;
    time_t made = 0;
    pid_t sender = 0;       // of a sending socket, "ipc<process>_<number>": the process in its name; else 0
    pid_t process = 0;      // that has it open; 0: not known
    std::string executable; // of that process; empty: not known
    std::string user;       // of that process, or else the owner of the file
    std::optional<uint64_t> waiting; // datagrams that its endpoint has yet to send; empty: not known
};

struct SocketDirectory {
    std::string path;
    int location = 0;
    bool own = false;   // of the tool's own deployment type: the tool reaches its endpoints
    bool named = false; // own, or of a deployment type that was given
    std::string error;  // why it could not be read
    size_t strange = 0; // files that are not sockets
    std::vector<SocketFile> sockets;

    size_t count(SocketState state) const;
};

struct Scan {
    std::vector<SocketDirectory> directories;
    bool incomplete = false; // the process of some sockets is not visible to this one
};

// The directories of the tool's own deployment type, of none and of these types.
Scan scan_known(const std::vector<std::string> &deploy_types);
// Also all others below /var that have an open socket, and the processes.
Scan scan_everything(const std::vector<std::string> &deploy_types);
// The same directories, without a look at what they contain.
std::vector<SocketDirectory> find_directories(const std::vector<std::string> &deploy_types);

// Removes a file that a scan found stale, if it still is the same and stale, under the lock that an endpoint
// takes to replace it. Returns 0, ENOENT when it has gone or is in use again, or another errno.
int remove_stale(const std::string &directory, const SocketFile &file);

} // namespace tavctl
