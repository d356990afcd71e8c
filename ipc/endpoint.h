// The endpoint handle: its record, who may still touch it, and the guard that reports use from two threads.
//
// States: open -> closed (tav_ipc_destroy has begun; `queue` is null once the sockets are gone) -> released.
// A callback may destroy the endpoint that calls it, so every frame that can reach user code, or that
// touches the handle afterwards, is inside the guard or holds a pin: the record is released when it is closed
// and the last of both is gone. A frame that returns from a callback looks at `closed` before it uses
// anything but the record.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <type_traits>

#include "common/owned.h"
#include "tavipc/ipc_queue.h"
#include "tavipc/ipc_req_manager.h"
#include "tavipc/tav_ipc.h"

namespace tavipc {
struct SendContext;
struct FragmentSet;
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
    uint32_t pins;                  // atomic as use_count is: a reported second thread must not unbalance it
    tavipc::SendContext *in_flight; // sends whose completion has not come, newest first
    struct {
        tavipc::FragmentSet *oldest, *newest; // by their last fragment
        size_t held;                          // about the bytes of memory that all of them take
    } frag_sets;                              // of frag_table
    struct {
        unsigned char *buffer; // null: none
        size_t size;
        time_t since;
    } spare; // a large buffer that a message was rebuilt in, for the next one
    struct {
        char pipe[16]; // empty: none yet
        const char *deploy_type;
        cl_sockaddr_t address;
    } last_sent; // the pipe that was sent to last, and where that is
};
static_assert(std::is_standard_layout_v<tav_ipc_st> && std::is_trivial_v<tav_ipc_st>);
static_assert(offsetof(tav_ipc_st, my_addr) == 0);

namespace tavipc {

// Keeps the record of an endpoint (null allowed) until the frame is left.
class EndpointPin {
  public:
    explicit EndpointPin(tav_ipc_st *ipc) : ipc_(ipc) {
        if (ipc_) std::atomic_ref(ipc_->pins).fetch_add(1);
    }
    ~EndpointPin() {
        if (ipc_ && std::atomic_ref(ipc_->pins).fetch_sub(1) == 1 && ipc_->closed && ipc_->use_count == 0)
            std::free(ipc_);
    }
    EndpointPin(const EndpointPin &) = delete;
    EndpointPin &operator=(const EndpointPin &) = delete;

  private:
    tav_ipc_st *ipc_;
};

// A guarded operation on an endpoint (null allowed): keeps the record, and reports in the log when another
// thread is inside one at the same time. It never blocks or fails; nesting on one thread is normal.
class UseGuard {
  public:
    UseGuard(tav_ipc_st *ipc, const char *label);
    ~UseGuard();
    UseGuard(const UseGuard &) = delete;
    UseGuard &operator=(const UseGuard &) = delete;

  private:
    tav_ipc_st *ipc_;
};

} // namespace tavipc
