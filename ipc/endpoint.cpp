#include "ipc/endpoint.h"

#include "common/log.h"
#include "common/relaxed.h"
#include "ipc/wire.h"
#include "tavaux.h"
#include "tavipc/tav_agentid.h"

namespace tavipc {
namespace {

constexpr uint64_t kDestinationSweep_ms = 3'600'000; // an hour, as destinations may be idle that long

constinit Relaxed<uint32_t> host_id = 0; // cached; 0: not known

void destination_sweep_tick(void *argument) {
    auto *ipc = static_cast<tav_ipc_st *>(argument);
    ipc->mod_sweep_timer = 0;
    free_mod_info_hash(ipc->queue);
    arm_destination_sweep(ipc);
}

} // namespace

void arm_destination_sweep(tav_ipc_st *ipc) {
    if (!ipc->mod_sweep_timer)
        ipc->mod_sweep_timer = cl_timer_start(kDestinationSweep_ms, destination_sweep_tick, ipc);
}

void reset_host_id() { host_id = 0; }

UseGuard::~UseGuard() {
    if (!ipc_ || atomic_add_and_fetch(&ipc_->use_count, -1) != 0) return;
    owner(ipc_).store(0, std::memory_order_relaxed);
}

void UseGuard::report_other_thread(int users, pthread_t self, const char *label) const {
    const pthread_t conflicting = owner(ipc_).load(std::memory_order_relaxed);
    if (conflicting == self) return;
    TAV_LOG(1, "tav_ipc",
            "[ipc_thread_safe: %s]concurrent access ipc handler: %ld, ipc_name: %.10s, curr_thread_id: %ld, "
            "conflict_thread_id: %ld",
            label, static_cast<long>(users), ipc_->my_addr.name, static_cast<long>(self),
            static_cast<long>(conflicting));
}

} // namespace tavipc

using namespace tavipc;

int tav_ipc_msg_recv(tav_ipc_st *ipc, tav_ipc_msg_cb callback, void *user) noexcept {
    if (!ipc || !callback) return -1;
    ipc->msg_recv = callback;
    ipc->msg_recv_arg = user;
    return 0;
}

int tav_ipc_file_recv(tav_ipc_st *ipc, tav_ipc_file_cb callback, void *user) noexcept {
    if (!ipc || !callback) return -1;
    ipc->file_recv = callback;
    ipc->file_recv_arg = user;
    return 0;
}

int tav_ipc_on_request(tav_ipc_st *ipc, tav_ipc_request_cb callback, void *user) noexcept {
    if (!ipc || !callback) return -1;
    ipc->on_request = callback;
    ipc->on_request_arg = user;
    return 0;
}

const tav_addr_st *tav_ipc_get_local_addr(const tav_ipc_st *ipc) noexcept {
    return ipc ? &ipc->my_addr : nullptr;
}

int tav_ipc_is_local(const tav_ipc_st *ipc, const tav_addr_st *address) noexcept {
    if (!ipc || !address) return 0;
    const tav_addr_st there = read_address(address);
    if (there.loc == 0) return 1;
    if (there.loc != ipc->location) return 0;
    if (there.hostid == 0 || there.hostid == ipc->my_addr.hostid) return 1;
    TAV_LOG(4, "tav_ipc", "addr->hostid: %u, ipc->my_addr.hostid: %u", there.hostid, ipc->my_addr.hostid);
    return 0;
}

uint32_t tav_calculate_hostid() noexcept {
    if (IsCNAPPAgent()) {
        if (const uint32_t hostid = get_hostid()) return hostid;
    }
    const uint32_t agent_id = CreateAgentId();
    if (agent_id == 0) TAV_LOG(2, "tav_ipc", "calculate agentid failed\n");
    return agent_id;
}

uint32_t tav_get_hostid() noexcept {
    uint32_t hostid = host_id;
    if (IsCNAPPAgent()) hostid = get_hostid();
    if (hostid == 0) hostid = tav_calculate_hostid();
    host_id = hostid;
    return hostid;
}
