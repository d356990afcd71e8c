// What is different in the altered module program: the clocks that files are kept by, the draws that make
// file ids, how large its files may become, and who runs it. It also tells where it keeps received files
// ("temporary PATH").
//
//   TAVIPC_CLOCK_SPEED=N   time and timers of a minute or more run N times as fast; 0: time stands still
//   TAVIPC_DRAW=N          every draw is N
//   TAVIPC_FILE_LIMIT=N    a file ends at N bytes, as on a full disk
//   TAVIPC_DISK=N          its /tmp is a disk of its own with N bytes (for root alone)
//   TAVIPC_USER=N          it runs as that user (for root alone)
//   SIGUSR1, SIGUSR2       the wall clock goes an hour forwards, back
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include <dlfcn.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tavcl_ev.h"

namespace {

constexpr time_t kStandstill = 1'700'000'000;

long setting(const char *name, long otherwise) {
    const char *text = std::getenv(name);
    return text ? std::atol(text) : otherwise;
}

template <typename Function> Function *original(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

[[gnu::constructor]] void limit_files() {
    const long bytes = setting("TAVIPC_FILE_LIMIT", -1);
    if (bytes < 0) return;
    const rlimit limit{static_cast<rlim_t>(bytes), static_cast<rlim_t>(bytes)};
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, SIG_IGN); // a write then fails
}

[[gnu::constructor]] void change_place() {
    const std::string size = "size=" + std::to_string(setting("TAVIPC_DISK", 0));
    if (std::getenv("TAVIPC_DISK") &&
        (unshare(CLONE_NEWNS) || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
         mount("tmpfs", "/tmp", "tmpfs", 0, size.c_str())))
        _exit(EXIT_FAILURE);
    const auto user = static_cast<uid_t>(setting("TAVIPC_USER", 0));
    if (user && (setgid(user) || setuid(user))) _exit(EXIT_FAILURE);
}

volatile std::sig_atomic_t clock_offset = 0;

[[gnu::constructor]] void move_clock_on_signals() {
    std::signal(SIGUSR1, [](int) { clock_offset = clock_offset + 3600; });
    std::signal(SIGUSR2, [](int) { clock_offset = clock_offset - 3600; });
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

time_t time(time_t *out) noexcept {
    static const long speed = setting("TAVIPC_CLOCK_SPEED", 1);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    static const timespec begin = now;
    const long elapsed_ms = (now.tv_sec - begin.tv_sec) * 1000 + (now.tv_nsec - begin.tv_nsec) / 1'000'000;
    const time_t result =
        (speed == 0 ? kStandstill : begin.tv_sec + elapsed_ms * speed / 1000) + clock_offset;
    if (out) *out = result;
    return result;
}

cl_timer_t cl_timer_start(uint64_t delay_ms, void (*callback)(void *), void *argument) noexcept {
    static const long speed = setting("TAVIPC_CLOCK_SPEED", 1);
    if (delay_ms >= 60'000 && speed > 0) delay_ms /= static_cast<uint64_t>(speed);
    return original<cl_timer_t(uint64_t, void (*)(void *), void *)>("cl_timer_start")(delay_ms, callback,
                                                                                      argument);
}

int rand() noexcept {
    static const long draw = setting("TAVIPC_DRAW", -1);
    return draw < 0 ? original<int()>("rand")() : static_cast<int>(draw);
}

int mkstemp(char *path) {
    const int fd = original<int(char *)>("mkstemp")(path);
    std::printf("temporary %s\n", path);
    return fd;
}

} // extern "C"
#pragma GCC visibility pop
