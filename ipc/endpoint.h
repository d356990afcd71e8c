// The endpoint handle: its record, the pin that keeps it, and the guard that reports use from two threads.
//
// States: open -> closed (tav_ipc_destroy has begun; `queue` is null from the moment the queue is being
// destroyed) -> released. A callback may destroy the endpoint that calls it, and so may the sink of a log
// line. Every frame that touches the handle after a call that can reach user code holds a pin. The record is
// released when it is closed and its last pin goes. After such a call a frame looks at `queue` before it
// sends, and at `closed` before it uses anything else of the record but the address.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <type_traits>

#include "common/owned.h"
#include "ipc/stats_file.h"
#include "tavipc/ipc_queue.h"
#include "tavipc/ipc_req_manager.h"
#include "tavipc/tav_ipc.h"
#include "tavipc/tav_ipc_file_ext.h"

namespace tavipc {
struct SendContext;
struct Reassembly;
class MonitorTap;
class PeerWatches;
struct FileTransfer;

// The callbacks of tav_ipc_on_file.
struct FileCallbacks {
    tav_ipc_file_event_cb complete;
    tav_ipc_file_event_cb progress;
    void *user;
};
} // namespace tavipc

struct tav_ipc_st {
    tav_addr_st my_addr; // first: a pointer to the handle is a pointer to its address
    int32_t location;    // the platform's value; my_addr.loc is its low byte
    uint32_t accept_files;
    tav_ipc_msg_cb msg_recv;
    void *msg_recv_arg;
    tav_ipc_file_cb file_recv;
    void *file_recv_arg;
    tav_ipc_request_cb on_request;
    void *on_request_arg;
    ipc_req_manager_st req_mgr;
    xhash_t *frag_table; // messages under reassembly, made with the two below on the first fragment
    xhash_cookie_t *frag_cookie;
    cl_timer_t frag_timer;
    cl_timer_t mod_sweep_timer;
    ipc_queue_st *queue; // owns the endpoint's own socket too
    volatile int use_count;
    pthread_t owner_thread; // who entered the guard first; 0 when idle
    // Not part of the record's documented layout:
    bool closed;
    uint32_t pins;                       // decides alone when a closed record is released
    uint32_t forks;                      // fork_count() of the process that opened it
    tavipc::SendContext *in_flight;      // sends whose completion has not come, newest first
    tavipc::SendContext *spare_contexts; // of completed sends, for the next ones
    uint32_t spare_context_count;
    tavipc::Reassembly *reassembly; // the sets of frag_table with their buffers; made with it
    tavipc::FileCallbacks on_file;
    tavipc::FileTransfer *transfers; // that tav_ipc_file_start began, newest first
    tavipc::Account account;
    struct { // accepted messages
        uint64_t pending, left, dropped;
    } messages;
    tavipc::MonitorTap *monitor_tap;
    tavipc::PeerWatches *peer_watches; // made with the first watch
};
static_assert(std::is_standard_layout_v<tav_ipc_st> && std::is_trivial_v<tav_ipc_st>);
static_assert(offsetof(tav_ipc_st, my_addr) == 0);

namespace tavipc {

// Keeps the record of an endpoint (null allowed) until the frame is left. Not atomic: an endpoint belongs to
// one thread.
class EndpointPin {
  public:
    explicit EndpointPin(tav_ipc_st *ipc) : ipc_(ipc) {
        if (ipc_) ++ipc_->pins;
    }
    ~EndpointPin() {
        if (!ipc_ || --ipc_->pins != 0 || !ipc_->closed) return;
        assert(!ipc_->queue && !ipc_->in_flight && !ipc_->spare_contexts);
        std::free(ipc_);
    }
    EndpointPin(const EndpointPin &) = delete;
    EndpointPin &operator=(const EndpointPin &) = delete;

  private:
    tav_ipc_st *ipc_;
};

// A guarded operation on an endpoint (null allowed): pins the record, counts itself in use_count, and reports
// in the log when another thread is inside one at the same time. It never blocks or fails. Nesting on one
// thread is normal. The log line may destroy the endpoint.
class UseGuard {
  public:
    UseGuard(tav_ipc_st *ipc, const char *label) : pin_(ipc), ipc_(ipc) {
        if (!ipc_) return;
        const int users = atomic_add_and_fetch(&ipc_->use_count, 1);
        const pthread_t self = pthread_self();
        if (users == 1)
            owner(ipc_).store(self, std::memory_order_relaxed);
        else if (users > 1)
            report_other_thread(users, self, label);
    }
    ~UseGuard();
    UseGuard(const UseGuard &) = delete;
    UseGuard &operator=(const UseGuard &) = delete;

  private:
    // The first thread inside writes it while a second one may read it: the guard exists to report that.
    static std::atomic_ref<pthread_t> owner(tav_ipc_st *ipc) { return std::atomic_ref(ipc->owner_thread); }
    void report_other_thread(int users, pthread_t self, const char *label) const;

    const EndpointPin pin_; // first: it outlasts the count
    tav_ipc_st *ipc_;
};

// Arms the hourly release of destinations that were not used for an hour, unless it is armed. Called again
// whenever a destination is made, so a timer that could not be had once is only late.
void arm_destination_sweep(tav_ipc_st *ipc);

// For tests: forgets the process's host id.
void reset_host_id();

} // namespace tavipc
