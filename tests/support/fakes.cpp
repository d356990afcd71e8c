#include "fakes.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <sys/syscall.h>

#include "tavaux.h"

namespace fake {

World &world() {
    static World instance;
    return instance;
}

int Log::count(std::string_view part, int level) const {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine &line) {
        return (level < 0 || line.level == level) && line.text.find(part) != std::string::npos;
    }));
}

size_t Event::pending() const {
    return static_cast<size_t>(
        std::count_if(sends.begin(), sends.end(), [](const Send &send) { return !send.done; }));
}

void Event::complete(size_t index, int status) {
    Send &send = sends.at(index);
    if (send.done) throw std::logic_error("a send completes once");
    send.done = true;
    if (send.callback) send.callback(send.socket, status, send.context);
}

void Event::complete_all(int status) {
    for (size_t i = 0, n = sends.size(); i < n; ++i)
        if (!sends[i].done) complete(i, status);
}

void Event::advance(uint64_t ms) {
    uint64_t &now = world().clock.loop_ms;
    const uint64_t end = now + ms;
    const auto sooner = [](const auto &a, const auto &b) { return a.second.due_ms < b.second.due_ms; };
    for (;;) {
        const auto first = std::min_element(timers.begin(), timers.end(), sooner);
        if (first == timers.end() || first->second.due_ms > end) break;
        const Timer timer = first->second;
        timers.erase(first);
        now = std::max(now, timer.due_ms);
        timer.callback(timer.argument);
    }
    now = std::max(now, end); // a callback may have run the loop further
}

void Event::deliver(cl_dunix_t socket, std::string_view datagram, int status) {
    const Socket target = sockets.at(socket);
    const auto size = static_cast<uint32_t>(datagram.size());
    const std::unique_ptr<char[]> copy(new char[size]); // of this very size: an over-read shows under ASan
    memcpy(copy.get(), datagram.data(), size);
    cl_sockaddr_t from{};
    target.recv(socket, copy.get(), size, &from, status, target.recv_context);
}

cl_dunix_t Event::socket_at(std::string_view path) const {
    for (const auto &[id, socket] : sockets)
        if (socket.path == path) return id;
    return 0;
}

} // namespace fake

// The library ends the process with status 0 when memory is short; a test that does so must not pass.
[[gnu::destructor]] static void fail_inside_a_test() {
    if (fake::test_runs && !testing::internal::InDeathTestChild()) _exit(EXIT_FAILURE);
}

using fake::world;
static fake::Event &event = world().event;

