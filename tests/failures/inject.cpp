#include "inject.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <new>

#include <dlfcn.h>

// The system's allocator under its other names, which needs no look-up.
#ifdef TAVIPC_SANITIZED
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

namespace {

Plan plan;
uint64_t clock_offset_ms = 0;
long live = 0;

void note_first(const char *function, const void *caller, int error, size_t errors) {
    Dl_info info{};
    const char *name = dladdr(caller, &info) ? strrchr(info.dli_fname, '/') : nullptr;
    const auto offset = static_cast<const char *>(caller) - static_cast<const char *>(info.dli_fbase);
    snprintf(report->function, sizeof report->function, "%s", function);
    snprintf(report->caller, sizeof report->caller, "%s(%s)+0x%zx", name ? name + 1 : "?",
             info.dli_sname ? info.dli_sname : "", static_cast<size_t>(offset));
    report->error = error;
    report->errors = static_cast<unsigned>(errors);
}

// Counts a call that could fail, and says whether it is to: with one of the errors, in errno.
bool fails(Kind kind, const char *function, const void *caller, std::initializer_list<int> errors) {
    if (plan.kind != kind || (caller >= &__executable_start && caller < &etext)) return false;
    const bool first = ++report->points == plan.at;
    const bool later = plan.for_good && plan.at > 0 && report->points > plan.at &&
                       (kind == Kind::kAllocations || strcmp(function, report->function) == 0);
    if (!first && !later) return false;
    const int error = errors.begin()[plan.error % errors.size()];
    if (report->failed++ == 0) note_first(function, caller, error, errors.size());
    errno = error;
    return true;
}

bool no_memory(const char *function, const void *caller) {
    return fails(Kind::kAllocations, function, caller, {ENOMEM});
}

void *count(void *memory) {
    live += memory != nullptr;
    return memory;
}

void *allocate(const char *function, size_t size, const void *caller) {
    return no_memory(function, caller) ? nullptr : count(SYSTEM(malloc)(size));
}

void *allocate_or_throw(size_t size, const void *caller) {
    if (void *memory = allocate("operator new", size, caller)) return memory;
    throw std::bad_alloc();
}

} // namespace

void begin(const Plan &with) { plan = with; }
void end() { plan.kind = Kind::kNothing; }
long live_allocations() { return live; }
void move_clock(uint64_t ms) { clock_offset_ms += ms; }

} // namespace inject

using namespace inject;

#pragma GCC visibility push(default)

void *operator new(size_t size) { return allocate_or_throw(size, CALLER); }
void *operator new[](size_t size) { return allocate_or_throw(size, CALLER); }
void *operator new(size_t size, const std::nothrow_t &) noexcept { return allocate("new", size, CALLER); }
void *operator new[](size_t size, const std::nothrow_t &) noexcept { return allocate("new", size, CALLER); }
void operator delete(void *memory) noexcept { free(memory); }
void operator delete[](void *memory) noexcept { free(memory); }
void operator delete(void *memory, size_t) noexcept { free(memory); }
void operator delete[](void *memory, size_t) noexcept { free(memory); }

