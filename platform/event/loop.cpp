#include "loop.h"

#include <algorithm>
#include <cassert>
#include <new>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace tavcl_ev {

namespace {

// A wait for a far timer is cut into days, so that no time overflows the kernel's types.
constexpr uint64_t kLongestWait_ms = 24ull * 60 * 60 * 1000;
// Channels with a descriptor. Enough that a hub's destinations each keep theirs; a quarter of what the
// process may open leaves the rest to the program.
constexpr rlim_t kMostChannels = 256;

unsigned channels_allowed() {
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) != 0) return kMostChannels;
    return static_cast<unsigned>(std::min(kMostChannels, files.rlim_cur / 4));
}

template <class Handle> Loop &loop_of(Handle *handle) { return *static_cast<Loop *>(handle->data); }

} // namespace

std::unique_ptr<Loop> Loop::make(uv_loop_t *foreign) noexcept {
    std::unique_ptr<Loop> loop(new (std::nothrow) Loop);
    if (loop && !loop->open(foreign)) loop.reset();
    return loop;
}

bool Loop::open(uv_loop_t *foreign) noexcept {
    if (!uv_.open(foreign)) return false;
    most_channels_ = channels_allowed();
    uv_prepare_init(uv_.get(), &prepare_);
    uv_check_init(uv_.get(), &check_);
    uv_idle_init(uv_.get(), &idle_);
    for (uv_handle_t *handle : {as_handle(&prepare_), as_handle(&check_), as_handle(&idle_)}) {
        handle->data = this;
        uv_.adopt(handle);
    }
    handles_made_ = true;
    uv_prepare_start(&prepare_, [](uv_prepare_t *handle) { loop_of(handle).before_poll(); });
    uv_check_start(&check_, [](uv_check_t *handle) { loop_of(handle).after_poll(); });
    wake_fd_ = PrivateFd(tavipc::UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)));
    const auto rings = [](void *self) { static_cast<Loop *>(self)->woken(); };
    return wake_fd_ && wake_watch_.open(uv_, wake_fd_.get(), rings, this) && wake_watch_.start_reading();
}

// It may be in use, when a callback calls exit: its frames never return then.
Loop::~Loop() {
    assert(finished_.empty());
    assert(channels_ == 0);
    wake_watch_.close();
    if (!handles_made_) return;
    for (uv_handle_t *handle : {as_handle(&prepare_), as_handle(&check_), as_handle(&idle_)})
        uv_close(handle, [](uv_handle_t *closed) { loop_of(closed).uv_.disown(); });
    uv_.wait_until_closed();
}

void Loop::enter_child() noexcept {
    abandoned_ = true;
    uv_.enter_child();
}

// Stopping the handles only changes memory, also on the caller's loop. They stay in that loop's lists, so
// this object stays as well (see ThreadEvents).
void Loop::abandon() noexcept {
    for (SendQueue finished = std::move(finished_); !finished.empty();)
        report(finished.pop(), CL_EV_CANCELLED);
    finished_bytes_ = 0;
    timers_.clear();
    wake_watch_.close();
    wake_fd_.reset();
    assert(channels_ == 0);
    if (held_ > 0) uv_unref(as_handle(&prepare_));
    held_ = 0;
    set_idle(false);
    uv_prepare_stop(&prepare_);
    uv_check_stop(&check_);
}

Loop::Frame::Frame(Loop &on, bool is_once) noexcept
    : loop(on), outer(on.frame_), once(is_once), callbacks_before(on.callbacks_run_),
      was_reporting(on.reporting_) {
    loop.frame_ = this;
    loop.reporting_ = false;
}

Loop::Frame::~Frame() {
    assert(loop.frame_ == this);
    loop.frame_ = outer;
    loop.reporting_ = was_reporting;
}

int Loop::run() noexcept {
    const Frame frame(*this, false);
    while (!frame.stopped && held_ > 0) uv_run(uv_.get(), UV_RUN_ONCE);
    return frame.stopped ? 1 : 0;
}

int Loop::run_once(int timeout_ms) noexcept {
    const Frame frame(*this, true);
    const uint64_t end = timeout_ms < 0 ? kNever : later(clock_ms(), static_cast<uint64_t>(timeout_ms));
    const auto nothing = [](void *) {};
    const uint64_t timer = timeout_ms > 0 ? start_timer(end, nothing, nullptr, false) : 0;
    if (timeout_ms >= 0 && !timer) {
        uv_run(uv_.get(), UV_RUN_NOWAIT);
    } else {
        // Housekeeping also ends a wait. On the caller's loop it cannot be told from the caller's own events.
        do uv_run(uv_.get(), UV_RUN_ONCE);
        while (!uv_.foreign() && held_ > 0 && callbacks_run_ == frame.callbacks_before && clock_ms() < end);
        stop_timer(timer);
    }
    return held_ > 0 ? 1 : 0;
}

