// Creates and destroys endpoints: plugs the queue, the transmitter, the request manager and reception
// together.
#include <algorithm>
#include <cstring>

#include "common/log.h"
#include "common/out_of_memory.h"
#include "ipc/endpoint.h"
#include "ipc/exchanges.h"
#include "ipc/ipc_file.h"
#include "ipc/ipc_process.h"
#include "ipc/pool_files.h"
#include "ipc/reassembly.h"
#include "ipc/receive.h"
#include "ipc/transmitter.h"
#include "tavaux.h"
#include "tavipc/tav_agentid.h"

namespace tavipc {
namespace {

constexpr uint64_t kModuleSweepMs = 3'600'000;

struct Options {
    bool temp;
    uint32_t accept_files;
};

void mod_sweep_tick(void *argument) {
    auto *ipc = static_cast<tav_ipc_st *>(argument);
    free_mod_info_hash(ipc->queue);
    ipc->mod_sweep_timer = cl_timer_start(kModuleSweepMs, mod_sweep_tick, ipc);
}

// The endpoint's socket and the queue that owns it from then on.
bool open_queue(tav_ipc_st *ipc) {
    MallocPtr<ipc_queue_st> queue(static_cast<ipc_queue_st *>(std::calloc(1, sizeof(ipc_queue_st))));
    if (!queue) return false;
    const cl_dunix_t socket = create_unix_socket(ipc->location, ipc->my_addr.name);
    if (!socket) return false;
    if (init_ipc_queue(queue.get(), ipc->location, consume_queued, &socket) != 0) {
        TAV_LOG(1, "tav_ipc", "init ipc msg queue failed.");
        destroy_unix_socket(socket);
        return false;
    }
    ipc->queue = queue.release();
    remove_stale_pool_files(ipc->location);
    return true;
}

void close_queue(tav_ipc_st *ipc) {
    orphan_in_flight(ipc); // closing the sockets reports what is pending, to module infos that are gone
    destroy_ipc_queue(ipc->queue);
    std::free(ipc->queue);
    ipc->queue = nullptr;
}

void stop_timer(cl_timer_t &timer) {
    cl_timer_stop(timer);
    timer = 0;
}

bool open_endpoint(tav_ipc_st *ipc, const Options &options) {
    ipc->my_addr.hostid = tav_get_hostid();
    if (ipc->my_addr.hostid == 0) {
        TAV_LOG(2, "tav_ipc", "failed to get hostid, ipc create failed");
        return false;
    }
    ipc->location = tav_get_location();
    ipc->my_addr.loc = static_cast<uint8_t>(ipc->location);
    if (options.temp) ipc->my_addr.flags |= ADDR_FLAG_TEMP;
    ipc->accept_files = options.accept_files;
    if (!open_queue(ipc)) return false;
    ipc->mod_sweep_timer = cl_timer_start(kModuleSweepMs, mod_sweep_tick, ipc);
    if (open_requests(ipc)) {
        if (options.accept_files) resume_file_sweep();
        return true;
    }
    stop_timer(ipc->mod_sweep_timer);
    close_queue(ipc);
    return false;
}

tav_ipc_st *create_endpoint(const char *name, const Options &options) {
    if (c_get_process() != 0) {
        TAV_LOG(1, "tav_ipc", "process is not valid");
        return nullptr;
    }
    if (!name || std::strlen(name) > TAV_IPC_NAME_MAX) return nullptr;
    const char *test = std::getenv("IPC_TEST");
    if (test && test[0] == '1') process_state().trace_flag = IPC_FLAG_TRACE;
    MallocPtr<tav_ipc_st> ipc(static_cast<tav_ipc_st *>(std::calloc(1, sizeof(tav_ipc_st))));
    if (!ipc) out_of_memory("tav_ipc", __LINE__);
    std::copy_n(name, std::strlen(name), ipc->my_addr.name);
    return open_endpoint(ipc.get(), options) ? ipc.release() : nullptr;
}

tav_ipc_st *create_receiving(const char *name, const Options &options) {
    tav_ipc_st *ipc = create_endpoint(name, options);
    return ipc ? tav_ipc_recv_start(ipc, ipc_on_recv) : nullptr;
}

} // namespace
} // namespace tavipc

using namespace tavipc;

tav_ipc_st *tav_ipc_create(const char *name) noexcept { return create_receiving(name, {false, 0}); }
tav_ipc_st *tav_ipc_create_temp(const char *name, uint32_t accept_files) noexcept {
    return create_receiving(name, {true, accept_files});
}
tav_ipc_st *tav_ipc_create_non_recv(const char *name, uint32_t accept_files) noexcept {
    return create_endpoint(name, {false, accept_files});
}
tav_ipc_st *tav_ipc_create_non_recv_temp(const char *name, uint32_t accept_files) noexcept {
    return create_endpoint(name, {true, accept_files});
}

tav_ipc_st *tav_ipc_recv_start(tav_ipc_st *ipc, cl_dunix_recv_cb handler) noexcept {
    if (!ipc || ipc->closed) return nullptr;
    if (handler && cl_dunix_recv_start(ipc->queue->default_mod->sock, handler, ipc) == 0) return ipc;
    tav_ipc_destroy(ipc);
    return nullptr;
}

void tav_ipc_destroy(tav_ipc_st *ipc) noexcept {
    if (!ipc || ipc->closed) return;
    const int users = atomic_add_and_fetch(&ipc->use_count, 0);
    if (users > 0)
        TAV_LOG(1, "tav_ipc", "[ipc_thread_safe: %s]destroy ipc handler in using: %ld", "tav_ipc_destroy",
                static_cast<long>(users));
    EndpointPin pin(ipc); // releases the record here, or in the outermost frame that is still inside
    ipc->closed = true;
    close_requests(ipc);
    close_queue(ipc);
    release_fragments(ipc);
    stop_timer(ipc->mod_sweep_timer);
}
