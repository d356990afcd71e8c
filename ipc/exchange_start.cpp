// The exported functions that start exchanges with an id. They check their arguments.
#include <cerrno>

#include "ipc/endpoint.h"
#include "ipc/exchanges.h"
#include "ipc/wire.h"
#include "tavipc/tav_ipc_ext.h"

namespace tavipc {
namespace {

// 0, or the errno of a call that can send nothing.
int check_exchange(const tav_ipc_st *ipc, int kind, const tav_addr_st *dest, uint32_t size) {
    if (!ipc || !dest || kind < TAV_IPC_EXCHANGE_REQUEST || kind > TAV_IPC_EXCHANGE_PROBE) return EINVAL;
    const NameText name = name_text(*dest);
    if (!is_file_name(name)) return EINVAL;
    if (size > kMaxMessage) return EMSGSIZE;
    return ipc->closed ? ESHUTDOWN : 0;
}

Exchange exchange_of(int kind, const tav_addr_st *dest, uint32_t cmd, const void *data, uint32_t size) {
    if (kind == TAV_IPC_EXCHANGE_REQUEST) return {dest, cmd, data, size, IPC_FLAG_REQUEST, 0};
    if (kind == TAV_IPC_EXCHANGE_CONFIRMED) return {dest, cmd, data, size, IPC_FLAG_NEED_ACK, 0};
    return {dest, 0, nullptr, 0, IPC_FLAG_PROBE | IPC_FLAG_NEED_ACK, 0};
}

} // namespace
} // namespace tavipc

using namespace tavipc;

uint64_t tav_ipc_exchange_start(tav_ipc_st *ipc, int kind, const tav_addr_st *dest, uint32_t cmd,
                                const void *data, uint32_t size, uint32_t timeout_ms,
                                tav_ipc_exchange_cb callback, void *user) noexcept {
    UseGuard guard(ipc, "tav_ipc_exchange_start");
    const bool waits = kind & TAV_IPC_EXCHANGE_WAIT_FOR_PEER;
    kind &= ~TAV_IPC_EXCHANGE_WAIT_FOR_PEER;
    const bool is_probe = kind == TAV_IPC_EXCHANGE_PROBE;
    if (const int error = check_exchange(ipc, kind, dest, is_probe ? 0 : size)) return errno = error, 0;
    tav_addr_st address = read_address(dest);
    if (is_probe) address.flags = 0;
    return ipc_start_exchange(ipc, {exchange_of(kind, &address, cmd, data, size), timeout_ms, waits},
                              callback, user);
}

int tav_ipc_response2(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t reqid, uint32_t cmd,
                      const void *data, uint32_t size) noexcept {
    UseGuard guard(ipc, "tav_ipc_response2");
    if (reqid == 0) return IPC_ERR_SENDTO; // no request has it
    return tav_ipc_send_with_flags(ipc, dest, cmd, data, size, IPC_FLAG_RESPONSE, &reqid);
}
