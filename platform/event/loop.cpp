#include "loop.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "loop_registry.h"

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

// A number that an operator has set in the environment; 0 when there is none.
uint32_t setting(const char *name) {
    const char *text = std::getenv(name);
    uint32_t value = 0;
    if (!text) return 0;
    const char *end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, value);
    return error == std::errc() && stop == end ? value : 0;
}

template <class Handle> Loop &loop_of(Handle *handle) { return *static_cast<Loop *>(handle->data); }

} // namespace

std::unique_ptr<Loop> Loop::make(uv_loop_t *foreign) noexcept {
    std::unique_ptr<Loop> loop(new (std::nothrow) Loop);
    if (loop && !loop->open(foreign)) {
        const int error = errno; // the reason
        loop.reset();
        errno = error;
    }
    return loop;
}

bool Loop::open(uv_loop_t *foreign) noexcept {
    if (!uv_.open(foreign)) return false;
    most_channels_ = channels_allowed();
    set_busy_poll_us(setting("TAV_BUSY_POLL_US"));
    batches_.set(setting("TAV_BATCH_DATAGRAMS"), setting("TAV_BATCH_US"));
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
    wake_fd_ = PrivateFd::of(
        [] { return tavipc::UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)); });
    const auto woken = [](void *self) { static_cast<Loop *>(self)->woken(); };
    const auto rung = [](void *self) { static_cast<Loop *>(self)->rung(); };
    if (!wake_fd_ || !wake_watch_.open(uv_, wake_fd_.get(), woken, this) || !wake_watch_.start_reading() ||
        !mailbox_.open() || !mailbox_watch_.open(uv_, mailbox_.fd(), rung, this) ||
        !mailbox_watch_.start_reading())
        return false;
    uv_.forget_changes(); // embed() watches these two itself
    return true;
}

// It may be in use, when a callback calls exit: its frames never return then.
Loop::~Loop() {
    assert(finished_.empty());
    assert(channels_ == 0);
    release_handle();
    wake_watch_.close();
    mailbox_watch_.close();
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
    while (Send *send = finished_.first()) {
        finished_.remove(send);
        report(send, CL_EV_CANCELLED);
    }
    timers_.clear();
    wake_watch_.close();
    wake_fd_.reset();
    mailbox_watch_.close();
    mailbox_.clear();
    mailbox_.close();
    embedding_.reset();
    handle_ = 0; // all handles are stale
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
    loop.busy_poll_.begin();
}

Loop::Frame::~Frame() {
    assert(loop.frame_ == this);
    loop.frame_ = outer;
    loop.reporting_ = was_reporting;
    if (loop.abandoned_) return;
    loop.batches_.send_all();
    loop.prepare_other_loops_wait();
}

int Loop::run() noexcept {
    const Frame frame(*this, false);
    while (!frame.stopped && alive()) {
        if (held_ > 0)
            uv_run(uv_.get(), UV_RUN_ONCE);
        else
            turn_at_once();
    }
    return frame.stopped ? 1 : 0;
}

int Loop::run_once(int timeout_ms) noexcept {
    const Frame frame(*this, true);
    const uint64_t end = timeout_ms < 0 ? kNever : later(clock_ms(), static_cast<uint64_t>(timeout_ms));
    const auto nothing = [](void *) {};
    const uint64_t timer = timeout_ms > 0 ? start_timer(end, nothing, nullptr, false) : 0;
    set_idle(!finished_.empty()); // start_timer may have turned the idle handle on: the turn would not wait
    if (held_ == 0 && mailbox_.pending()) {
        turn_at_once();
    } else if (timeout_ms >= 0 && !timer) {
        uv_run(uv_.get(), UV_RUN_NOWAIT);
    } else {
        // Housekeeping also ends a wait. On the caller's loop it cannot be told from the caller's own events.
        do uv_run(uv_.get(), UV_RUN_ONCE);
        while (!uv_.foreign() && held_ > 0 && callbacks_run_ == frame.callbacks_before && clock_ms() < end);
    }
    stop_timer(timer);
    return alive() ? 1 : 0;
}

int Loop::dispatch() noexcept {
    const Frame frame(*this, true);
    turn_at_once();
    return alive() ? 1 : 0;
}

// libuv does nothing on a loop that nothing keeps alive. But functions can be waiting, and another loop may
// wait for our housekeeping.
void Loop::turn_at_once() noexcept {
    hold();
    uv_run(uv_.get(), UV_RUN_NOWAIT);
    if (!abandoned_) drop(); // else a callback has forked, and this is the child
}

