// Network facts for the agent id: the host's MAC addresses, the local address toward the manager, and the MAC
// of the interface that carries an address. Every call opens its own socket and keeps no state.
//
// A MAC list keeps its first address as head; each later one goes directly behind the head (found A, B, C:
// list A, C, B). Stored files hold this order, so it may not change. Only loopback interfaces are left out;
// an all-zero address counts like any other.
#pragma once

#include <memory>
#include <net/if.h>

#include "tavipc/tav_agentid.h"

namespace tavipc {

inline constexpr int kMacLen = 6;

struct MacListFree {
    void operator()(_Mac_Node *head) const noexcept { FreeMacList(head); }
};
using MacList = std::unique_ptr<_Mac_Node, MacListFree>;

// Hardware addresses of the host's interfaces; when there is not one, two zero bytes and the IPv4 address of
// each interface. Empty when nothing was found.
[[nodiscard]] MacList GetLocalMacList() noexcept;

// Adds one node to the list at *head for each usable interface of records (filled by SIOCGIFCONF) and returns
// how many it added. request is SIOCGIFHWADDR or SIOCGIFADDR.
int GetMacList(int sock, const ifconf &records, unsigned long request, _Mac_Node **head) noexcept;

// Writes the dotted IPv4 address from which mgr_ip:port is reached, cut to size bytes, into out. Waits up to
// 5 seconds for the connection; a refusal after a wait still tells the route and counts as success. Returns
// 0, 10 for bad arguments, else an errno (out may be filled all the same when the connection failed at once).
[[nodiscard]] int GetLocalIpToMgr(const char *mgr_ip, unsigned short port, char *out, int size) noexcept;

// Writes the hardware address (6 bytes) of the interface that carries ip into mac_out, whose size must be 6
// at least. Returns 0; 10 for bad arguments; -1 when no interface but the loopback carries ip or size is too
// small; else an errno. When the hardware address cannot be had, six bytes of the interface's IPv4 address
// record may be written together with a non-zero result.
[[nodiscard]] int GetMacByIp(const char *ip, unsigned char *mac_out, int size) noexcept;

} // namespace tavipc
