// The exported functions of tavcl_loop.h.
#include "tavcl_loop.h"

#include <cerrno>
#include <new>

#include "loop_registry.h"
#include "thread_events.h"

using tavcl_ev::ThreadEvents;

int cl_event_loop_fd() noexcept {
    ThreadEvents *events = ThreadEvents::get();
    return events ? events->loop().embed() : -1;
}

int cl_event_loop_timeout() noexcept {
    ThreadEvents *events = ThreadEvents::existing();
    return events ? events->loop().timeout_ms() : -1;
}

int cl_event_loop_dispatch() noexcept {
    ThreadEvents *events = ThreadEvents::get();
    if (!events) return -1;
    const int result = events->loop().dispatch();
    ThreadEvents::reap();
    return result;
}

cl_loop_t cl_event_loop_self() noexcept {
    ThreadEvents *events = ThreadEvents::get();
    return events ? events->loop().handle() : 0;
}

int cl_event_loop_wake(cl_loop_t loop) noexcept {
    const tavcl_ev::MailboxUser mailbox(loop);
    if (!mailbox) return -1;
    mailbox->ring();
    return 0;
}

int cl_event_loop_post(cl_loop_t loop, void (*function)(void *), void *argument) noexcept {
    if (!function) return -1;
    const tavcl_ev::MailboxUser mailbox(loop);
    return mailbox && mailbox->post(function, argument) ? 0 : -1;
}

cl_io_t cl_io_start(int fd, int events, cl_io_cb callback, void *argument) noexcept try {
    errno = ENOMEM;
    ThreadEvents *thread = ThreadEvents::get();
    return thread ? thread->io().start(fd, events, callback, argument) : 0;
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return 0;
}

void cl_io_stop(cl_io_t io) noexcept {
    if (ThreadEvents *thread = ThreadEvents::existing()) thread->io().stop(io);
}

cl_signal_t cl_signal_start(int signo, cl_signal_cb callback, void *argument) noexcept try {
    errno = ENOMEM;
    ThreadEvents *thread = ThreadEvents::get();
    return thread ? thread->signals().start(signo, callback, argument) : 0;
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return 0;
}

void cl_signal_stop(cl_signal_t watch) noexcept {
    if (ThreadEvents *thread = ThreadEvents::existing()) thread->signals().stop(watch);
}
