// Where the agent id comes from. Under the identity lock, the first source that applies:
//
//   no manager address configured   the stored id; the process ends if there is none
//   manager on the loopback         the VM id, unless machineid holds an id made from a MAC
//   manager elsewhere               the cached id of an earlier call in this process
//   machineid exists                the stored id
//   the agent type is known         CRC-32 of a MAC address and the agent type
//   otherwise                       CRC-32 of a fresh UUID and a MAC address
//
// New ids are stored in machineid, so every later call in any process reads the same id back. A call that
// cannot take the lock returns the cached id, and a call that determines no id leaves the cached id
// unchanged.
#pragma once

#include "tavipc/tav_agentid.h"

namespace tavipc {

// Computes an id from a fresh UUID and the MAC address toward the manager, which it writes to mgr_mac (6
// bytes). If that address is unknown, uses the first one of list, which must not be empty, and writes it to
// mgr_mac.
[[nodiscard]] unsigned int CreateAgentIdByUuid(const _Mac_Node *list, unsigned char *mgr_mac) noexcept;

} // namespace tavipc
