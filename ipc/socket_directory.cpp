// Paths are composed without printf: the send path needs one for each new destination.
//
// A killed process leaves its socket files behind. The next endpoint of the same name replaces an endpoint's
// file. The names of sending sockets contain the process id, so no later endpoint would replace their files.
// Such a stale file is removed by binding a new socket at its path and closing it: the event library replaces
// only a file whose owner is gone, under the directory's lock, so a live socket is never removed, whatever
// happens between the look and the removal. Files of counters are left behind, too; stats_file knows the
// stale ones.
#include "ipc/socket_directory.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <string_view>
#include <sys/socket.h>

#include "common/facts.h"
#include "common/keep_errno.h"
#include "common/log.h"
#include "common/relaxed.h"
#include "common/unique_fd.h"
#include "ipc/stats_file.h"
#include "ipc/wire.h"
#include "tavaux.h"
#include "tavipc/ipc_queue.h"

namespace tavipc {
namespace {

constexpr size_t kPathSize = 4096;       // bytes of a path in a log line; an address holds 107 of them
constexpr uint64_t kLongestSweep_ms = 5; // of a start-up that removes stale files

constinit Relaxed<bool> stale_files_removed = false;

class PathWriter {
  public:
    PathWriter(char *out, size_t size) : at_(out), left_(size) {}

    void append(std::string_view text) {
        const size_t n = std::min(text.size(), left_ - 1);
        complete_ = complete_ && n == text.size();
        std::memcpy(at_, text.data(), n);
        at_ += n;
        left_ -= n;
    }
    void append(int32_t number) {
        char digits[12];
        append(std::string_view(digits, std::to_chars(digits, digits + sizeof digits, number).ptr - digits));
    }
    void append_directory(int32_t location) {
        append(kSocketRoot);
        if (const char *type = GetDeployTypeStr()) {
            append(type);
            append("/");
        }
        append(kSocketDirectory);
        append(location);
        append("/");
    }
    bool finish() {
        *at_ = '\0';
        return complete_;
    }

  private:
    char *at_;
    size_t left_; // bytes, with the terminator's, so never 0
    bool complete_ = true;
};

struct CloseDirectory {
    void operator()(DIR *directory) const { ::closedir(directory); }
};

// Removes the file if it is one of counters whose process is gone.
bool remove_stale_counters(int32_t location, const char *name) {
    char same[64], path[sizeof(sockaddr_un)];
    int pid = 0;
    if (std::sscanf(name, "ipc%9d.stats", &pid) != 1 || pid <= 0) return false;
    stats_file_name(same, sizeof same, pid);
    return std::strcmp(name, same) == 0 && socket_path(path, sizeof path, location, name) &&
           remove_stale_stats(path);
}

// Whether the name is that of a sending socket of a process that is gone.
bool left_behind(const char *name) {
    char same[64];
    int pid = 0, number = 0;
    if (std::sscanf(name, "ipc%9d_%9d", &pid, &number) != 2 || pid <= 0) return false;
    sending_socket_name(same, sizeof same, pid, number);
    return std::strcmp(name, same) == 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
}

bool remove_stale(int32_t location, const char *name) {
    char path[sizeof(sockaddr_un)];
    cl_sockaddr_t address;
    if (!socket_path(path, sizeof path, location, name) || cl_sockaddr_un_init(&address, path) != 0)
        return false;
    const cl_dunix_t socket = cl_dunix_create(&address, nullptr, nullptr);
    if (socket) cl_dunix_close(socket, nullptr, nullptr);
    return socket != 0;
}

// Binds a socket at the name's path, which is written to path. Returns 0 with errno set on failure.
cl_dunix_t bind_socket(int32_t location, const char *name, char (&path)[kPathSize]) {
    cl_sockaddr_t address;
    if (!socket_path(path, sizeof path, location, name)) {
        errno = EINVAL;
        return 0;
    }
    if (cl_sockaddr_un_init(&address, path) != 0) {
        errno = ENAMETOOLONG;
        return 0;
    }
    return cl_dunix_create(&address, nullptr, nullptr);
}

} // namespace

bool directory_path(char *out, size_t size, int32_t location) {
    PathWriter path(out, size);
    path.append_directory(location);
    return path.finish();
}

bool socket_path(char *out, size_t size, int32_t location, const char *name) {
    if (!out || size == 0) return false;
    PathWriter path(out, size);
    path.append_directory(location);
    if (name) path.append(name);
    return path.finish() && name && is_file_name(name);
}

void sending_socket_name(char *out, size_t size, pid_t pid, int number) {
    str_snprintf(out, static_cast<int>(size), "ipc%d_%d", static_cast<int>(pid), number);
}

void stats_file_name(char *out, size_t size, pid_t pid) {
    str_snprintf(out, static_cast<int>(size), "ipc%d.stats", static_cast<int>(pid));
}

Presence look_for_peer(int32_t location, const char *name) noexcept {
    char path[sizeof(sockaddr_un)];
    cl_sockaddr_t address;
    if (!socket_path(path, sizeof path, location, name) || cl_sockaddr_un_init(&address, path) != 0)
        return Presence::kAbsent;
    const KeepErrno keep;
    const UniqueFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!probe) return Presence::kUnknown;
    // A live socket whose queue is full accepts the connection, too.
    const auto *peer = reinterpret_cast<const sockaddr *>(&address.addr);
    if (::connect(probe.get(), peer, address.len) == 0) return Presence::kPresent;
    return errno == ENOMEM || errno == ENOBUFS || errno == EINTR ? Presence::kUnknown : Presence::kAbsent;
}

void remove_stale_socket_files(int32_t location) noexcept {
    if (stale_files_removed) return;
    stale_files_removed = true;
    char directory[sizeof(sockaddr_un)];
    if (!directory_path(directory, sizeof directory, location)) return;
    const std::unique_ptr<DIR, CloseDirectory> files(::opendir(directory));
    if (!files) return;
    const uint64_t end_ms = cl_event_loop_now() + kLongestSweep_ms;
    uint32_t removed = 0;
    while (const dirent *file = ::readdir(files.get())) {
        if (cl_event_loop_now() > end_ms) break;
        removed += left_behind(file->d_name) ? remove_stale(location, file->d_name)
                                             : remove_stale_counters(location, file->d_name);
    }
    if (removed > 0) TAV_LOG(4, "ipc_queue", "removed %u stale socket files in %s", removed, directory);
}

void reset_socket_directory() { stale_files_removed = false; }

} // namespace tavipc

extern "C" {

cl_dunix_t create_unix_socket(int32_t location, const char *name) noexcept {
    char path[tavipc::kPathSize];
    const cl_dunix_t socket = tavipc::bind_socket(location, name, path);
    const tavipc::KeepErrno keep;
    if (socket)
        TAV_LOG(4, "ipc_queue", "success to create ipc retry socket: %s", path);
    else
        TAV_LOG_LIMITED(2, "ipc_queue", "fail to create ipc retry socket: %s", path);
    return socket;
}

void destroy_unix_socket(cl_dunix_t socket) noexcept {
    if (socket) cl_dunix_close(socket, nullptr, nullptr);
}

} // extern "C"
