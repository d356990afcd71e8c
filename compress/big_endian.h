// The 16- and 32-bit big-endian fields of envelopes and application headers, at any alignment.
#pragma once

#include <cstdint>

namespace tavipc::compress {

inline uint16_t load16(const uint8_t *bytes) { return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }

inline uint32_t load32(const uint8_t *bytes) { return uint32_t{load16(bytes)} << 16 | load16(bytes + 2); }

inline void store16(uint8_t *bytes, uint16_t value) {
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}

inline void store32(uint8_t *bytes, uint32_t value) {
    store16(bytes, static_cast<uint16_t>(value >> 16));
    store16(bytes + 2, static_cast<uint16_t>(value));
}

} // namespace tavipc::compress
