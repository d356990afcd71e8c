// Waits until what an endpoint has accepted is settled.
#include <cerrno>

#include "ipc/accounting.h"
#include "ipc/endpoint.h"
#include "tavipc/tav_ipc_ext.h"

#pragma weak cl_event_loop_run_once // another event library may lack it,
#pragma weak error_output_in_sink   // and another base library this

namespace tavipc {
namespace {

// Runs the loop. Returns what tav_ipc_flush does, or a negative errno value. The caller pins the endpoint.
int run_until_flushed(const tav_ipc_st *ipc, int timeout_ms) {
    const uint64_t begin_ms = cl_event_loop_now();
    for (bool waited = false; ipc->messages.pending > 0 && !ipc->closed; waited = true) {
        int rest_ms = timeout_ms;
        if (timeout_ms > 0) {
            const uint64_t spent_ms = cl_event_loop_now() - begin_ms;
            rest_ms =
                spent_ms < static_cast<uint64_t>(timeout_ms) ? timeout_ms - static_cast<int>(spent_ms) : 0;
        }
        if (waited && rest_ms == 0) return 1;
        const int result = cl_event_loop_run_once(rest_ms);
        if (result < 0) return -ENOTSUP;
        if (result == 0 && ipc->messages.pending > 0) return 1; // nothing is left that could settle it
    }
    return ipc->closed ? -ESHUTDOWN : 0;
}

} // namespace
} // namespace tavipc

using namespace tavipc;

int tav_ipc_flush(tav_ipc_st *ipc, int timeout_ms, tav_ipc_flush_st *result) noexcept {
    if (result) *result = {};
    if (!ipc) return errno = EINVAL, -1;
    if (!cl_event_loop_run_once) return errno = ENOTSUP, -1;
    if (error_output_in_sink && error_output_in_sink()) return errno = EDEADLK, -1;
    UseGuard guard(ipc, "tav_ipc_flush");
    const auto before = ipc->messages;
    const int outcome = run_until_flushed(ipc, timeout_ms);
    const auto &now = ipc->messages;
    if (result) *result = {now.left - before.left, now.dropped - before.dropped, now.pending};
    return outcome < 0 ? (errno = -outcome, -1) : outcome;
}

int tav_ipc_pending(tav_ipc_st *ipc, uint64_t *messages, uint64_t *bytes) noexcept {
    if (!ipc) return errno = EINVAL, -1;
    if (messages) *messages = ipc->messages.pending;
    const auto count = [ipc](Counter counter) { return count_of(ipc->account.values, counter); };
    if (bytes)
        *bytes = ipc->closed ? 0
                             : count(TAV_IPC_STATS_ACCEPTED_BYTES) - count(TAV_IPC_STATS_LEFT_BYTES) -
                                   count(TAV_IPC_STATS_DROPPED_BYTES);
    return 0;
}
