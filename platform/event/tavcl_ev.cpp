// The exported functions check their arguments, find the thread's objects, and call them. Nothing inside the
// library calls an exported function.
#include "tavcl_ev.h"

#include <cerrno>
#include <new>

#include "clock.h"
#include "status.h"
#include "thread_events.h"

using tavcl_ev::Dunix;
using tavcl_ev::ThreadEvents;

namespace {

Dunix *find(cl_dunix_t socket) {
    ThreadEvents *events = ThreadEvents::existing();
    return events ? events->find_socket(socket) : nullptr;
}

} // namespace

const char *cl_ev_strerror(int status) noexcept { return tavcl_ev::status_text(status); }

uint64_t cl_event_loop_now() noexcept { return tavcl_ev::clock_ms(); }

int cl_event_loop_run() noexcept {
    ThreadEvents *events = ThreadEvents::get();
    if (!events) return -1;
    const int result = events->loop().run();
    ThreadEvents::reap();
    return result;
}

int cl_event_loop_run_once(int timeout_ms) noexcept {
    ThreadEvents *events = ThreadEvents::get();
    if (!events) return -1;
    const int result = events->loop().run_once(timeout_ms);
    ThreadEvents::reap();
    return result;
}

void cl_event_loop_stop() noexcept {
    if (ThreadEvents *events = ThreadEvents::existing()) events->loop().stop();
}

int cl_event_loop_attach(uv_loop_s *uv_loop) noexcept { return ThreadEvents::attach(uv_loop) ? 0 : -1; }

void cl_event_loop_release() noexcept {
    ThreadEvents *events = ThreadEvents::existing();
    if (events && !events->loop().in_use()) ThreadEvents::release();
}

cl_timer_t cl_timer_start(uint64_t delay_ms, void (*callback)(void *), void *argument) noexcept {
    ThreadEvents *events = callback ? ThreadEvents::get() : nullptr;
    if (!events) return 0;
    const uint64_t due_ms = tavcl_ev::later(tavcl_ev::clock_ms(), delay_ms);
    return events->loop().start_timer(due_ms, callback, argument, true);
}

void cl_timer_stop(cl_timer_t timer) noexcept {
    if (ThreadEvents *events = ThreadEvents::existing()) events->loop().stop_timer(timer);
}

int cl_sockaddr_un_init(cl_sockaddr_t *address, const char *path) noexcept {
    if (!address) return -1;
    if (path) return tavcl_ev::fill_address(address, path) ? 0 : -1;
    *address = {};
    return -1;
}

cl_dunix_t cl_dunix_create(const cl_sockaddr_t *address, void *, void *) noexcept try {
    errno = address ? ENOMEM : EINVAL;
    ThreadEvents *events = address ? ThreadEvents::get() : nullptr;
    return events ? events->create_socket(*address) : 0;
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return 0;
}

void cl_dunix_close(cl_dunix_t socket, void (*)(void *), void *) noexcept {
    ThreadEvents *events = ThreadEvents::existing();
    if (!events) return;
    if (const auto closing = events->take_socket(socket)) closing->close();
}

int cl_dunix_recv_start(cl_dunix_t socket, cl_dunix_recv_cb callback, void *context) noexcept {
    Dunix *found = callback ? find(socket) : nullptr;
    return found && found->start_receiving(callback, context) ? 0 : -1;
}

int cl_dunix_sendto2(cl_dunix_t socket, const cl_sockaddr_t *address, const void *data, uint32_t len,
                     cl_dunix_send_cb callback, void *context) noexcept {
    Dunix *found = address && data ? find(socket) : nullptr;
    return found && found->send(*address, data, len, callback, context) ? 0 : -1;
}

int cl_dunix_send_now(cl_dunix_t socket, const cl_sockaddr_t *address, const iovec *parts,
                      size_t count) noexcept {
    Dunix *found = address && parts && count > 0 ? find(socket) : nullptr;
    if (!found) return -1;
    size_t len = 0;
    for (size_t i = 0; i < count; ++i)
        if (__builtin_add_overflow(len, parts[i].iov_len, &len) || len > UINT32_MAX) return CL_EV_TOO_BIG;
    return found->send_now(*address, parts, count, static_cast<uint32_t>(len));
}

void cl_dunix_settle(size_t bytes, cl_dunix_send_cb callback) noexcept {
    if (ThreadEvents *events = ThreadEvents::existing()) events->loop().settle(bytes, callback);
}

void cl_dunix_set_send_wait(uint64_t wait_ms) noexcept {
    if (ThreadEvents *events = ThreadEvents::get()) events->loop().set_send_wait_ms(wait_ms);
}
