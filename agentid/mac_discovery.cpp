#include "agentid/mac_discovery.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/log.h"
#include "common/unique_fd.h"

namespace tavipc {
namespace {

constexpr int kBadArgument = 10; // result of functions that otherwise return an errno
constexpr int kConnectWait_s =
    5; // a manager that is reachable answers sooner; the identity lock is held meanwhile
constexpr int kMostInterruptions = 1000; // of that wait, by signal handlers of the program
constexpr size_t kRecordBytes = 4096;    // of interface records; further interfaces are not examined

struct IfAddrsFree {
    void operator()(ifaddrs *list) const noexcept { freeifaddrs(list); }
};

// Returns a request record for an interface. Its name is cut to 15 characters.
ifreq request_for(const char *name) noexcept {
    ifreq request{};
    memcpy(request.ifr_name, name, strnlen(name, IFNAMSIZ - 1));
    return request;
}

void copy_address(const ifreq &answer, unsigned char *mac) noexcept {
    memcpy(mac, answer.ifr_addr.sa_data, kMacLen); // the hardware address has the same offset
}

void log_mac(const unsigned char *mac) noexcept {
    TAV_LOG(4, "tav_agentid", "mac address: %02x:%02x:%02x:%02x:%02x:%02x\n", mac[0], mac[1], mac[2], mac[3],
            mac[4], mac[5]);
}

// Returns whether the interface of request is not the loopback and has answered. mac then holds the answer.
bool query_interface(int sock, ifreq request, unsigned long code, unsigned char *mac) noexcept {
    TAV_LOG(4, "tav_agentid", "adapter name: %s\n", request.ifr_name);
    if (ioctl(sock, SIOCGIFFLAGS, &request) != 0) {
        const int error = errno;
        TAV_LOG(3, "tav_agentid", "Failed to set SIOCGIFFLAGS with error: %d, errmsg: %s\n", error,
                strerror(error));
        return false;
    }
    if (request.ifr_flags & IFF_LOOPBACK) {
        TAV_LOG(3, "tav_agentid", "Filtering loopback address\n");
        return false;
    }
    if (ioctl(sock, code, &request) != 0) return false;
    copy_address(request, mac);
    return true;
}

// Returns 0, or -1 if memory cannot be allocated.
int insert_mac(_Mac_Node **head, const unsigned char *mac) noexcept {
    auto *node = static_cast<_Mac_Node *>(malloc(sizeof(_Mac_Node)));
    if (!node) {
        TAV_LOG(2, "tav_agentid", "memory is not enough to hold mac list\n");
        return -1;
    }
    memcpy(node->mac, mac, kMacLen);
    _Mac_Node **place = *head ? &(*head)->next : head;
    node->next = *place;
    *place = node;
    return 0;
}

// Returns like select: above 0 if fd became writable, 0 after the wait, -1 with errno.
int wait_writable(int fd) noexcept {
    if (fd >= FD_SETSIZE) { // an fd_set cannot hold it
        pollfd entry{fd, POLLOUT, 0};
        return poll(&entry, 1, kConnectWait_s * 1000);
    }
    timeval rest{kConnectWait_s, 0}; // Linux takes off what a select has waited
    const int before = errno;
    for (int interruptions = 0;; ++interruptions) {
        fd_set writable;
        FD_ZERO(&writable);
        FD_SET(fd, &writable);
        const int ready = select(fd + 1, nullptr, &writable, nullptr, &rest);
        if (ready >= 0 || errno != EINTR || interruptions == kMostInterruptions) return ready;
        errno = before;
    }
}

// Connects the non-blocking fd. Returns false if the wait for the connection failed or ended without one.
// result is 0 or the errno, also of a connect that failed at once; fd has its local address even then.
bool connect_to_manager(int fd, const char *mgr_ip, unsigned short port, int &result) noexcept {
    sockaddr_in manager{};
    manager.sin_family = AF_INET;
    manager.sin_port = htons(port);
    manager.sin_addr.s_addr = inet_addr(mgr_ip);
    result = connect(fd, reinterpret_cast<sockaddr *>(&manager), sizeof manager) == 0 ? 0 : errno;
    if (result != EALREADY && result != EINPROGRESS) return true;
    const int ready = wait_writable(fd);
    result = ready > 0 ? 0 : errno; // a wait that ends without an event leaves the errno of connect
    if (ready < 0)
        TAV_LOG(2, "tav_agentid", "connect to mgr failed with error code: %d\n", result);
    else if (ready == 0)
        TAV_LOG(2, "tav_agentid", "connect to mgr failed with timeout, error code: %d\n", result);
    return ready > 0;
}

// Writes the address that fd is bound to into out. Returns 0 or an errno.
int local_address(int fd, char *out, int size) noexcept {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &length) != 0) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "get sock name failed with error code: %d while get local ip with mgr\n",
                error);
        return error;
    }
    const char *text = inet_ntoa(local.sin_addr);
    if (!text) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "Failed to transform IP from number to string with error code: %d\n",
                error);
        return error;
    }
    str_strlcpy(out, text, static_cast<size_t>(size));
    return 0;
}

