// MAC discovery over a network of our own making: the system calls below answer from `net` and `interfaces`.
// Closing and freeing spoil errno, so that a result taken too late shows.
#include <arpa/inet.h>
#include <cstdarg>
#include <ifaddrs.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/poll.h>

#include "agentid/mac_discovery.h"
#include "fakes.h"

using namespace std::string_literals;

static struct Net {
    int connect_error = 0, wait_result = 1, sockname_error = 0, fd = 900;
    int open = 0; // sockets and interface lists not released
} net;
struct Interface {
    std::string name, ip, mac; // no mac: it has none
    ifaddrs entry{};
    sockaddr address{};
};
static std::vector<Interface> interfaces;

static int fail(int error) { return error == 0 ? 0 : (errno = error, -1); }
static void set_address(sockaddr &to, const std::string &ip) {
    const sockaddr_in address{AF_INET, 0, {inet_addr(ip.c_str())}, {}};
    memcpy(&to, &address, sizeof address);
}

extern "C" {

int socket(int, int, int) noexcept { return ++net.open, net.fd; }
int close(int) { return --net.open, errno = EIO, 0; }
int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    auto *record = va_arg(arguments, ifreq *);
    va_end(arguments);
    if (fd != net.fd || request == FIONBIO) return fd == net.fd ? 0 : fail(EBADF);
    if (request == SIOCGIFCONF) {
        auto *all = reinterpret_cast<ifconf *>(record);
        all->ifc_len = static_cast<int>(interfaces.size() * sizeof(ifreq) + 24); // and a part of one more
        record = all->ifc_req;
        for (const Interface &interface : interfaces)
            strncpy((record++)->ifr_name, interface.name.c_str(), IFNAMSIZ);
        return 0;
    }
    for (const Interface &interface : interfaces) {
        if (interface.name != record->ifr_name || (request == SIOCGIFHWADDR && interface.mac.empty()))
            continue;
        set_address(record->ifr_addr, interface.ip);
        if (request == SIOCGIFHWADDR) memcpy(record->ifr_hwaddr.sa_data, interface.mac.data(), 6);
        if (request == SIOCGIFFLAGS) record->ifr_flags = interface.name == "lo" ? IFF_LOOPBACK : IFF_UP;
        return 0;
    }
    return fail(ENODEV);
}
int connect(int, const sockaddr *to, socklen_t) {
    EXPECT_EQ(memcmp(to->sa_data, "\x1f\x93\xc6\x33\x64\x09", 6), 0); // port 8083, 198.51.100.9
    return fail(net.connect_error);
}
int select(int, fd_set *, fd_set *writable, fd_set *, timeval *wait) {
    EXPECT_TRUE(FD_ISSET(900, writable) && wait->tv_sec == 5 && wait->tv_usec == 0);
    return net.wait_result < 0 ? fail(EINTR) : net.wait_result;
}
int poll(pollfd *, nfds_t count, int wait_ms) {
    EXPECT_TRUE(net.fd == 5000 && count == 1 && wait_ms == 5000);
    return net.wait_result;
}
int getsockname(int, sockaddr *address, socklen_t *) noexcept {
    set_address(*address, "192.0.2.44");
    return fail(net.sockname_error);
}
int getifaddrs(ifaddrs **list) noexcept {
    for (Interface &interface : interfaces) {
        set_address(interface.address, interface.ip);
        interface.entry = {*list, interface.name.data(), 0, &interface.address, nullptr, {}, nullptr};
        *list = &interface.entry;
    }
    return ++net.open, 0;
}
void freeifaddrs(ifaddrs *) noexcept { --net.open, errno = EIO; }

} // extern "C"

namespace {

void have(std::initializer_list<std::string> lines) { // "name address hardware-address"
    interfaces.clear();
    for (const std::string &line : lines) {
        Interface &interface = interfaces.emplace_back();
        std::istringstream(line) >> interface.name >> interface.ip >> interface.mac;
    }
}

// The outcome, unless something stays open.
std::string told(const std::string &outcome) { return net.open == 0 ? outcome : "left open"; }

TEST(AgentIdNetwork, HardwareAddressesElseInterfaceAddresses) {
    const auto macs = [] {
        std::string all;
        const tavipc::MacList list = tavipc::GetLocalMacList();
        for (auto *node = list.get(); node; node = node->next) all.append(node->mac, node->mac + 6);
        return told(all);
    };
    const std::string zero(6, '\0');
    have({"lo 0.0.0.0 local.", "tun 0.0.0.0", "exactly-15-long 0.0.0.0 AAAAAA", "2 0.0.0.0 " + zero,
          "3 0.0.0.0 CCCCCC", "4 0.0.0.0 DDDDDD"});
    EXPECT_EQ(macs(), "AAAAAADDDDDDCCCCCC" + zero);
    have({"lo 127.0.0.1", "tun0 49.50.51.52", "tun1 53.54.55.56"});
    EXPECT_EQ(macs(), zero.substr(4) + "1234" + zero.substr(4) + "5678");
    have({"lo 127.0.0.1"});
    EXPECT_EQ(macs(), "");
}

TEST(AgentIdNetwork, LocalAddressOfTheRouteToTheManager) {
    const auto route = [](const Net &setting) {
        net = setting;
        char out[64] = "";
        const int result = tavipc::GetLocalIpToMgr("198.51.100.9", 8083, out, sizeof out);
        return told(std::to_string(result) + " " + out);
    };
    EXPECT_EQ(route({}), "0 192.0.2.44");
    EXPECT_EQ(route({EINPROGRESS, 1}), "0 192.0.2.44");
    EXPECT_EQ(route({EALREADY, 1, 0, 5000}), "0 192.0.2.44"); // beyond what select can take
    EXPECT_EQ(route({ECONNREFUSED}), "111 192.0.2.44");
    EXPECT_EQ(route({EINPROGRESS, 0}), "115 ");
    EXPECT_EQ(route({EINPROGRESS, -1}), "4 ");
    EXPECT_EQ(route({ENETUNREACH, 0, ENOBUFS}), "105 ");
}

TEST(AgentIdNetwork, MacOfTheInterfaceThatCarriesAnAddress) {
    have({"eth1 10.0.0.9 BBBBBB", "eth0 10.0.0.9 AAAAAA", "lo 10.0.0.9 local.", "a 127.0.0.1 alias.",
          "tun 49.50.51.52"});
    const auto mac_of = [](const char *ip, int size) {
        net = Net{};
        char mac[] = "......";
        const int result = tavipc::GetMacByIp(ip, reinterpret_cast<unsigned char *>(mac), size);
        return told(std::to_string(result) + " " + std::string(mac, 6));
    };
    EXPECT_EQ(mac_of("10.0.0.9", 6), "0 AAAAAA");
    EXPECT_EQ(mac_of("10.0.0.9", 5), "-1 ......");
    EXPECT_EQ(mac_of("10.0.0.9", 0), "10 ......");
    EXPECT_EQ(mac_of("127.0.0.1", 6), "-1 ......");
    EXPECT_EQ(mac_of("49.50.51.52", 6), "19 \0\0001234"s); // its interface address, but not as a success
}

TEST(AgentIdNetwork, ExcludedAdapters) {
    unsigned char first[6] = {0x00, 0x05, 0x69}, last[6] = {0x80, 0x00, 0x27}, other[6] = {0x08, 0x00, 0x27};
    EXPECT_TRUE(IsExcludeAdapter(first) == 1 && IsExcludeAdapter(last) == 1 && IsExcludeAdapter(other) == 0);
}

} // namespace
