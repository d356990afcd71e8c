// Converts host names to IPv4 texts with the system's resolver, and blocks as long as that does.
#include "tavbase.h"

#include <memory>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

int get_ipaddr_by_host(const char *host, char *ip) noexcept {
    if (!host || !*host || !ip) return 0;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM; // without it the list has every address once for each socket type
    addrinfo *list = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &list) != 0 || !list) return 0;
    const std::unique_ptr<addrinfo, void (*)(addrinfo *)> owner(list, freeaddrinfo);

    const auto *address = reinterpret_cast<const sockaddr_in *>(list->ai_addr);
    return inet_ntop(AF_INET, &address->sin_addr, ip, INET_ADDRSTRLEN) ? 1 : 0;
}
