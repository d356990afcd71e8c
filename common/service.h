// The protocol with a service manager: notifications and passed sockets, as sd_notify(3) and sd_listen_fds(3)
// describe.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/unique_fd.h"

namespace tavipc {

// Reports the state of the service. Does nothing without a manager.
inline void notify(const char *state) noexcept {
    const char *path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (!path || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::strlen(path));
    if (path[0] == '@') address.sun_path[0] = '\0'; // an abstract socket
    const UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    static_cast<void>(::sendto(fd.get(), state, std::strlen(state), MSG_NOSIGNAL | MSG_DONTWAIT,
                               reinterpret_cast<const sockaddr *>(&address), length));
}

// The path in the address of a Unix socket; empty without one.
inline std::string_view path_of(const sockaddr_un &address, socklen_t length) {
    const size_t used =
        length > offsetof(sockaddr_un, sun_path) ? length - offsetof(sockaddr_un, sun_path) : 0;
    return {address.sun_path, strnlen(address.sun_path, std::min(used, sizeof address.sun_path))};
}

// The descriptor of the socket with this path that the service manager has passed, or -1.
inline int passed_socket(std::string_view path) {
    constexpr int kFirst = 3;
    const char *pid = std::getenv("LISTEN_PID"), *count = std::getenv("LISTEN_FDS");
    if (!pid || !count || std::atoi(pid) != getpid()) return -1;
    for (int fd = kFirst; fd < kFirst + std::atoi(count); ++fd) {
        sockaddr_un address{};
        socklen_t length = sizeof address;
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0 &&
            address.sun_family == AF_UNIX && path_of(address, length) == path)
            return fd;
    }
    return -1;
}

} // namespace tavipc