// The function that a stand-in replaces.
template <typename Function> static Function next(Function, const char *name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

extern "C" {

int error_output_check(int level) noexcept { return level <= world().log.threshold; }

void error_output(int level, const char *source, int, const char *format, ...) noexcept {
    char text[8192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fake::Log &log = world().log;
    log.lines.push_back({level, source, text});
    errno = ENOTTY; // a sink may change it
    if (const auto on_line = std::exchange(log.on_line, nullptr)) {
        on_line();
        log.on_line = on_line;
    }
}

uint64_t cl_event_loop_now() noexcept { return world().clock.loop_ms; }
uint64_t timer_get_ticks() noexcept { return world().clock.ticks_ms * 1'000'000; }

time_t time(time_t *out) noexcept {
    if (out) *out = world().clock.wall_s;
    return world().clock.wall_s;
}
int rand() noexcept {
    auto &[draws, seeds, counter] = world().random;
    if (draws.empty()) return ++counter;
    const int draw = draws.front();
    draws.pop_front();
    return draw;
}
void srand(unsigned seed) noexcept { world().random.seeds.push_back(seed); }
int clock_gettime(clockid_t clock, timespec *out) noexcept {
    if (world().clock.gettime) return world().clock.gettime(clock, out);
#ifdef SYS_clock_gettime64 // timespec is of 64 bits in 32 bits, too
    return static_cast<int>(syscall(SYS_clock_gettime64, clock, out));
#else
    return static_cast<int>(syscall(SYS_clock_gettime, clock, out));
#endif
}

cl_timer_t cl_timer_start(uint64_t delay_ms, void (*callback)(void *), void *argument) noexcept {
    if (event.fail_timers > 0) return --event.fail_timers, 0;
    event.timers[++event.last_id] = {world().clock.loop_ms + delay_ms, delay_ms, callback, argument};
    return event.last_id;
}
void cl_timer_stop(cl_timer_t timer) noexcept { event.timers.erase(timer); }
cl_io_t cl_io_start(int, int, cl_io_cb, void *) noexcept { return event.watches_io; } // never calls back
void cl_io_stop(cl_io_t) noexcept {}

cl_dunix_t cl_dunix_create(const cl_sockaddr_t *address, void *, void *) noexcept {
    const bool in_use = event.socket_at(address->addr.sun_path) != 0;
    if (in_use || event.fail_create > 0) {
        errno = in_use ? EADDRINUSE : EACCES;
        event.fail_create -= !in_use;
        return 0;
    }
    event.sockets[++event.last_id] = {address->addr.sun_path};
    return event.last_id;
}
void cl_dunix_close(cl_dunix_t socket, void (*)(void *), void *) noexcept {
    if (!event.sockets.erase(socket)) std::abort(); // closed twice, or never made
    for (size_t i = 0, n = event.sends.size(); i < n; ++i)
        if (event.sends[i].socket == socket && !event.sends[i].done) event.complete(i, CL_EV_CANCELLED);
}
int cl_dunix_recv_start(cl_dunix_t socket, cl_dunix_recv_cb callback, void *context) noexcept {
    if (event.fail_recv > 0) return --event.fail_recv, -1; // leaves errno alone
    fake::Socket &receiving = event.sockets.at(socket);
    receiving = {receiving.path, callback, context};
    return 0;
}
int cl_dunix_sendto2(cl_dunix_t socket, const cl_sockaddr_t *address, const void *data, uint32_t len,
                     cl_dunix_send_cb callback, void *context) noexcept {
    if (event.fail_send > 0) return --event.fail_send, -1;
    if (!event.sockets.count(socket)) return -1;
    event.sends.push_back({socket, address->addr.sun_path, std::string(static_cast<const char *>(data), len),
                           callback, context});
    return 0;
}

void cl_dunix_settle(size_t, cl_dunix_send_cb) noexcept {
    if (event.settles) event.complete_all();
}

xhash_t *xhash_create(void (*release)(void *), uint32_t reserved) noexcept {
    static const auto real = next(&xhash_create, "xhash_create");
    return --world().memory.fail_table == 0 ? nullptr : real(release, reserved);
}
int heap_push(heap_t *heap, void *entry) noexcept {
    static const auto real = next(&heap_push, "heap_push");
    const bool full = heap_count(heap) >= world().memory.largest_heap;
    return --world().memory.fail_push == 0 || full ? -1 : real(heap, entry);
}

int tav_get_location() noexcept { return world().deployment.location; }
const char *tav_location_name(int location) noexcept {
    static std::map<int, std::string> names;
    return names.try_emplace(location, "loc" + std::to_string(location)).first->second.c_str();
}
const char *GetDeployTypeStr() noexcept { return world().deployment.deploy_type; }
int IsCNAPPAgent() noexcept { return world().deployment.cnapp; }
uint32_t get_hostid() noexcept { return world().deployment.hostid; }
int GetAgentType(char *buffer, int size) noexcept {
    const auto &type = world().deployment.agent_type;
    return type.empty() ? -1 : snprintf(buffer, static_cast<size_t>(size), "%s", type.c_str());
}
int dirutils_path_transform(const char *path_template, char *out, int size) noexcept {
    std::string text = path_template;
    if (text.starts_with('@')) text.replace(0, 1, world().deployment.base);
    return snprintf(out, static_cast<size_t>(size), "%s", text.c_str()) < size ? 0 : -1;
}

} // extern "C"
