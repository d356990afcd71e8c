// Where the agent id comes from. Under the identity lock, the first of these that applies:
//
//   no manager address configured   the stored id; the process ends when there is none
//   manager on the loopback         the VM id, unless machineid holds an id made from a MAC
//   an id known from before         this process's cached id
//   machineid exists                the stored id
//   the agent type is known         CRC-32 of a MAC address and the agent type
//   otherwise                       CRC-32 of a fresh UUID and a MAC address
//
// New ids are stored in machineid, so every later call in any process reads the same one back. The cached id
// is the result of every call; a path that determines nothing leaves it alone.
#pragma once

#include "tavipc/tav_agentid.h"

namespace tavipc {

// Id of a fresh UUID and the MAC address toward the manager, which is written to mgr_mac (6 bytes); when it
// cannot be had, the first of list (not empty) takes its place, in mgr_mac too.
[[nodiscard]] unsigned int CreateAgentIdByUuid(const _Mac_Node *list, unsigned char *mgr_mac) noexcept;

} // namespace tavipc
