// The file machineid: 4 bytes agent id in host byte order; then, in files of ids made from a MAC address, 6
// bytes manager MAC and 6 bytes for each MAC of the host. A length above 4 therefore means that the id came
// from a MAC; only the first 4 bytes are ever read back. The file is rewritten in place.
#pragma once

#include "tavipc/tav_agentid.h"

namespace tavipc {

// Writes id, the first mac_len bytes of mac, and the first mac_len bytes of each node of list. Writes 4 bytes
// only if mac is null or mac_len is 0. A failure is only logged, and leaves a shorter file.
void SaveAgentId(const char *path, unsigned int id, const unsigned char *mac, int mac_len,
                 const _Mac_Node *list) noexcept;

} // namespace tavipc
