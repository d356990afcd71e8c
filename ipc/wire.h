// What the library itself makes of a datagram's bytes: check value, application-message fields.
// common/datagram.h has the layout.
//
// Only the application message's own fields are big-endian.
#pragma once

#include <cstdint>
#include <cstring>

#include "common/big_endian.h"
#include "common/datagram.h"
#include "tavipc/tav_ipc.h"

namespace tavipc {

inline constexpr uint32_t kMaxMessage = TAV_IPC_MESSAGE_MAX;
inline constexpr uint32_t kAppHeaderSize = TAV_APP_HEADER_SIZE;

// What tav_ipc_hdr_magic computes, for an aligned header.
uint32_t check_value(const tav_ipc_hdr_st &header);

// --- application messages: a 20-byte header of their own in front of the body

inline bool is_app_message(const void *payload, uint32_t size) {
    return payload && size >= kAppHeaderSize && std::memcmp(payload, "3200", 4) == 0;
}
inline uint16_t app_method(const void *payload) { return load_be16(static_cast<const char *>(payload) + 6); }
inline uint32_t app_body_length(const void *payload) {
    return load_be32(static_cast<const char *>(payload) + 16);
}
// Priority of a message: 0 unless it is marked as an application message and long enough to have one.
inline uint32_t message_priority(uint16_t flags, const void *payload, uint32_t size) {
    if (!(flags & IPC_FLAG_APP_MSG) || !payload || size < 16) return 0;
    return static_cast<const uint8_t *>(payload)[15];
}

} // namespace tavipc
