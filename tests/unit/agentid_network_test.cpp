// MAC discovery over a network of our own making: the system calls below answer from `net`. Closing and
// freeing spoil errno, so that a result taken too late shows.
#include <arpa/inet.h>
#include <cstdarg>
#include <ifaddrs.h>
#include <sys/ioctl.h>
#include <sys/poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "agentid/mac_discovery.h"
#include "fakes.h"

using namespace std::string_literals;

namespace {

struct Interface {
    std::string name;
    const char *ip;
    std::string mac; // empty: none
};
struct Net {
    int connect_error = 0, wait_result = 1, sockname_error = 0, fd = 900;
    int open = 0; // sockets and interface lists not released
} net;
std::vector<Interface> interfaces;
ifaddrs entries[8];
sockaddr addresses[8];

int fail(int error) { return error == 0 ? 0 : (errno = error, -1); }

void set_address(sockaddr &to, const char *ip) {
    const sockaddr_in address{AF_INET, 0, {inet_addr(ip)}, {}};
    memcpy(&to, &address, sizeof address);
}

int list_interfaces(ifconf &records) {
    records.ifc_len = static_cast<int>(interfaces.size() * sizeof(ifreq) + 24); // and a part of one more
    for (ifreq *record = records.ifc_req; const Interface &interface : interfaces)
        strncpy((record++)->ifr_name, interface.name.c_str(), IFNAMSIZ);
    return 0;
}

int query(unsigned long request, ifreq &record) {
    for (const Interface &interface : interfaces) {
        if (interface.name != record.ifr_name) continue;
        if (request == SIOCGIFHWADDR && interface.mac.empty()) break;
        set_address(record.ifr_addr, interface.ip);
        if (request == SIOCGIFHWADDR) memcpy(record.ifr_hwaddr.sa_data, interface.mac.data(), 6);
        if (request == SIOCGIFFLAGS) record.ifr_flags = interface.name == "lo" ? IFF_LOOPBACK : IFF_UP;
        return 0;
    }
    return fail(ENODEV);
}

} // namespace

extern "C" {

int socket(int, int, int) noexcept { return ++net.open, net.fd; }
int close(int fd) {
    return fd == net.fd ? (--net.open, errno = EIO, 0) : static_cast<int>(syscall(SYS_close, fd));
}
int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (fd != net.fd) return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    if (request == FIONBIO) return 0;
    if (request == SIOCGIFCONF) return list_interfaces(*static_cast<ifconf *>(argument));
    return query(request, *static_cast<ifreq *>(argument));
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
    for (size_t i = interfaces.size(); i-- > 0; *list = &entries[i]) {
        set_address(addresses[i], interfaces[i].ip);
        ifaddrs *after = i + 1 < interfaces.size() ? &entries[i + 1] : nullptr;
        entries[i] = {after, interfaces[i].name.data(), 0, &addresses[i], nullptr, {}, nullptr};
    }
    return ++net.open, 0;
}
void freeifaddrs(ifaddrs *) noexcept { --net.open, errno = EIO; }

} // extern "C"

namespace {

std::string local_macs() {
    std::string macs;
    const tavipc::MacList list = tavipc::GetLocalMacList();
    for (const _Mac_Node *node = list.get(); node; node = node->next)
        macs.append(reinterpret_cast<const char *>(node->mac), 6);
    return net.open == 0 ? macs : "a socket is open";
}

TEST(AgentIdNetwork, HardwareAddressesElseInterfaceAddresses) {
    const std::string zero(6, '\0');
    interfaces = {{"lo", "0.0.0.0", "local."}, {"tun", "0.0.0.0", ""}};
    for (const std::string &mac : {"AAAAAA"s, zero, "CCCCCC"s, "DDDDDD"s})
        interfaces.push_back({std::to_string(interfaces.size()) + "xactly-15-long", "0.0.0.0", mac});
    EXPECT_EQ(local_macs(), "AAAAAADDDDDDCCCCCC" + zero);
    interfaces = {{"lo", "127.0.0.1", ""}, {"tun0", "49.50.51.52", ""}, {"tun1", "53.54.55.56", ""}};
    EXPECT_EQ(local_macs(), zero.substr(4) + "1234" + zero.substr(4) + "5678");
    interfaces.resize(1);
    EXPECT_EQ(local_macs(), "");
}

TEST(AgentIdNetwork, LocalAddressOfTheRouteToTheManager) {
    const auto route = [](const Net &setting) {
        net = setting;
        char out[64] = "";
        const int result = tavipc::GetLocalIpToMgr("198.51.100.9", 8083, out, sizeof out);
        return net.open == 0 ? std::to_string(result) + " " + out : "a socket is open";
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
    interfaces = {{"lo", "10.0.0.9", "local."},
                  {"alias", "127.0.0.1", "alias."},
                  {"eth0", "10.0.0.9", "AAAAAA"},
                  {"eth1", "10.0.0.9", "BBBBBB"},
                  {"tun", "49.50.51.52", ""}};
    const auto mac_of = [](const char *ip, int size) {
        net = Net{};
        char mac[] = "......";
        const int result = tavipc::GetMacByIp(ip, reinterpret_cast<unsigned char *>(mac), size);
        return net.open == 0 ? std::to_string(result) + " " + std::string(mac, 6) : "something is open";
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
