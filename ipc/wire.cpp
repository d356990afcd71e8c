// Address records and the check value of a header. The exported functions accept records of any alignment.
#include "ipc/wire.h"

#include <cstdlib>

#include "common/out_of_memory.h"

namespace tavipc {
namespace {

tav_addr_st *new_address() {
    auto *address = static_cast<tav_addr_st *>(std::calloc(1, sizeof(tav_addr_st)));
    if (!address) out_of_memory("tav_ipc", __LINE__);
    return address;
}

uint32_t hash_name(const tav_addr_st &address, uint32_t factor) {
    uint32_t hash = 0;
    for (const char c : address.name) {
        if (c == '\0') break;
        hash ^= static_cast<unsigned char>(c) * factor;
    }
    return hash;
}

} // namespace

uint32_t check_value(const tav_ipc_hdr_st &header) {
    const uint32_t names = 0x19D699A5u ^ hash_name(header.src, 0x1C231u) ^ hash_name(header.dest, 0x4DE1u);
    return (header.reqid * 0x132A3B3Du) ^ (header.cmd * 0x53C93455u) ^ (header.size * 0x05A0B809u) ^ names;
}

} // namespace tavipc

int tav_addr_cmp(const tav_addr_st *a, const tav_addr_st *b) noexcept {
    if (!a || !b) return -1;
    const tav_addr_st left = tavipc::read_address(a), right = tavipc::read_address(b);
    if (left.hostid != right.hostid || left.loc != right.loc) return -1;
    return std::strncmp(left.name, right.name, TAV_IPC_NAME_SIZE) == 0 ? 0 : -1;
}

extern "C" {

tav_addr_st *tav_addr_create2(const char *name, uint8_t loc, uint32_t hostid, uint8_t flags) noexcept {
    if (!name) return nullptr;
    const size_t length = strnlen(name, TAV_IPC_NAME_SIZE);
    if (length > TAV_IPC_NAME_MAX) return nullptr;
    tav_addr_st *address = tavipc::new_address();
    std::memcpy(address->name, name, length);
    address->hostid = hostid;
    address->loc = loc;
    address->flags = flags;
    return address;
}

tav_addr_st *tav_addr_create(const char *name, uint8_t loc, uint8_t flags) noexcept {
    return tav_addr_create2(name, loc, 0, flags);
}

tav_addr_st *tav_addr_dup(const tav_addr_st *address) noexcept {
    if (!address) return nullptr;
    tav_addr_st *copy = tavipc::new_address();
    *copy = tavipc::read_address(address);
    return copy;
}

void tav_addr_destroy(tav_addr_st *address) noexcept { std::free(address); }

const char *tav_addr_get_name(const tav_addr_st *address) noexcept {
    return address ? reinterpret_cast<const char *>(address) + offsetof(tav_addr_st, name) : nullptr;
}
unsigned int tav_addr_get_loc(const tav_addr_st *address) noexcept {
    return address ? tavipc::read_address(address).loc : 0;
}
uint32_t tav_addr_get_hostid(const tav_addr_st *address) noexcept {
    return address ? tavipc::read_address(address).hostid : 0;
}

uint32_t tav_ipc_hdr_magic(const tav_ipc_hdr_st *header) noexcept {
    return header ? tavipc::check_value(tavipc::read_header(header)) : 0;
}

} // extern "C"
