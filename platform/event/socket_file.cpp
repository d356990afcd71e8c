// Replacing a stale file is probe, remove, bind: of two processes that do so at once the slower must not
// remove what the quicker has bound. Both hold a lock on the directory meanwhile; who binds a free path needs
// none, because bind itself refuses a path that is taken.
#include "socket_file.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace tavcl_ev {

namespace {

using tavipc::kLongestSocketPath;

const sockaddr *generic(const cl_sockaddr_t &address) {
    return reinterpret_cast<const sockaddr *>(&address.addr);
}

bool bind_to(int fd, const cl_sockaddr_t &address) { return bind(fd, generic(address), address.len) == 0; }

void make_directories(const char *path) {
    char directory[kLongestSocketPath + 1];
    strcpy(directory, path);
    for (char *slash = strchr(directory + 1, '/'); slash; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        mkdir(directory, 0755); // a failure shows when the socket is bound
        *slash = '/';
    }
}

// The directory of path, locked; without the lock when it cannot be had in good time.
UniqueFd lock_directory(const char *path) {
    char directory[kLongestSocketPath + 1];
    strcpy(directory, path);
    char *slash = strrchr(directory, '/');
    if (slash) slash[slash == directory ? 1 : 0] = '\0';
    UniqueFd fd(open(slash ? directory : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int tries = 0; fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && tries < tavipc::kDirectoryLockTries; ++tries)
        usleep(tavipc::kDirectoryLockPause_us);
    return fd;
}

// Only a refused connection proves that nobody has the socket; a live one that is full connects.
bool is_stale(const cl_sockaddr_t &address) {
    const UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return probe && connect(probe.get(), generic(address), address.len) != 0 && errno == ECONNREFUSED;
}

bool replace_stale(int fd, const cl_sockaddr_t &address) {
    const char *path = address.addr.sun_path;
    const UniqueFd lock = lock_directory(path);
    const FileIdentity found = identify_socket(path, false);
    if (found != FileIdentity{} && is_stale(address) && identify_socket(path, false) == found) unlink(path);
    return bind_to(fd, address);
}

bool bind_or_replace(int fd, const cl_sockaddr_t &address) {
    if (bind_to(fd, address)) return true;
    if (errno == ENOENT) {
        make_directories(address.addr.sun_path);
        if (bind_to(fd, address)) return true;
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

UniqueFd make_datagram_socket() noexcept {
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd) set_send_buffer(fd.get(), kSendBuffer);
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
    made.maker_ = getpid();
    UniqueFd fd = make_datagram_socket();
    if (!fd || !bind_or_replace(fd.get(), made.address_)) return made;
    made.file_ = identify_socket(made.address_.addr.sun_path, false);
    if (made.file_ != FileIdentity{}) {
        made.fd_ = std::move(fd);
    } else if (const int error = errno; error != ENOTSOCK) { // by now another's
        unlink(made.address_.addr.sun_path);
        errno = error;
    }
    return made;
}

// While the socket is open its file's number is not given to another file. A child that was forked off
// leaves its parent's files alone.
void BoundSocket::remove() noexcept {
    if (!fd_) return;
    const char *path = address_.addr.sun_path;
    if (maker_ == getpid() && identify_socket(path, false) == file_) unlink(path);
    fd_.reset();
}

} // namespace tavcl_ev
