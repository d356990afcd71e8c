#include "notify.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

#include "common/unique_fd.h"

namespace tavbridge {

void notify(const char *state) noexcept {
    const char *path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (!path || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::strlen(path));
    if (path[0] == '@') address.sun_path[0] = '\0'; // an abstract socket
    const tavipc::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    static_cast<void>(::sendto(fd.get(), state, std::strlen(state), MSG_NOSIGNAL | MSG_DONTWAIT,
                               reinterpret_cast<const sockaddr *>(&address), length));
}

} // namespace tavbridge