// Returns the first entry with the address ip that is not the loopback, or null.
const ifaddrs *find_interface(const ifaddrs *list, const char *ip) noexcept {
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
        sockaddr_in address;
        memcpy(&address, entry->ifa_addr, sizeof address);
        char text[INET_ADDRSTRLEN];
        if (!inet_ntop(AF_INET, &address.sin_addr, text, sizeof text)) {
            const int error = errno;
            TAV_LOG(2, "tav_agentid", "GetNetInfo,inet_ntoa fail with error code %d,error: %s\n", error,
                    strerror(error));
            continue;
        }
        if (strcmp(text, "127.0.0.1") == 0) continue;
        if (entry->ifa_name && strcmp(entry->ifa_name, "lo") == 0) continue;
        if (strcmp(text, ip) == 0) return entry;
    }
    return nullptr;
}

int mac_of_interface(const char *name, unsigned char *mac) noexcept {
    const UniqueFd sock(::socket(AF_INET, SOCK_STREAM, 0));
    if (sock.get() < 0) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "socket fail: %s\n", strerror(error));
        return error;
    }
    ifreq request = request_for(name);
    if (ioctl(sock.get(), SIOCGIFHWADDR, &request) == 0) {
        copy_address(request, mac);
        return 0;
    }
    int error = errno;
    TAV_LOG(2, "tav_agentid", "ioctl<SIOCGIFHWADDR> fail with error:%s\n", strerror(error));
    if (ioctl(sock.get(), SIOCGIFADDR, &request) == 0) {
        copy_address(request, mac); // the result says that this is not a hardware address
    } else {
        error = errno;
        TAV_LOG(2, "tav_agentid", "ioctl<SIOCGIFADDR> fail with error:%s\n", strerror(error));
    }
    return error;
}

} // namespace

int GetMacList(int sock, const ifconf &records, unsigned long request, _Mac_Node **head) noexcept {
    const size_t count = records.ifc_len > 0 ? static_cast<size_t>(records.ifc_len) / sizeof(ifreq) : 0;
    int added = 0;
    for (size_t i = 0; i < count; ++i) {
        ifreq record;
        memcpy(&record, records.ifc_buf + i * sizeof record, sizeof record);
        unsigned char mac[kMacLen];
        if (!query_interface(sock, request_for(record.ifr_name), request, mac)) continue;
        if (const int error = insert_mac(head, mac); error == 0) {
            ++added;
            TAV_LOG(4, "tav_agentid", "Find a valid mac address\n");
        } else {
            TAV_LOG(2, "tav_agentid", "Failed to insert a mac to MAC list with error: %d\n", error);
        }
        log_mac(mac);
    }
    return added;
}

