// What the altered module program replaces: the clock and timers that files and exchanges expire by, and the
// source of file ids. It also reports "temporary PATH" and "removed PATH" for the files that it makes.
//
//   SIGUSR1               the wall clock goes an hour forwards
//   TAVIPC_SHORT_TIMERS   timers of a minute or more run after 10 ms
//   TAVIPC_FIXED_ID       all file ids are the same
//   TAVIPC_STOP_AT_FILE   the process stops itself (SIGSTOP) when it has made a temporary file
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include <dlfcn.h>

#include "tavcl_ev.h"

namespace {

constexpr time_t kStandstill_s = 1'700'000'000;
volatile std::sig_atomic_t clock_offset_s = 0;

template <typename Function> Function *original(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

[[gnu::constructor]] void move_clock_on_signal() {
    std::signal(SIGUSR1, [](int) { clock_offset_s = clock_offset_s + 3600; });
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

time_t time(time_t *out) noexcept {
    timespec now{kStandstill_s, 0};
    if (!std::getenv("TAVIPC_FIXED_ID")) clock_gettime(CLOCK_REALTIME, &now);
    if (out) *out = now.tv_sec + clock_offset_s;
    return now.tv_sec + clock_offset_s;
}

int rand() noexcept { return std::getenv("TAVIPC_FIXED_ID") ? 7 : original<int()>("rand")(); }

cl_timer_t cl_timer_start(uint64_t delay_ms, void (*callback)(void *), void *argument) noexcept {
    if (delay_ms >= 60'000 && std::getenv("TAVIPC_SHORT_TIMERS")) delay_ms = 10;
    return original<decltype(cl_timer_start)>("cl_timer_start")(delay_ms, callback, argument);
}

int mkstemp(char *path) {
    const int fd = original<int(char *)>("mkstemp")(path);
    std::cout << "temporary " << path << std::endl;
    if (std::getenv("TAVIPC_STOP_AT_FILE")) raise(SIGSTOP);
    return fd;
}

int unlink(const char *path) noexcept {
    const int result = original<int(const char *)>("unlink")(path);
    if (result == 0) std::cout << "removed " << path << std::endl;
    return result;
}

} // extern "C"
#pragma GCC visibility pop
