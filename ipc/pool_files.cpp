// A process that is killed leaves its socket files behind. An endpoint's is replaced by the next of its name;
// those of sending sockets have the process id in their names, and would stay for ever.
//
// A stale file is removed by making the socket anew and closing it: of creation only that replaces a file
// whose owner is gone, under the lock of the directory, so that nobody's live socket can be hit, whatever
// happens between looking and removing.
#include "ipc/pool_files.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

#include <dirent.h>

#include "common/log.h"
#include "ipc/ipc_process.h"
#include "ipc/unix_socket.h"

namespace tavipc {
namespace {

constexpr uint64_t kLongest_ms = 5;

struct CloseDirectory {
    void operator()(DIR *directory) const { ::closedir(directory); }
};

// Whether the name is that of a sending socket of a process that is gone.
bool left_behind(const char *name) {
    char same[64];
    int pid = 0, number = 0;
    if (std::sscanf(name, "ipc%9d_%9d", &pid, &number) != 2 || pid <= 0) return false;
    pool_socket_name(same, sizeof same, pid, number);
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

} // namespace

void pool_socket_name(char *out, size_t size, pid_t pid, int number) {
    str_snprintf(out, static_cast<int>(size), "ipc%d_%d", static_cast<int>(pid), number);
}

void remove_stale_pool_files(int32_t location) noexcept {
    Relaxed<bool> &done = process_state().pool_files_swept;
    if (done) return;
    done = true;
    char directory[sizeof(sockaddr_un)];
    if (!socket_path(directory, sizeof directory, location, ".")) return;
    const std::unique_ptr<DIR, CloseDirectory> files(::opendir(directory));
    if (!files) return;
    const uint64_t end_ms = cl_event_loop_now() + kLongest_ms;
    uint32_t removed = 0;
    while (const dirent *file = ::readdir(files.get())) {
        if (cl_event_loop_now() > end_ms) break;
        removed += left_behind(file->d_name) && remove_stale(location, file->d_name);
    }
    if (removed > 0) TAV_LOG(4, "ipc_queue", "removed %u stale socket files in %s", removed, directory);
}

} // namespace tavipc
