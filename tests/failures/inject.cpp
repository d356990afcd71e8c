// Replaces malloc, socket, read and so on. Those that the libraries call can fail, the program's own never.
// Time is the system's plus an offset.
#include "inject.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <new>

#include <dlfcn.h>

#ifdef TAVIPC_SANITIZED // the system's allocator under its other names, which need no look-up
#define SYSTEM(name) __interceptor_##name
#else
#define SYSTEM(name) __libc_##name
#endif
#define CALLER __builtin_return_address(0)

extern "C" {
void *SYSTEM(malloc)(size_t);
void *SYSTEM(calloc)(size_t, size_t);
void *SYSTEM(realloc)(void *, size_t);
void *SYSTEM(memalign)(size_t, size_t);
void SYSTEM(free)(void *);
extern char __executable_start, etext;
}

namespace inject {

static Report nowhere;
Report *report = &nowhere;
Plan plan;
uint64_t clock_offset_ms = 0;
long live_allocations = 0;

// Counts a call that could fail. If the plan makes it fail, sets errno to one of the errors.
static bool fails(Kind kind, const char *function, const void *caller,
                  std::initializer_list<int> errors = {ENOMEM}) {
    if (plan.kind != kind || (caller >= &__executable_start && caller < &etext)) return false;
    const uint32_t point = ++report->points;
    const bool again = plan.for_good && plan.at > 0 && point > plan.at &&
                       (kind == Kind::kAllocations || strcmp(function, report->function) == 0);
    if (point != plan.at && !again) return false;
    if (report->failed++ == 0) {
        Dl_info info{};
        dladdr(caller, &info);
        const char *name = info.dli_fname ? strrchr(info.dli_fname, '/') : nullptr;
        snprintf(report->function, sizeof report->function, "%s", function);
        snprintf(report->caller, sizeof report->caller, "%s %s", name ? name + 1 : "?",
                 info.dli_sname ? info.dli_sname : "");
        report->errors = static_cast<unsigned>(errors.size());
    }
    errno = errors.begin()[plan.error % errors.size()];
    return true;
}
static void *count(void *memory) { return live_allocations += memory != nullptr, memory; }
static void *allocate(const char *function, size_t size, const void *caller) {
    return fails(Kind::kAllocations, function, caller) ? nullptr : count(SYSTEM(malloc)(size));
}
static void *allocate_or_throw(size_t size, const void *caller) {
    if (void *memory = allocate("operator new", size, caller)) return memory;
    throw std::bad_alloc();
}

} // namespace inject

using namespace inject;
#pragma GCC visibility push(default)

void *operator new(size_t size) { return allocate_or_throw(size, CALLER); }
void *operator new[](size_t size) { return allocate_or_throw(size, CALLER); }
void *operator new(size_t size, const std::nothrow_t &) noexcept { return allocate("new", size, CALLER); }
void *operator new[](size_t size, const std::nothrow_t &) noexcept { return allocate("new", size, CALLER); }
void operator delete(void *memory) noexcept { free(memory); }
void operator delete(void *memory, size_t) noexcept { free(memory); }
void operator delete[](void *memory) noexcept { free(memory); }
void operator delete[](void *memory, size_t) noexcept { free(memory); }