// The frame keeps the stop: uv_stop would end the innermost uv_run, which may be one inside the run that is
// meant, or the caller's own. A signal handler may call this at any point: a turn that is about to wait looks
// at `stopped` after it has said that it waits. A single turn inside the run looks only at its own frame.
void Loop::stop() noexcept {
    Frame *const innermost = frame_;
    Frame *frame = innermost;
    while (frame && frame->once) frame = frame->outer;
    if (!frame) return;
    frame->stopped = true;
    if (uv_.waiting() || innermost != frame) mailbox_.ring();
}

void Loop::before_poll() noexcept {
    batches_.send_all();
    report_finished();
    uv_.set_waiting(true);
    const Frame *frame = frame_;
    const bool once = frame && frame->once;
    const bool had_its_turn = once && callbacks_run_ != frame->callbacks_before;
    set_idle(!finished_.empty() || !batches_.empty() || had_its_turn || (frame && frame->stopped) ||
             looks_again(once));
    if (!idling_) wake_for_timers();
    uv_.forget_changes();
}

// Whether the turn that begins does not wait, to find what comes soon. On the caller's loop run_once cannot
// repeat a turn without work: it would return without a wait. Short polls would make that loop turn without
// being asked, so they are for loops of our own.
bool Loop::looks_again(bool once) noexcept {
    if (busy_poll_.on()) return !(once && uv_.foreign()) && busy_poll_.spins(callbacks_run_);
    return !uv_.foreign() && short_poll_.looks(callbacks_run_);
}

// Idle goes off here and not only before the next poll, because libuv checks it at the very start of a turn.
void Loop::after_poll() noexcept {
    uv_.set_waiting(false);
    fire_timers();
    report_finished();
    set_idle(!finished_.empty() || (uv_.foreign() && !batches_.empty()));
    // The caller may wait for its loop's descriptor in place of libuv, without a prepare phase.
    if (uv_.foreign() && !idling_) wake_for_timers();
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

// A ring counts as a callback, so that a single turn ends.
void Loop::rung() noexcept {
    mailbox_.silence();
    count_callback();
    if (const uint64_t caught = mailbox_.take_caught(); caught && on_signals_)
        on_signals_(signals_owner_, caught);
    mailbox_.run_posted([this] { count_callback(); });
}

// --- other loops and threads ------------------------------------------------------------------------

int Loop::embed() noexcept {
    if (uv_.foreign()) return -1;
    if (embedding_) return embedding_.get();
    PrivateFd set = PrivateFd::of([] { return tavipc::UniqueFd(epoll_create1(EPOLL_CLOEXEC)); });
    if (!set) return -1;
    for (const int fd : {uv_backend_fd(uv_.get()), wake_fd_.get(), mailbox_.fd()}) {
        epoll_event readable{EPOLLIN, {.fd = fd}};
        if (epoll_ctl(set.get(), EPOLL_CTL_ADD, fd, &readable) != 0) return -1;
    }
    embedding_ = std::move(set);
    const auto changed = [](void *self) {
        auto *loop = static_cast<Loop *>(self);
        if (loop->other_loop_waits()) loop->mailbox_.ring();
    };
    uv_.on_change(changed, this);
    prepare_other_loops_wait();
    return embedding_.get();
}

void Loop::prepare_other_loops_wait() noexcept {
    if (!other_loop_waits()) return;
    if (!finished_.empty() || uv_.changed()) mailbox_.ring();
    wake_for_timers();
}

int Loop::timeout_ms() const noexcept {
    if (!finished_.empty() || !batches_.empty() || mailbox_.pending() || uv_.changed()) return 0;
    const uint64_t due = timers_.next_due_ms();
    const uint64_t now = clock_ms();
    if (due == kNever) return -1;
    return due <= now ? 0 : static_cast<int>(std::min<uint64_t>(due - now, INT_MAX));
}

uint64_t Loop::handle() noexcept {
    if (!handle_) handle_ = enlist(mailbox_);
    return handle_;
}

void Loop::release_handle() noexcept { delist(std::exchange(handle_, 0)); }

// --- timers -------------------------------------------------------------------------------------------

// libuv's time is that of the end of its wait, and costs nothing. It may be a millisecond late: libuv reads a
// coarse clock if that has such a resolution. What has become due since the wait ends the next one at once.
void Loop::fire_timers() noexcept {
    if (timers_.next_due_ms() > uv_now(uv_.get()) + 1) return;
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
    if (first) other_loop_waits() ? wake_for_timers() : nudge();
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
