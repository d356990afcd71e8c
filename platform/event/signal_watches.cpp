#include "signal_watches.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <csignal>
#include <mutex>

#include "loop.h"
#include "loop_registry.h"

namespace tavcl_ev {

namespace {

constexpr int kLastSignal = 64; // on Linux, and the bits of a mask

struct Disposition {
    size_t watches;
    struct sigaction before;
};
std::mutex g_mutex;
std::array<Disposition, kLastSignal + 1> g_dispositions{};
std::atomic<cl_signal_t> g_last_id{0};

void on_signal(int signo) { catch_signal_in_all(signo); }

bool add_watch(int signo) {
    const std::lock_guard lock(g_mutex);
    Disposition &disposition = g_dispositions[static_cast<size_t>(signo)];
    if (disposition.watches == 0) {
        struct sigaction ours {};
        ours.sa_handler = on_signal;
        ours.sa_flags = SA_RESTART;
        sigfillset(&ours.sa_mask);
        if (sigaction(signo, &ours, &disposition.before) != 0) return false;
    }
    ++disposition.watches;
    return true;
}

void restore(int signo) {
    struct sigaction now {};
    sigaction(signo, nullptr, &now);
    if (!(now.sa_flags & SA_SIGINFO) && now.sa_handler == on_signal)
        sigaction(signo, &g_dispositions[static_cast<size_t>(signo)].before, nullptr);
}

void remove_watch(int signo) {
    const std::lock_guard lock(g_mutex);
    if (--g_dispositions[static_cast<size_t>(signo)].watches == 0) restore(signo);
}

// A program cannot go on after these: the instruction would fail again.
bool is_fault(int signo) { return signo == SIGSEGV || signo == SIGBUS || signo == SIGFPE || signo == SIGILL; }

} // namespace

cl_signal_t SignalWatches::start(int signo, cl_signal_cb callback, void *argument) {
    if (!callback || signo < 1 || signo > kLastSignal || is_fault(signo)) return errno = EINVAL, 0;
    if (!loop_.handle()) return errno = ENOMEM, 0;
    loop_.on_signals([](void *self, uint64_t caught) { static_cast<SignalWatches *>(self)->run(caught); },
                     this);
    watches_.push_back({++g_last_id, signo, callback, argument});
    const cl_signal_t id = watches_.back().id;
    set_mask(); // before the handler: no signal is missed
    if (!add_watch(signo)) {
        watches_.pop_back();
        set_mask();
        return 0;
    }
    loop_.hold();
    return id;
}

void SignalWatches::stop(cl_signal_t id) noexcept {
    const auto found =
        std::find_if(watches_.begin(), watches_.end(), [id](const Watch &watch) { return watch.id == id; });
    if (found == watches_.end()) return;
    const int signo = found->signo;
    watches_.erase(found);
    remove_watch(signo);
    set_mask();
    if (std::none_of(watches_.begin(), watches_.end(),
                     [signo](const Watch &watch) { return watch.signo == signo; }))
        loop_.mailbox().forget_caught(signo);
    loop_.drop();
}

void SignalWatches::close() noexcept {
    if (!loop_.abandoned())
        while (!watches_.empty()) stop(watches_.back().id);
    watches_.clear();
}

void SignalWatches::run(uint64_t caught) noexcept {
    for (; caught; caught &= caught - 1) call_watches(std::countr_zero(caught) + 1);
}

// A callback may start and stop watches. One that it starts is not called for this delivery.
void SignalWatches::call_watches(int signo) noexcept {
    const cl_signal_t newest = watches_.empty() ? 0 : watches_.back().id;
    for (cl_signal_t last = 0;;) {
        const auto next = std::find_if(watches_.begin(), watches_.end(), [&](const Watch &watch) {
            return watch.id > last && watch.id <= newest && watch.signo == signo;
        });
        if (next == watches_.end()) return;
        const Watch watch = *next;
        last = watch.id;
        loop_.count_callback();
        watch.callback(watch.id, signo, watch.argument);
    }
}

void SignalWatches::set_mask() const noexcept {
    uint64_t signals = 0;
    for (const Watch &watch : watches_) signals |= Mailbox::bit_of(watch.signo);
    set_caught_signals(loop_.handle(), signals);
}

void lock_signals() noexcept { g_mutex.lock(); }

void unlock_signals() noexcept { g_mutex.unlock(); }

void restore_signals_in_child() noexcept {
    for (int signo = 1; signo <= kLastSignal; ++signo)
        if (std::exchange(g_dispositions[static_cast<size_t>(signo)].watches, 0) > 0) restore(signo);
}

} // namespace tavcl_ev