MacList GetLocalMacList() noexcept {
    const UniqueFd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    if (sock.get() < 0) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "create socket failed with error: %d, errmsg: %s\n", error,
                strerror(error));
        return nullptr;
    }
    alignas(ifreq) char buffer[kRecordBytes];
    ifconf records{};
    records.ifc_len = sizeof buffer;
    records.ifc_buf = buffer;
    if (ioctl(sock.get(), SIOCGIFCONF, &records) != 0) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "get all socket io failed with error: %d, errmsg: %s\n", error,
                strerror(error));
        return nullptr;
    }
    _Mac_Node *head = nullptr;
    TAV_LOG(3, "tav_agentid", "Get Mac address through pyhisic interfaces\n");
    if (GetMacList(sock.get(), records, SIOCGIFHWADDR, &head) > 0) {
        TAV_LOG(3, "tav_agentid", "Succeed to get mac list by pyhisic interfaces\n");
        return MacList(head);
    }
    TAV_LOG(3, "tav_agentid", "Failed to query MAC address through pyhsic interfaces\n");
    TAV_LOG(3, "tav_agentid", "Get Mac address through software interfaces\n");
    if (GetMacList(sock.get(), records, SIOCGIFADDR, &head) > 0)
        TAV_LOG(3, "tav_agentid", "Succeed to get mac list by software interfaces\n");
    else
        TAV_LOG(2, "tav_agentid", "Failed to query MAC address through software interfaces\n");
    return MacList(head);
}

int GetLocalIpToMgr(const char *mgr_ip, unsigned short port, char *out, int size) noexcept {
    if (!mgr_ip || !out || size < 1) {
        TAV_LOG(2, "tav_agentid", "input params invalid");
        return kBadArgument;
    }
    const UniqueFd sock(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    if (sock.get() < 0) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "open socket failed with error code: %d\n", error);
        return error;
    }
    int on = 1;
    if (ioctl(sock.get(), FIONBIO, &on) != 0) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "modify socket block property failed with error code: %d\n", error);
        return error;
    }
    int result = 0;
    if (!connect_to_manager(sock.get(), mgr_ip, port, result)) return result;
    const int error = local_address(sock.get(), out, size);
    return error != 0 ? error : result;
}

int GetMacByIp(const char *ip, unsigned char *mac_out, int size) noexcept {
    if (!ip || !mac_out || size < 1) {
        TAV_LOG(2, "tav_agentid", "GetMacByIp: input params invalid");
        return kBadArgument;
    }
    ifaddrs *head = nullptr;
    if (getifaddrs(&head) != 0) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "getifaddrs fail with error:%s", strerror(error));
        return error;
    }
    const std::unique_ptr<ifaddrs, IfAddrsFree> list(head);
    const ifaddrs *match = find_interface(list.get(), ip);
    if (!match) {
        TAV_LOG(2, "tav_agentid", "no ip %s in iplist\n", ip);
        return -1;
    }
    int result = -1;
    if (!match->ifa_name || size < kMacLen)
        TAV_LOG(2, "tav_agentid", "getMac fail: parm wrong\n");
    else
        result = mac_of_interface(match->ifa_name, mac_out);
    if (result != 0) TAV_LOG(2, "tav_agentid", "get mac addr fail with error code %d\n", result);
    return result;
}

} // namespace tavipc

void FreeMacList(_Mac_Node *head) noexcept {
    while (head) {
        _Mac_Node *next = head->next;
        free(head);
        head = next;
    }
}

int IsExcludeAdapter(unsigned char *mac) noexcept {
    static constexpr unsigned char kPrefixes[][3] = {
        {0x00, 0x05, 0x69}, {0x00, 0x0C, 0x29}, {0x00, 0x50, 0x56}, {0x00, 0x1C, 0x42},
        {0x00, 0x03, 0xFF}, {0x00, 0x0F, 0x4B}, {0x00, 0x16, 0x3E}, {0x80, 0x00, 0x27},
    };
    if (!mac) return 0;
    for (const auto &prefix : kPrefixes) {
        if (memcmp(mac, prefix, sizeof prefix) != 0) continue;
        TAV_LOG(4, "tav_agentid", "Find a exclued adapter\n");
        TAV_LOG(4, "tav_agentid", "Mac address: %02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                mac[3], mac[4], mac[5]);
        return 1;
    }
    return 0;
}
