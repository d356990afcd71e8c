// One thread's events, attached to a libuv loop by four handles of our own.
//
// One turn of libuv, as used here:
//   prepare   callbacks of finished sends; then the wake-up for the first timer is set
//   poll      waits; sockets become readable (datagrams are delivered) or writable (waiting sends leave)
//   check     timers that are due; then callbacks of finished sends
// The wake-up only ends the wait. Our own clock decides in the check phase whether a timer is due.
// The idle handle is active only while there is work that needs no wait; the poll then returns at once
// (nudge). Each phase handles what was there when it began; what its callbacks add comes in a later phase. A
// callback may run the loop again, so every phase takes an item out of its list before it calls back.
//
// If the loop batches (batches.h), the prepare phase first sends all batches. If it polls busily
// (busy_poll.h), the prepare phase keeps the idle handle active for that time; if not, for a few turns while
// work comes fast (short_poll.h).
//
// The loop is alive (the prepare handle is referenced) while held_ is not 0: one for each timer of a user,
// each receiving socket, each watch for a descriptor or signal, and each send that is not yet reported. All
// other handles are unreferenced.
//
// In the poll phase the mailbox is emptied, too: functions and signals from other threads, and rings, which
// only end the wait. stop() and what it reads may run in a signal handler on the loop's thread.
//
// Embedded (embed): another loop waits for a descriptor in place of libuv's poll. Whatever then needs a turn
// outside of our frames rings the mailbox or sets the kernel timer; the end of the outermost frame does so
// for what the turn has left. That is also how libuv gets to add new descriptors to its epoll set.
//
// A forked child abandons the loop that it inherits. Nothing is left in it then, so every phase, and every
// frame of run that is still on the stack, finds nothing to do and returns.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "batches.h"
#include "busy_poll.h"
#include "fd_watch.h"
#include "mailbox.h"
#include "private_fd.h"
#include "send_queue.h"
#include "short_poll.h"
#include "timers.h"
#include "uv_loop.h"

namespace tavcl_ev {

class Loop {
  public:
    // On a libuv loop of its own, or on the caller's. Null without descriptors or memory for it.
    static std::unique_ptr<Loop> make(uv_loop_t *foreign) noexcept;
    // Waits until libuv has let go of every handle. All sockets of the loop are closed by then.
    ~Loop();
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    int run() noexcept;
    int run_once(int timeout_ms) noexcept;
    int dispatch() noexcept;
    void stop() noexcept; // async-signal-safe on the loop's thread
    bool in_use() const noexcept { return uv_.in_callback() || frame_; }

    // A descriptor that is readable when dispatch() has work; -1 on failure and on the caller's loop.
    int embed() noexcept;
    int timeout_ms() const noexcept;
    // The handle for other threads; 0 when there is none left. release_handle makes it stale.
    uint64_t handle() noexcept;
    void release_handle() noexcept;
    Mailbox &mailbox() noexcept { return mailbox_; }
    void on_signals(void (*handler)(void *owner, uint64_t caught), void *owner) noexcept {
        on_signals_ = handler;
        signals_owner_ = owner;
    }

    // due_ms on clock_ms(). Returns 0 when memory is short.
    uint64_t start_timer(uint64_t due_ms, void (*callback)(void *), void *argument,
                         bool keeps_alive) noexcept;
    void stop_timer(uint64_t id) noexcept;

    // A record for a send, which counts as unreported from here on; null when memory is short.
    Send *begin_send() noexcept;
    // Takes a record whose outcome is known. Its callback runs in a later phase.
    void finish(Send *send, int status) noexcept;
    // Reports what has left so far, if its data total at least `bytes`, up to the first send with another
    // callback; with 0 bytes the batches leave before. Does nothing inside such a callback: the frame that
    // called it goes on with the rest, and the stack does not grow with the number of sends.
    void settle(size_t bytes, cl_dunix_send_cb callback) noexcept {
        if (finished_.left_bytes() < bytes || reporting_) return;
        if (bytes == 0) batches_.send_all();
        report_finished(callback);
    }
    // Takes out the finished sends of a socket that is closing. Each then goes through report().
    SendQueue take_finished(cl_dunix_t socket) noexcept { return finished_.take(socket); }
    // Frees the record and calls its callback, except in a child that has abandoned the loop.
    void report(Send *send, int status) noexcept;

