// Creates and destroys endpoints: connects the queue, the transmitter, the request manager and reception.
//
// A function that creates reports a failure as an errno value, which the exported function stores last: log
// lines and clean-up in between may change errno.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/keep_errno.h"
#include "common/log.h"
#include "common/out_of_memory.h"
#include "ipc/accounting.h"
#include "ipc/destination.h"
#include "ipc/endpoint.h"
#include "ipc/exchanges.h"
#include "ipc/ipc_file.h"
#include "ipc/monitor.h"
#include "ipc/peer_watch.h"
#include "ipc/reassembly.h"
#include "ipc/receive.h"
#include "ipc/send.h"
#include "ipc/send_context.h"
#include "ipc/socket_directory.h"
#include "ipc/transmitter.h"
#include "ipc/unshared_fd.h"
#include "tavaux.h"
#include "tavipc/tav_agentid.h"

namespace tavipc {
namespace {

struct Options {
    bool temp;
    uint32_t accept_files;
};

tav_ipc_st *fail(int error) {
    errno = error;
    return nullptr;
}

// Makes the endpoint's socket, and the queue that owns it from then on. Returns 0 or an errno value.
int open_queue(tav_ipc_st *ipc) {
    MallocPtr<ipc_queue_st> queue(static_cast<ipc_queue_st *>(std::calloc(1, sizeof(ipc_queue_st))));
    if (!queue) return ENOMEM;
    const cl_dunix_t socket = create_unix_socket(ipc->location, ipc->my_addr.name);
    if (!socket) return errno != 0 ? errno : EIO; // another event library may leave it alone
    if (init_ipc_queue(queue.get(), ipc->location, consume_queued, &socket) != 0) {
        TAV_LOG(1, "tav_ipc", "init ipc msg queue failed.");
        destroy_unix_socket(socket);
        return ENOMEM;
    }
    ipc->queue = queue.release();
    remove_stale_socket_files(ipc->location);
    return 0;
}

void close_queue(tav_ipc_st *ipc) {
    settle_sent(0);         // what has left counts as that
    abandon_in_flight(ipc); // closing the sockets completes these sends
    assert(nothing_in_flight(*ipc->queue));
    MallocPtr<ipc_queue_st> queue(std::exchange(ipc->queue, nullptr));
    destroy_ipc_queue(queue.get());
    assert(!ipc->in_flight);
}

void stop_timer(cl_timer_t &timer) {
    cl_timer_stop(timer);
    timer = 0;
}

// Returns 0 or an errno value.
int open_endpoint(tav_ipc_st *ipc, const Options &options) {
    ipc->forks = fork_count();
    ipc->location = tav_get_location();
    ipc->my_addr.loc = static_cast<uint8_t>(ipc->location);
    if (options.temp) ipc->my_addr.flags |= ADDR_FLAG_TEMP;
    ipc->accept_files = options.accept_files;
    if (const int error = open_queue(ipc)) return error;
    arm_destination_sweep(ipc);
    if (open_endpoint_account(ipc) && open_requests(ipc)) {
        if (options.accept_files) resume_file_sweep();
        open_monitor_tap(ipc);
        return 0;
    }
    stop_timer(ipc->mod_sweep_timer);
    close_queue(ipc);
    close_account(ipc->account);
    return ENOMEM;
}

void log_failure(const char *name, int error) {
    char text[128];
    TAV_LOG(2, "tav_ipc", "ipc create failed, name: %s, reason: %s", name,
            strerror_r(error, text, sizeof text));
}

// Why the allow-list refuses the process: it does, or the process could not read the list.
int refusal(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM ? error : EPERM; }

tav_ipc_st *create_endpoint(const char *name, const Options &options) {
    errno = 0;
    if (c_get_process() != 0) {
        const int error = refusal(errno);
        TAV_LOG(1, "tav_ipc", "process is not valid");
        return fail(error);
    }
    if (!name || std::strlen(name) > TAV_IPC_NAME_MAX) return fail(EINVAL);
    const char *test = std::getenv("IPC_TEST");
    if (test && test[0] == '1') trace_sent_messages();
    MallocPtr<tav_ipc_st> ipc(static_cast<tav_ipc_st *>(std::calloc(1, sizeof(tav_ipc_st))));
    if (!ipc) out_of_memory("tav_ipc", __LINE__);
    std::copy_n(name, std::strlen(name), ipc->my_addr.name);
    ipc->my_addr.hostid = tav_get_hostid();
    if (ipc->my_addr.hostid == 0) {
        TAV_LOG(2, "tav_ipc", "failed to get hostid, ipc create failed");
        ipc.reset();
        return fail(ENODEV);
    }
    if (const int error = open_endpoint(ipc.get(), options)) {
        log_failure(ipc->my_addr.name, error);
        ipc.reset();
        return fail(error);
    }
    return ipc.release();
}

tav_ipc_st *create_receiving(const char *name, const Options &options) {
    tav_ipc_st *ipc = create_endpoint(name, options);
    if (!ipc || tav_ipc_recv_start(ipc, ipc_on_recv)) return ipc;
    const int error = errno;
    log_failure(name, error);
    return fail(error);
}

// Starts reception. Returns 0 or an errno value.
int start_reception(tav_ipc_st *ipc, cl_dunix_recv_cb handler) {
    if (!handler) return EINVAL;
    const KeepErrno keep;
    errno = 0;
    if (cl_dunix_recv_start(ipc->queue->default_mod->sock, handler, ipc) == 0) return 0;
    return errno != 0 ? errno : ENOMEM;
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
    if (!ipc || ipc->closed) return fail(EINVAL);
    const int error = start_reception(ipc, handler);
    if (error == 0) return ipc;
    tav_ipc_destroy(ipc);
    return fail(error);
}

void tav_ipc_destroy(tav_ipc_st *ipc) noexcept {
    if (!ipc || ipc->closed) return;
    const EndpointPin pin(ipc); // releases the record here, or in the outermost frame that is still inside
    const int users = atomic_add_and_fetch(&ipc->use_count, 0);
    ipc->closed = true;
    if (users > 0)
        TAV_LOG(1, "tav_ipc", "[ipc_thread_safe: %s]destroy ipc handler in using: %ld", "tav_ipc_destroy",
                static_cast<long>(users));
    close_peer_watches(ipc);
    close_requests(ipc);
    close_queue(ipc);
    close_monitor_tap(ipc);
    release_fragments(ipc);
    stop_timer(ipc->mod_sweep_timer);
    close_account(ipc->account);
}
