// A datagram as it lies in memory and on the wire: address, header, fragment word, names. docs/wire.md has
// examples.
//
// Multi-byte fields are in host order. Bytes from a peer or a caller have any alignment, and a peer's may be
// forged: read_header and read_address copy them out, and name_text reads names, which need not have a
// terminator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "tavipc/tav_ipc.h"

namespace tavipc {

inline constexpr uint32_t kHeaderSize = 60;
inline constexpr uint32_t kFragmentPayload = TAV_IPC_FRAGMENT_PAYLOAD;

static_assert(sizeof(tav_addr_st) == 16 && alignof(tav_addr_st) == 4);
static_assert(offsetof(tav_addr_st, hostid) == 0 && offsetof(tav_addr_st, name) == 4);
static_assert(offsetof(tav_addr_st, loc) == 14 && offsetof(tav_addr_st, flags) == 15);
static_assert(sizeof(tav_ipc_hdr_st) == kHeaderSize && alignof(tav_ipc_hdr_st) == 4);
static_assert(offsetof(tav_ipc_hdr_st, dest) == 0 && offsetof(tav_ipc_hdr_st, src) == 16);
static_assert(offsetof(tav_ipc_hdr_st, reqid) == 32 && offsetof(tav_ipc_hdr_st, flags) == 36);
static_assert(offsetof(tav_ipc_hdr_st, rflags) == 38 && offsetof(tav_ipc_hdr_st, cmd) == 40);
static_assert(offsetof(tav_ipc_hdr_st, size) == 44 && offsetof(tav_ipc_hdr_st, frag_orig) == 48);
static_assert(offsetof(tav_ipc_hdr_st, frag_word) == 52 && offsetof(tav_ipc_hdr_st, frag_id) == 54);
static_assert(offsetof(tav_ipc_hdr_st, magic) == 56);
static_assert(std::is_trivially_copyable_v<tav_ipc_hdr_st> && std::is_standard_layout_v<tav_ipc_hdr_st>);

// The header at the front of a datagram of at least 60 bytes, and an address of 16 bytes. Any alignment.
inline tav_ipc_hdr_st read_header(const void *datagram) {
    tav_ipc_hdr_st header;
    std::memcpy(&header, datagram, sizeof header);
    return header;
}
inline tav_addr_st read_address(const void *bytes) {
    tav_addr_st address;
    std::memcpy(&address, bytes, sizeof address);
    return address;
}

// --- fragment word: bit 0 "is a fragment", bits 1 to 10 sequence number, the others carried unchanged

inline bool is_fragment(const tav_ipc_hdr_st &header) { return header.frag_word[0] & 1; }
inline uint16_t fragment_sequence(const tav_ipc_hdr_st &header) {
    return static_cast<uint16_t>((header.frag_word[0] >> 1) | ((header.frag_word[1] & 7) << 7));
}
inline void set_fragment(tav_ipc_hdr_st &header, uint16_t sequence) {
    header.frag_word[0] = static_cast<uint8_t>(1 | ((sequence & 0x7F) << 1));
    header.frag_word[1] = static_cast<uint8_t>((header.frag_word[1] & 0xF8) | ((sequence & 0x3FF) >> 7));
}
// A copy of a fragment that a receiver takes for one of another message: its frag_id is larger by the number.
inline std::string regrouped(std::string_view fragment, uint64_t number) {
    tav_ipc_hdr_st header = read_header(fragment.data());
    header.frag_id = static_cast<uint16_t>(header.frag_id + number);
    return std::string(reinterpret_cast<const char *>(&header), kHeaderSize)
        .append(fragment.substr(kHeaderSize));
}
inline void clear_fragment_bit(tav_ipc_hdr_st &header) { header.frag_word[0] &= 0xFE; }

// --- names: ten bytes from a peer, perhaps without a terminator

// Written as two words: compilers copy a char array of odd size in overlapping pieces, each of which waits
// for the one before.
struct NameText {
    alignas(uint64_t) char text[16];

    explicit NameText(const tav_addr_st &address) {
        uint64_t first, rest = 0;
        std::memcpy(&first, address.name, sizeof first);
        std::memcpy(&rest, address.name + sizeof first, TAV_IPC_NAME_SIZE - sizeof first);
        std::memcpy(text, &first, sizeof first);
        std::memcpy(text + sizeof first, &rest, sizeof rest);
    }
    operator const char *() const { return text; }
};
static_assert(TAV_IPC_NAME_SIZE > sizeof(uint64_t) && TAV_IPC_NAME_SIZE < sizeof(NameText::text));
inline NameText name_text(const tav_addr_st &address) { return NameText(address); }

// Whether a file of the socket directory can have the name: it is not empty, "." or "..", and has no "/".
inline bool is_file_name(const char *name) {
    if (name[0] == '\0' || std::strchr(name, '/')) return false;
    return std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
}

} // namespace tavipc