// The frame keeps the stop: uv_stop would end the innermost uv_run, which may be one inside the run that is
// meant, or the caller's own.
void Loop::stop() noexcept {
    Frame *frame = frame_;
    while (frame && frame->once) frame = frame->outer;
    if (!frame) return;
    frame->stopped = true;
    nudge();
}

void Loop::before_poll() noexcept {
    report_finished();
    const bool had_its_turn = frame_ && frame_->once && callbacks_run_ != frame_->callbacks_before;
    set_idle(!finished_.empty() || had_its_turn || (frame_ && frame_->stopped));
    if (!idling_) wake_for_timers();
}

// Idle goes off here and not only before the next poll, because libuv checks it at the very start of a turn.
void Loop::after_poll() noexcept {
    fire_timers();
    report_finished();
    set_idle(!finished_.empty());
}

void Loop::wake_for_timers() noexcept {
    const uint64_t due = timers_.next_due_ms();
    if (due >= wake_up_ms_) return;
    if (due <= clock_ms()) return nudge();
    itimerspec at{};
    const uint64_t wait_until = std::min(due, clock_ms() + kLongestWait_ms);
    at.it_value.tv_sec = static_cast<time_t>(wait_until / 1000);
    at.it_value.tv_nsec = static_cast<long>(wait_until % 1000 * 1'000'000);
    if (timerfd_settime(wake_fd_.get(), TFD_TIMER_ABSTIME, &at, nullptr) == 0) wake_up_ms_ = wait_until;
}

void Loop::woken() noexcept {
    uint64_t times;
    if (read(wake_fd_.get(), &times, sizeof times) > 0) wake_up_ms_ = kNever;
}

void Loop::fire_timers() noexcept {
    if (timers_.next_due_ms() == kNever) return;
    const UvLoop::Callbacks guard(uv_);
    const uint64_t now = clock_ms();
    const uint64_t started_until = timers_.last_started();
    Timer timer;
    while (timers_.take_due(now, started_until, &timer)) {
        if (timer.keeps_alive) {
            drop();
            count_callback();
        }
        timer.callback(timer.argument);
    }
}

uint64_t Loop::start_timer(uint64_t due_ms, void (*callback)(void *), void *argument,
                           bool keeps_alive) noexcept {
    const bool first = due_ms < timers_.next_due_ms();
    const uint64_t id = timers_.start(due_ms, {callback, argument, keeps_alive, 0});
    if (!id) return 0;
    if (keeps_alive) hold();
    if (first) nudge();
    return id;
}

void Loop::stop_timer(uint64_t id) noexcept {
    Timer timer;
    if (timers_.stop(id, &timer) && timer.keeps_alive) drop();
}

void Loop::channel_closed() noexcept {
    assert(channels_ > 0);
    --channels_;
}

Send *Loop::begin_send() noexcept {
    Send *send = sends_.take();
    if (send) hold();
    return send;
}

void Loop::finish(Send *send, int status) noexcept {
    send->status = status;
    send->order = ++last_finished_;
    if (finished_.empty()) nudge();
    finished_.push(send);
    finished_bytes_ += send->len;
}

void Loop::report_finished(cl_dunix_send_cb only) noexcept {
    if (finished_.empty()) return;
    const UvLoop::Callbacks guard(uv_);
    const bool was_reporting = std::exchange(reporting_, true);
    const uint64_t until = last_finished_;
    while (!finished_.empty() && finished_.front()->order <= until) {
        if (only && finished_.front()->callback != only) break;
        Send *send = finished_.pop();
        assert(finished_bytes_ >= send->len);
        finished_bytes_ -= send->len;
        report(send, send->status);
    }
    reporting_ = was_reporting;
}

void Loop::report(Send *send, int status) noexcept {
    const Send copy = *send;
    sends_.give_back(send);
    if (abandoned_) return;
    drop();
    count_callback();
    if (copy.callback) copy.callback(copy.socket, status, copy.context);
}

SendQueue Loop::take_finished(cl_dunix_t socket) noexcept {
    SendQueue taken, others;
    while (!finished_.empty()) {
        Send *send = finished_.pop();
        const bool ours = send->socket == socket;
        if (ours) finished_bytes_ -= send->len;
        (ours ? taken : others).push(send);
    }
    finished_.append(std::move(others));
    return taken;
}

void Loop::hold() noexcept {
    if (held_++ == 0) uv_ref(as_handle(&prepare_));
}

void Loop::drop() noexcept {
    assert(held_ > 0);
    if (--held_ == 0) uv_unref(as_handle(&prepare_));
}

void Loop::set_idle(bool on) noexcept {
    if (idling_ == on) return;
    idling_ = on;
    if (on)
        uv_idle_start(&idle_, [](uv_idle_t *) {});
    else
        uv_idle_stop(&idle_);
}

} // namespace tavcl_ev
