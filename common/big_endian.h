// Big-endian 16- and 32-bit fields at any alignment: the length field of a compressed envelope and the fields
// of an application header.
#pragma once

#include <cstdint>

namespace tavipc {

inline uint16_t load_be16(const void *bytes) {
    const auto *b = static_cast<const uint8_t *>(bytes);
    return static_cast<uint16_t>((b[0] << 8) | b[1]);
}
inline uint32_t load_be32(const void *bytes) {
    const auto *b = static_cast<const uint8_t *>(bytes);
    return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
}

inline void store_be16(void *bytes, uint16_t value) {
    auto *b = static_cast<uint8_t *>(bytes);
    b[0] = static_cast<uint8_t>(value >> 8);
    b[1] = static_cast<uint8_t>(value);
}
inline void store_be32(void *bytes, uint32_t value) {
    auto *b = static_cast<uint8_t *>(bytes);
    store_be16(b, static_cast<uint16_t>(value >> 16));
    store_be16(b + 2, static_cast<uint16_t>(value));
}

} // namespace tavipc