extern "C" {

void *malloc(size_t size) noexcept { return allocate("malloc", size, CALLER); }
void *calloc(size_t number, size_t size) noexcept {
    return no_memory("calloc", CALLER) ? nullptr : count(SYSTEM(calloc)(number, size));
}
void *realloc(void *memory, size_t size) noexcept {
    if (no_memory("realloc", CALLER)) return nullptr;
    void *moved = SYSTEM(realloc)(memory, size);
    live += (moved && !memory) - (!moved && memory && size == 0);
    return moved;
}
void *aligned_alloc(size_t alignment, size_t size) noexcept {
    return no_memory("aligned_alloc", CALLER) ? nullptr : count(SYSTEM(memalign)(alignment, size));
}
int posix_memalign(void **out, size_t alignment, size_t size) noexcept {
    if (no_memory("posix_memalign", CALLER)) return ENOMEM;
    return (*out = count(SYSTEM(memalign)(alignment, size))) ? 0 : ENOMEM;
}
char *strdup(const char *text) noexcept { // the sanitizers' own would take memory past us
    const size_t size = strlen(text) + 1;
    void *copy = allocate("strdup", size, CALLER);
    return static_cast<char *>(copy ? memcpy(copy, text, size) : nullptr);
}
void free(void *memory) noexcept {
    live -= memory != nullptr;
    SYSTEM(free)(memory);
}

// Passes a call on as six machine words: arguments of these functions go in registers, whatever their types.
using Any = long(long, long, long, long, long, long);
#define DEFINE(name) /* under a second name: the system's header declares it too */                          \
    Any own_##name __asm__(#name);                                                                           \
    long own_##name(long a, long b, long c, long d, long e, long f)
#define PASS_ON(name) (reinterpret_cast<Any *>(dlsym(RTLD_NEXT, #name))(a, b, c, d, e, f))
#define CALL(name, failed, ...)                                                                              \
    DEFINE(name) { return fails(Kind::kCalls, #name, CALLER, {__VA_ARGS__}) ? failed : PASS_ON(name); }

// The first error also serves when all calls from one on fail: EINTR is never the first.
CALL(socket, -1, EMFILE, ENOBUFS)
CALL(bind, -1, EACCES, ENOSPC)
CALL(connect, -1, EACCES, ENOMEM, EINTR)
CALL(setsockopt, -1, ENOBUFS)
CALL(getsockopt, -1, ENOBUFS)
CALL(send, -1, ENOBUFS, ENOMEM, EINTR)
CALL(sendto, -1, ENOBUFS, EINTR)
CALL(sendmmsg, -1, ENOBUFS, EINTR)
CALL(recvmmsg, -1, ENOMEM, EINTR)
CALL(epoll_create1, -1, EMFILE, ENOMEM)
CALL(epoll_ctl, -1, ENOSPC, ENOMEM)
CALL(epoll_pwait, -1, EINTR)
CALL(eventfd, -1, EMFILE)
CALL(pipe2, -1, EMFILE)
CALL(timerfd_create, -1, EMFILE, ENOMEM)
CALL(open, -1, EMFILE, EIO)
CALL(read, -1, EIO, EINTR)
CALL(write, -1, ENOSPC, EIO)
CALL(fstat, -1, EIO)
CALL(fstatat, -1, EACCES, ENOMEM)
CALL(flock, -1, ENOLCK, EINTR)
CALL(access, -1, EACCES)
CALL(readlink, -1, ENOMEM)
CALL(getrandom, -1, ENOSYS, EINTR)
CALL(madvise, -1, EINVAL)
CALL(ioctl, -1, ENODEV)
CALL(getifaddrs, -1, EMFILE)
CALL(sem_timedwait, -1, ETIMEDOUT, EINTR)
CALL(sem_open, 0, EMFILE, ENOSPC)
CALL(fopen, 0, EMFILE, EACCES, ENOMEM)
CALL(fread, 0, EIO)
CALL(fwrite, 0, ENOSPC)
CALL(fseek, -1, EIO)
CALL(ftell, -1, EIO)

DEFINE(mkdir) {
    if (fails(Kind::kCalls, "mkdir", CALLER, {ENOSPC, EACCES})) return -1;
    // Where sockets lie when the installation's file cannot be read: not for us, even as root.
    const bool elsewhere = strncmp(reinterpret_cast<const char *>(a), "/var/zon_ipc", 12) == 0;
    return elsewhere ? (errno = EACCES, -1) : PASS_ON(mkdir);
}
DEFINE(mkstemp) {
    if (fails(Kind::kCalls, "mkstemp", CALLER, {EACCES, ENOSPC, EMFILE})) return -1;
    strcpy(reinterpret_cast<char *>(a), "ipc_file.XXXXXX"); // in this directory, where it is seen if it stays
    return PASS_ON(mkstemp);
}

// --- time

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
#define NO_WAIT(name, ms)                                                                                    \
    int own_##name(unsigned long duration) __asm__(#name);                                                   \
    int own_##name([[maybe_unused]] unsigned long duration) {                                                \
        move_clock(ms);                                                                                      \
        return 0;                                                                                            \
    }
NO_WAIT(sleep, duration * 1000)
NO_WAIT(usleep, duration / 1000 + 1)
NO_WAIT(select, 5000) // for the route to a manager that never answers

} // extern "C"
