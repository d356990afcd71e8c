// A stale file is replaced in three steps: probe, remove, bind. When two processes do so at once, the slower
// one must not remove the file that the faster one has bound. Both therefore lock the directory meanwhile.
// Binding a free path needs no lock, because bind refuses a path that is taken.
#include "socket_file.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "common/facts.h"

namespace tavcl_ev {

namespace {

using tavipc::kLongestSocketPath;
using tavipc::UniqueFd;

const sockaddr *generic(const cl_sockaddr_t &address) {
    return reinterpret_cast<const sockaddr *>(&address.addr);
}

bool bind_to(int fd, const cl_sockaddr_t &address) { return bind(fd, generic(address), address.len) == 0; }

// Returns 0, or the errno of the first directory that could not be made.
int make_directories(const char *path) {
    int error = 0;
    char directory[kLongestSocketPath + 1];
    strcpy(directory, path);
    for (char *slash = strchr(directory + 1, '/'); slash; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        if (mkdir(directory, 0755) != 0 && errno != EEXIST && error == 0) error = errno;
        *slash = '/';
    }
    return error;
}

// Locks the directory of path. Returns it without the lock when another process holds that for too long.
PrivateFd lock_directory(const char *path) {
    char directory[kLongestSocketPath + 1];
    strcpy(directory, path);
    char *slash = strrchr(directory, '/');
    if (slash) slash[slash == directory ? 1 : 0] = '\0';
    PrivateFd fd = PrivateFd::of(
        [&] { return UniqueFd(open(slash ? directory : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)); });
    for (int tries = 0; fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && tries < tavipc::kDirectoryLockTries;
         ++tries)
        usleep(tavipc::kDirectoryLockPause_us);
    return fd;
}

// Only a refused connection proves that no process has the socket open. A live socket whose queue is full
// accepts the connection.
bool is_stale(int probe, const cl_sockaddr_t &address) {
    return connect(probe, generic(address), address.len) != 0 && errno == ECONNREFUSED;
}

bool replace_stale(int fd, const cl_sockaddr_t &address) {
    const char *path = address.addr.sun_path;
    const PrivateFd lock = lock_directory(path);
    const UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!probe) return false; // with its errno: whether another process has the path is not known
    const FileIdentity found = identify_socket(path, false);
    if (found != FileIdentity{} && is_stale(probe.get(), address) && identify_socket(path, false) == found)
        unlink(path);
    return bind_to(fd, address);
}

bool bind_or_replace(int fd, const cl_sockaddr_t &address) {
    if (bind_to(fd, address)) return true;
    if (errno == ENOENT) {
        const int error = make_directories(address.addr.sun_path);
        if (bind_to(fd, address)) return true;
        if (errno == ENOENT && error != 0) errno = error; // why the directory is missing
    }
    return errno == EADDRINUSE && replace_stale(fd, address);
}

} // namespace

FileIdentity identify_socket(const char *path, bool follow_links) noexcept {
    struct stat found {};
    if (fstatat(AT_FDCWD, path, &found, follow_links ? 0 : AT_SYMLINK_NOFOLLOW) != 0) return {};
    if (S_ISSOCK(found.st_mode)) return {found.st_dev, found.st_ino};
    errno = ENOTSOCK;
    return {};
}

bool fill_address(cl_sockaddr_t *address, const char *path) noexcept {
    *address = {};
    const size_t length = strnlen(path, kLongestSocketPath + 1);
    if (length == 0 || length > kLongestSocketPath) return false;
    address->addr.sun_family = AF_UNIX;
    memcpy(address->addr.sun_path, path, length);
    address->len = static_cast<uint16_t>(offsetof(sockaddr_un, sun_path) + length + 1);
    return true;
}

PrivateFd make_datagram_socket() noexcept {
    PrivateFd fd =
        PrivateFd::of([] { return UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)); });
    if (fd) set_send_buffer(fd.get(), tavipc::kSendBuffer);
    return fd;
}

void set_send_buffer(int fd, int bytes) noexcept {
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

BoundSocket BoundSocket::make(const cl_sockaddr_t &address) noexcept {
    BoundSocket made;
    const size_t length = strnlen(address.addr.sun_path, sizeof address.addr.sun_path);
    if (address.addr.sun_family != AF_UNIX || length == 0 || length > kLongestSocketPath ||
        address.addr.sun_path[length - 1] == '/') {
        errno = EINVAL;
        return made;
    }
    fill_address(&made.address_, address.addr.sun_path);
    PrivateFd fd = make_datagram_socket();
    if (!fd || !bind_or_replace(fd.get(), made.address_)) return made;
    made.file_ = identify_socket(made.address_.addr.sun_path, false);
    if (made.file_ != FileIdentity{}) {
        made.fd_ = std::move(fd);
    } else if (const int error = errno; error != ENOTSOCK) { // else the path is another's by now
        unlink(made.address_.addr.sun_path);
        errno = error;
    }
    return made;
}

// The file system does not give the inode number to another file while the socket is open.
void BoundSocket::remove() noexcept {
    if (!fd_) return;
    const char *path = address_.addr.sun_path;
    if (identify_socket(path, false) == file_) unlink(path);
    fd_.reset();
}

} // namespace tavcl_ev
