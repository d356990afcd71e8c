// One thread's turn of events, hung onto a libuv loop by four handles of our own.
//
// A turn of libuv, as we use it:
//   prepare   callbacks of finished sends; then the wake-up for the first timer is set
//   poll      waits; sockets become readable (datagrams delivered) or writable (waiting sends leave)
//   check     timers that are due; then callbacks of finished sends
// The wake-up only ends the wait: whether a timer is due is decided by our own clock, in the check phase.
// An idle handle is on only while there is something to do without waiting, which makes the poll return at
// once (nudge). Each phase works off what was there when it began: what its callbacks add comes in a later
// one. All callbacks may run the loop again, so every phase takes an item out before it calls back.
//
// The loop is alive (the prepare handle referenced) while held_ is not 0: one for each timer of a user,
// receiving socket and send that is not yet reported. All other handles are unreferenced.
#pragma once

#include <cstdint>
#include <memory>
#include <uv.h>

#include "common/unique_fd.h"
#include "fd_watch.h"
#include "send_queue.h"
#include "timers.h"

namespace tavcl_ev {

class Loop {
  public:
    // Marks that user code may be on the stack.
    class Callbacks {
      public:
        explicit Callbacks(Loop &loop) noexcept : loop_(loop) { ++loop_.callback_depth_; }
        ~Callbacks() { --loop_.callback_depth_; }
        Callbacks(const Callbacks &) = delete;
        Callbacks &operator=(const Callbacks &) = delete;

      private:
        Loop &loop_;
    };

    // On a loop of its own, or on the caller's. Null when there are no descriptors or no memory.
    static std::unique_ptr<Loop> make(uv_loop_t *foreign) noexcept;
    // Waits for libuv to let go of every handle; all that used the loop is closed by then.
    ~Loop();
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    int run() noexcept;
    int run_once(int timeout_ms) noexcept;
    void stop() noexcept;
    bool in_use() const noexcept { return callback_depth_ > 0 || frame_; }

    // due_ms on clock_ms(). Returns 0 when memory is short.
    uint64_t start_timer(uint64_t due_ms, void (*callback)(void *), void *argument,
                         bool keeps_alive) noexcept;
    void stop_timer(uint64_t id) noexcept;

    // A record for a send, which counts as unreported from here; null when memory is short.
    Send *begin_send() noexcept;
    // Hands over a record whose outcome is known: its callback runs in a later phase.
    void finish(Send *send, int status) noexcept;
    // Reports what is finished now, if it is so many bytes or more, up to the first with another callback.
    void settle(size_t bytes, cl_dunix_send_cb callback) noexcept {
        if (finished_bytes_ >= bytes) report_finished(callback);
    }
    // Takes back the finished sends of a socket that is closing; each goes through report() then.
    SendQueue take_finished(cl_dunix_t socket) noexcept;
    // Calls the callback and frees the record.
    void report(Send *send, int status) noexcept;

    void hold() noexcept;
    void drop() noexcept;
    void count_callback() noexcept { ++callbacks_run_; }

    uint64_t send_wait_ms() const noexcept { return send_wait_ms_; }
    void set_send_wait_ms(uint64_t wait_ms) noexcept { send_wait_ms_ = wait_ms; }

    // The channels with a descriptor of all sockets: at most a quarter of what the process may have open, and
    // 256.
    bool may_open_channel() const noexcept { return channels_ < most_channels_; }
    void channel_opened() noexcept { ++channels_; }
    void channel_closed() noexcept { --channels_; }

    uv_loop_t *uv() noexcept { return uv_; }
    // Every libuv handle on this loop, from its making to the end of its closing; none keeps it alive.
    void adopt(uv_handle_t *handle) noexcept;
    void disown() noexcept { --handles_; }

  private:
    // One active run() or run_once(), on the stack.
    struct Frame {
        Frame *outer;
        bool once;
        bool stopped;
        uint64_t callbacks_before;
    };

    Loop() = default;
    bool open(uv_loop_t *foreign) noexcept;
    void before_poll() noexcept;
    void after_poll() noexcept;
    void report_finished(cl_dunix_send_cb only = nullptr) noexcept;
    void fire_timers() noexcept;
    void wake_for_timers() noexcept;
    void woken() noexcept;
    void nudge() noexcept { set_idle(true); }
    void set_idle(bool on) noexcept;

    uv_loop_t own_uv_{};
    uv_loop_t *uv_ = nullptr;
    uv_prepare_t prepare_{};
    uv_check_t check_{};
    uv_idle_t idle_{};
    tavipc::UniqueFd wake_fd_; // a timer of the kernel's: a turn that only waits does not set one anew
    FdWatch wake_watch_;
    unsigned handles_ = 0;
    bool idling_ = false;

    TimerHeap timers_;
    uint64_t wake_up_ms_ = kNever; // for which wake_fd_ is set; it may ring too early, never too late

    SendPool sends_;
    SendQueue finished_;
    uint64_t last_finished_ = 0;
    size_t finished_bytes_ = 0; // of finished_
    uint64_t send_wait_ms_ = 1000;

    unsigned channels_ = 0;
    unsigned most_channels_ = 0;

    size_t held_ = 0;
    uint64_t callbacks_run_ = 0;
    unsigned callback_depth_ = 0;
    Frame *frame_ = nullptr;
};

} // namespace tavcl_ev
