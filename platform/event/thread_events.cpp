#include "thread_events.h"

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <pthread.h>

#include "loop_registry.h"
#include "private_fd.h"

namespace tavcl_ev {

namespace {

// Plain data, which stays readable after the thread's destructors have run. A signal handler on the thread
// reads the atomic members (cl_event_loop_stop).
struct State {
    std::atomic<ThreadEvents *> events;
    std::atomic<bool> closed; // being released, or the thread has ended
    ThreadEvents *abandoned;  // a list
};
constinit thread_local State t_state{nullptr, false, nullptr};

struct AtThreadEnd {
    bool armed = false;
    ~AtThreadEnd() {
        ThreadEvents::release();
        t_state.closed = true;
    }
};
thread_local AtThreadEnd t_at_thread_end;

} // namespace

ThreadEvents *ThreadEvents::get() noexcept {
    if (t_state.closed.load(std::memory_order_relaxed)) return nullptr;
    ThreadEvents *events = t_state.events.load(std::memory_order_relaxed);
    return events ? events : make(nullptr);
}

ThreadEvents *ThreadEvents::existing() noexcept {
    if (t_state.closed.load(std::memory_order_relaxed)) return nullptr;
    return t_state.events.load(std::memory_order_relaxed);
}

bool ThreadEvents::attach(uv_loop_t *foreign) noexcept {
    return foreign && !t_state.closed && !t_state.events && make(foreign);
}

ThreadEvents *ThreadEvents::make(uv_loop_t *foreign) noexcept try {
    if (!watch_forks()) return nullptr;
    auto loop = Loop::make(foreign);
    if (!loop) return nullptr;
    t_state.events = new ThreadEvents(std::move(loop));
    t_at_thread_end.armed = true; // the first use registers its destructor
    return existing();
} catch (const std::bad_alloc &) {
    return nullptr;
}

void ThreadEvents::release() noexcept {
    ThreadEvents *events = existing();
    if (!events) return;
    t_state.closed = true;
    events->io_.close();
    events->signals_.close();
    events->loop_->release_handle();
    events->close_sockets();
    if (t_state.events != events) return reap(); // a callback has forked, and this is the child
    delete events;
    t_state.events = nullptr;
    t_state.closed = false;
    reap();
}

void ThreadEvents::close_sockets() noexcept {
    while (const cl_dunix_t socket = sockets_.any()) take_socket(socket)->close();
}

cl_dunix_t ThreadEvents::create_socket(const cl_sockaddr_t &address) {
    BoundSocket bound = BoundSocket::make(address);
    if (!bound) return 0;
    auto socket = std::make_shared<Dunix>(*loop_, batches_, std::move(bound));
    const cl_dunix_t id = sockets_.insert(socket);
    socket->set_id(id);
    return id;
}

// --- fork ------------------------------------------------------------------------------------------

namespace {

void before_fork() {
    lock_signals();
    lock_private_fds();
}

void after_fork_in_parent() {
    unlock_private_fds();
    unlock_signals();
}

} // namespace

// A failure (memory is short) is tried again with the next loop.
bool ThreadEvents::watch_forks() noexcept {
    static std::atomic<bool> watching{false};
    static std::mutex mutex;
    if (watching.load(std::memory_order_acquire)) return true;
    const std::lock_guard lock(mutex);
    if (!watching && pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0)
        watching.store(true, std::memory_order_release);
    return watching;
}

void ThreadEvents::after_fork_in_child() noexcept {
    restore_signals_in_child();
    delist_all();
    after_fork_in_parent();
    if (ThreadEvents *events = t_state.events.exchange(nullptr)) {
        events->next_abandoned_ = std::exchange(t_state.abandoned, events);
        t_state.closed = false;
        events->loop_->enter_child();
        events->io_.close();
        events->signals_.close();
        events->close_sockets();
        events->sockets_.clear();
        events->loop_->abandon();
    }
    close_private_fds();
    reap();
}

void ThreadEvents::reap() noexcept {
    for (ThreadEvents **link = &t_state.abandoned; *link;) {
        ThreadEvents *events = *link;
        if (events->loop_->in_use() || events->loop_->uv().forgotten()) {
            link = &events->next_abandoned_;
        } else {
            *link = events->next_abandoned_;
            delete events;
        }
    }
}

} // namespace tavcl_ev
