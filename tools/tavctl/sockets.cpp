#include "sockets.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "files.h"

namespace tavctl {

SocketState probe_socket(const std::string &path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0)
        return errno == EACCES ? SocketState::kForbidden : SocketState::kMissing;
    if (!S_ISSOCK(file.st_mode)) return SocketState::kNoSocket;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return SocketState::kForbidden;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const Descriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return SocketState::kLive;
    switch (errno) {
    case ECONNREFUSED:
        return SocketState::kStale;
    case ENOENT:
        return SocketState::kMissing;
    case EPROTOTYPE:
        return SocketState::kNoSocket; // a stream socket: not one of ours
    case EAGAIN:
        return SocketState::kLive;
    default:
        return SocketState::kForbidden;
    }
}

} // namespace tavctl