    void hold() noexcept;
    void drop() noexcept;
    void count_callback() noexcept { ++callbacks_run_; }
    // Datagrams that callers gave to the thread's sockets so far.
    uint64_t sends() const noexcept { return sends_begun_; }
    void count_send() noexcept { ++sends_begun_; }

    uint64_t send_wait_ms() const noexcept { return send_wait_ms_; }
    void set_send_wait_ms(uint64_t wait_ms) noexcept { send_wait_ms_ = wait_ms; }

    void set_busy_poll_us(uint32_t limit_us) noexcept { busy_poll_.set(limit_us); }
    Batches &batches() noexcept { return batches_; }
    // Makes sure that a turn comes soon and does not wait.
    void nudge() noexcept {
        set_idle(true);
        if (other_loop_waits()) mailbox_.ring();
    }

    // Counts the channels with a descriptor, of all sockets together.
    bool may_open_channel() const noexcept { return channels_ < most_channels_; }
    void channel_opened() noexcept { ++channels_; }
    void channel_closed() noexcept;

    UvLoop &uv() noexcept { return uv_; }

    // The two steps of a forked child, on the thread of the loop. First libuv is separated from the parent's
    // epoll set; then, when the sockets are closed, all that is left is dropped without a callback.
    void enter_child() noexcept;
    void abandon() noexcept;
    bool abandoned() const noexcept { return abandoned_; }

  private:
    // One active run() or run_once(), on the stack.
    struct Frame {
        Frame(Loop &on, bool is_once) noexcept;
        ~Frame();
        Frame(const Frame &) = delete;
        Frame &operator=(const Frame &) = delete;

        Loop &loop;
        Frame *const outer;
        const bool once;
        std::atomic<bool> stopped{false};
        const uint64_t callbacks_before;
        const bool was_reporting;
    };

    Loop() = default;
    bool open(uv_loop_t *foreign) noexcept;
    void before_poll() noexcept;
    bool looks_again(bool once) noexcept;
    void after_poll() noexcept;
    // With a callback, only sends that left, up to the first one with another callback.
    void report_finished(cl_dunix_send_cb only = nullptr) noexcept;
    void fire_timers() noexcept;
    void wake_for_timers() noexcept;
    void woken() noexcept;
    void rung() noexcept;
    bool alive() const noexcept { return held_ > 0 || mailbox_.pending(); }
    void turn_at_once() noexcept;
    bool other_loop_waits() const noexcept { return embedding_ && !frame_; }
    void prepare_other_loops_wait() noexcept;
    void set_idle(bool on) noexcept;

    UvLoop uv_;
    uv_prepare_t prepare_{};
    uv_check_t check_{};
    uv_idle_t idle_{};
    bool handles_made_ = false;
    bool idling_ = false;
    bool abandoned_ = false;
    PrivateFd wake_fd_; // a kernel timer: a turn that only waits does not have to set one
    FdWatch wake_watch_;
    Mailbox mailbox_;
    FdWatch mailbox_watch_;
    uint64_t handle_ = 0; // of the mailbox, once it is asked for
    void (*on_signals_)(void *owner, uint64_t caught) = nullptr;
    void *signals_owner_ = nullptr;
    PrivateFd embedding_; // an epoll set with libuv's, wake_fd_ and the mailbox

    TimerHeap timers_;
    uint64_t wake_up_ms_ = kNever; // the time that wake_fd_ is set to; it may be too early, never too late

    SendPool sends_;
    FinishedSends finished_;
    uint64_t last_finished_ = 0;
    bool reporting_ = false; // report_finished is the innermost of our frames on the stack
    uint64_t send_wait_ms_ = kDefaultSendWait_ms;
    static constexpr uint64_t kDefaultSendWait_ms = 1000; // documented in tavcl_ev.h

    Batches batches_;
    BusyPoll busy_poll_;
    ShortPoll short_poll_;

    unsigned channels_ = 0;
    unsigned most_channels_ = 0;

    size_t held_ = 0;
    uint64_t callbacks_run_ = 0;
    uint64_t sends_begun_ = 0;
    std::atomic<Frame *> frame_{nullptr}; // the innermost
};

} // namespace tavcl_ev
