// Network facts for the agent id: the host's MAC addresses, the local address of the route to the manager,
// and the MAC of the interface that has an address. Every call opens its own socket and keeps no state.
//
// The first address of a MAC list is its head. Each later address is inserted directly behind the head: A, B
// and C give the list A, C, B. Stored files have this order, so it must not change. Only loopback interfaces
// are left out; an all-zero address is added like any other.
#pragma once

#include <memory>
#include <net/if.h>

#include "tavipc/tav_agentid.h"

namespace tavipc {

inline constexpr int kMacLen = 6; // bytes

struct MacListFree {
    void operator()(_Mac_Node *head) const noexcept { FreeMacList(head); }
};
using MacList = std::unique_ptr<_Mac_Node, MacListFree>;

// Returns the hardware addresses of the host's interfaces. If there is none, returns two zero bytes and the
// IPv4 address of each interface. Empty if nothing was found.
[[nodiscard]] MacList GetLocalMacList() noexcept;

// Adds one node to the list at *head for each usable interface of records (filled by SIOCGIFCONF). Returns
// the number of added nodes. request is SIOCGIFHWADDR or SIOCGIFADDR.
int GetMacList(int sock, const ifconf &records, unsigned long request, _Mac_Node **head) noexcept;

// Writes the dotted IPv4 address of the host on the route to mgr_ip:port into out, cut to size bytes. Waits
// up to 5 seconds for the connection. A refusal after a wait is a success, because the route is known then.
// Returns 0, 10 for bad arguments, or an errno. If the connection fails at once, out is written although the
// result is an errno.
[[nodiscard]] int GetLocalIpToMgr(const char *mgr_ip, unsigned short port, char *out, int size) noexcept;

// Writes the hardware address (6 bytes) of the interface with the address ip into mac_out, which must have at
// least 6 bytes. Returns 0; 10 for bad arguments; -1 if only the loopback or no interface has that address,
// or size is too small; otherwise an errno. If the interface has no hardware address, six bytes of its IPv4
// address record may be written although the result is not 0.
[[nodiscard]] int GetMacByIp(const char *ip, unsigned char *mac_out, int size) noexcept;

} // namespace tavipc