extern "C" {

void *malloc(size_t size) noexcept { return allocate("malloc", size, CALLER); }
void *calloc(size_t number, size_t size) noexcept {
    return fails(Kind::kAllocations, "calloc", CALLER) ? nullptr : count(SYSTEM(calloc)(number, size));
}
void *realloc(void *memory, size_t size) noexcept {
    if (fails(Kind::kAllocations, "realloc", CALLER)) return nullptr;
    void *moved = SYSTEM(realloc)(memory, size);
    live_allocations += (moved && !memory) - (!moved && memory && size == 0);
    return moved;
}
void *aligned_alloc(size_t alignment, size_t size) noexcept {
    return fails(Kind::kAllocations, "aligned_alloc", CALLER) ? nullptr
                                                              : count(SYSTEM(memalign)(alignment, size));
}
// Those of a sanitizer do not call malloc.
char *strndup(const char *text, size_t size) noexcept {
    const size_t length = strnlen(text, size);
    auto *copy = static_cast<char *>(allocate("strndup", length + 1, CALLER));
    if (!copy) return nullptr;
    copy[length] = 0;
    return static_cast<char *>(memcpy(copy, text, length));
}
char *strdup(const char *text) noexcept { return strndup(text, SIZE_MAX); }
void free(void *memory) noexcept {
    live_allocations -= memory != nullptr;
    SYSTEM(free)(memory);
}

// Passes a call on as six machine words: all arguments of these functions are passed in registers.
using Any = long(long, long, long, long, long, long);
#define DEFINE(name) /* under a second name, because a system header declares the first one */               \
    Any own_##name __asm__(#name);                                                                           \
    long own_##name(long a, long b, long c, long d, long e, long f)
#define PASS_ON(name) (reinterpret_cast<Any *>(dlsym(RTLD_NEXT, #name))(a, b, c, d, e, f))
// The functions that can fail, their result then, and the errors. Calls that keep failing have the first
// error, so EINTR is never the first.
// clang-format off
#define CALLS(X) \
    X(socket, -1, EMFILE, ENOBUFS) X(bind, -1, EACCES, ENOSPC) X(connect, -1, EACCES, ENOMEM, EINTR) \
    X(setsockopt, -1, ENOBUFS) X(getsockopt, -1, ENOBUFS) X(send, -1, ENOBUFS, ENOMEM, EINTR) X(sendmsg, -1, ENOBUFS, EINTR) \
    X(sendto, -1, ENOBUFS, EINTR) X(sendmmsg, -1, ENOBUFS, EINTR) X(recvmmsg, -1, ENOMEM, EINTR) X(recvfrom, -1, ENOMEM, EINTR) \
    X(epoll_create1, -1, EMFILE, ENOMEM) X(epoll_ctl, -1, ENOSPC, ENOMEM) X(epoll_pwait, -1, EINTR) \
    X(eventfd, -1, EMFILE) X(pipe2, -1, EMFILE) X(timerfd_create, -1, EMFILE, ENOMEM) \
    X(open, -1, EMFILE, EIO) X(read, -1, EIO, EINTR) X(write, -1, ENOSPC, EIO) X(fstat, -1, EIO) \
    X(fstatat, -1, EACCES, ENOMEM) X(flock, -1, ENOLCK, EINTR) X(access, -1, EACCES) \
    X(readlink, -1, ENOMEM) X(getrandom, -1, ENOSYS, EINTR) X(madvise, -1, EINVAL) X(ioctl, -1, ENODEV) \
    X(getifaddrs, -1, EMFILE) X(sem_timedwait, -1, ETIMEDOUT, EINTR) X(sem_open, 0, EMFILE, ENOSPC) \
    X(fdopen, 0, ENOMEM) X(fopen, 0, EMFILE, EACCES, ENOMEM) X(fread, 0, EIO) X(fwrite, 0, ENOSPC) \
    X(fseek, -1, EIO) X(ftell, -1, EIO) X(inotify_init1, -1, EMFILE) X(inotify_add_watch, -1, ENOSPC) \
    X(statx, -1, EACCES) X(timerfd_settime, -1, ENOMEM) X(pwrite, -1, ENOSPC, EINTR) X(fallocate, -1, EOPNOTSUPP, ENOSPC)
// clang-format on
#define CALL(name, failed, ...)                                                                              \
    DEFINE(name) { return fails(Kind::kCalls, #name, CALLER, {__VA_ARGS__}) ? failed : PASS_ON(name); }
CALLS(CALL)
DEFINE(mkdir) {
    if (fails(Kind::kCalls, "mkdir", CALLER, {ENOSPC, EACCES})) return -1;
    // Sockets of a process that cannot read the installation's file would be here. Not even root may create
    // it.
    const bool elsewhere = strncmp(reinterpret_cast<const char *>(a), "/var/zon_ipc", 12) == 0;
    return elsewhere ? (errno = EACCES, -1) : PASS_ON(mkdir);
}
DEFINE(mkstemp) {
    if (fails(Kind::kCalls, "mkstemp", CALLER, {EACCES, ENOSPC, EMFILE})) return -1;
    strcpy(reinterpret_cast<char *>(a),
           "ipc_file.XXXXXX"); // in this directory, where it is found if it stays
    return PASS_ON(mkstemp);
}

DEFINE(clock_gettime) {
    static const auto system = reinterpret_cast<Any *>(dlsym(RTLD_NEXT, "clock_gettime"));
    const long result = system(a, b, c, d, e, f);
    timespec &now = *reinterpret_cast<timespec *>(b);
    const uint64_t ns = static_cast<uint64_t>(now.tv_nsec) + clock_offset_ms * 1'000'000;
    now.tv_sec += static_cast<time_t>(ns / 1'000'000'000);
    now.tv_nsec = static_cast<long>(ns % 1'000'000'000);
    return result;
}
time_t own_time(time_t *) __asm__("time");
time_t own_time(time_t *out) {
    timespec now{};
    own_clock_gettime(CLOCK_REALTIME, reinterpret_cast<long>(&now), 0, 0, 0, 0);
    return out ? *out = now.tv_sec : now.tv_sec;
}
DEFINE(sleep) { return clock_offset_ms += static_cast<uint64_t>(a) * 1000, 0 * (b + c + d + e + f); }
DEFINE(usleep) { return clock_offset_ms += static_cast<uint64_t>(a) / 1000 + 1, 0 * (b + c + d + e + f); }
DEFINE(select) {
    return clock_offset_ms += 5000, 0 * (a + b + c + d + e + f);
} // a manager that never answers

} // extern "C"
