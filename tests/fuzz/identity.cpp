// What the agent id is made from: the guest tool's output, a stored id file, the kernel's answers about
// network interfaces. Stand-ins give out the input in place of each.
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include "agentid/mac_discovery.h"
#include "input.h"
#include "tavbase.h"
#include "tavipc/tav_agentid.h"

namespace {

std::string tool_output;
fuzz::Input *answers; // of the kernel

void ignore_line(int, const char *, int, const char *text, void *) { FUZZ_CHECK(text); }

struct Interface {
    ifaddrs entry{};
    sockaddr_in address{};
    std::string name;
};
Interface interfaces[4];

} // namespace

extern "C" {

int shell_execute(const char *, char *out, int size) noexcept {
    out[tool_output.copy(out, static_cast<size_t>(size) - 1)] = '\0';
    return tool_output.empty() ? -1 : 0;
}
int ioctl(int, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    auto *record = va_arg(arguments, ifreq *);
    va_end(arguments);
    const uint8_t how = answers->u8();
    if (how % 4 == 3) return errno = ENODEV, -1;
    FUZZ_CHECK(strnlen(record->ifr_name, IFNAMSIZ) < IFNAMSIZ);
    if (request == SIOCGIFFLAGS)
        record->ifr_flags = static_cast<short>(how & 4 ? IFF_LOOPBACK : 0);
    else
        answers->text(6).copy(record->ifr_addr.sa_data, 6);
    return 0;
}
int getifaddrs(ifaddrs **list) noexcept {
    *list = nullptr;
    const uint8_t how = answers->u8();
    if (how == 255) return errno = ENOMEM, -1;
    for (int i = 0; i < how % 4; ++i) {
        const uint8_t shape = answers->u8();
        Interface &one = interfaces[i];
        one.address = {};
        one.address.sin_family = shape & 1 ? AF_INET6 : AF_INET;
        one.address.sin_addr.s_addr = shape & 2 ? htonl(INADDR_LOOPBACK) : htonl(0x0A000000u + shape % 8);
        one.name = shape & 4 ? "lo" : answers->text(shape >> 3);
        one.entry = {};
        one.entry.ifa_next = *list;
        one.entry.ifa_name = shape == 255 ? nullptr : one.name.data();
        if (shape & 64) one.entry.ifa_addr = reinterpret_cast<sockaddr *>(&one.address);
        *list = &one.entry;
    }
    return 0;
}
void freeifaddrs(ifaddrs *) noexcept {}

} // extern "C"

namespace {

void guest_tool(fuzz::Input &in) {
    tool_output = in.rest();
    g_vmid = 0;
    const uint64_t id = tav_get_vmidid_from_G2HProxy();
    FUZZ_CHECK(g_vmid == 0 && tav_get_vmidid() == id && g_vmid == id);
    FUZZ_CHECK(id == 0 || tool_output.find("\"vmid\"") != tool_output.npos ||
               tool_output.find("\\u") != tool_output.npos);
}

void id_file(fuzz::Input &in) {
    const std::string text = in.rest();
    const int fd = fuzz::memory_file(text);
    uint32_t stored = 0;
    if (text.size() >= sizeof stored) memcpy(&stored, text.data(), sizeof stored);
    FUZZ_CHECK(ReadAgentid(("/proc/self/fd/" + std::to_string(fd)).c_str()) == stored);
    ::close(fd);
}

void interface_list(fuzz::Input &in) {
    answers = &in;
    const uint8_t length = in.u8();
    std::string records = in.text(length * 4u);
    const ifconf conf{static_cast<int>(in.u8() == 255 ? -1 : records.size()), {records.data()}};
    _Mac_Node *head = nullptr;
    int added = tavipc::GetMacList(3, conf, in.u8() & 1 ? SIOCGIFADDR : SIOCGIFHWADDR, &head);
    FUZZ_CHECK(added >= 0 && static_cast<size_t>(added) <= records.size() / sizeof(ifreq));
    for (_Mac_Node *node = head; node; node = node->next, --added) {
        const int excluded = IsExcludeAdapter(node->mac);
        FUZZ_CHECK(excluded == 0 || excluded == 1);
    }
    FUZZ_CHECK(added == 0);
    FreeMacList(head);
}

void interface_of_address(fuzz::Input &in) {
    answers = &in;
    const uint8_t last = in.u8();
    const std::string ip = last & 128 ? in.text(last & 15) : "10.0.0." + std::to_string(last % 8);
    unsigned char mac[8] = "\1\2\3\4\5\6\7";
    const int result = tavipc::GetMacByIp(ip.c_str(), mac, last & 64 ? 5 : 6);
    FUZZ_CHECK(mac[6] == 7 && (result == 0 || result == -1 || result == ENOMEM || result == ENODEV));
    FUZZ_CHECK(!(last & 64) || mac[0] == 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    error_output_set_level(4);
    error_output_set_sink(ignore_line, nullptr);
    const int before = fuzz::open_descriptors();
    fuzz::Input in(data, size);
    switch (in.u8() % 4) {
    case 0:
        guest_tool(in);
        break;
    case 1:
        id_file(in);
        break;
    case 2:
        interface_list(in);
        break;
    case 3:
        interface_of_address(in);
        break;
    }
    FUZZ_CHECK(fuzz::open_descriptors() == before);
    return 0;
}
