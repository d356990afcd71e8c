#include "thread_events.h"

#include <cerrno>
#include <new>

namespace tavcl_ev {

namespace {

// Plain data, which stays readable after the thread's destructors have run.
struct State {
    ThreadEvents *events;
    bool closed; // being released, or the thread has ended
};
constinit thread_local State t_state{nullptr, false};

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
    if (t_state.closed) return nullptr;
    return t_state.events ? t_state.events : make(nullptr);
}

ThreadEvents *ThreadEvents::existing() noexcept { return t_state.closed ? nullptr : t_state.events; }

bool ThreadEvents::attach(uv_loop_t *foreign) noexcept {
    return foreign && !t_state.closed && !t_state.events && make(foreign);
}

ThreadEvents *ThreadEvents::make(uv_loop_t *foreign) noexcept try {
    auto loop = Loop::make(foreign);
    if (!loop) return nullptr;
    t_state.events = new ThreadEvents(std::move(loop));
    t_at_thread_end.armed = true; // the first use registers its destructor
    return t_state.events;
} catch (const std::bad_alloc &) {
    return nullptr;
}

// A forked child has only a copy of its parent's loop; the epoll set behind it is shared, so it is left
// alone.
void ThreadEvents::release() noexcept {
    ThreadEvents *events = existing();
    if (!events || events->process_ != getpid()) return;
    t_state.closed = true;
    while (const cl_dunix_t socket = events->sockets_.any()) events->take_socket(socket)->close();
    delete events;
    t_state = {nullptr, false};
}

cl_dunix_t ThreadEvents::create_socket(const cl_sockaddr_t &address) {
    BoundSocket bound = BoundSocket::make(address);
    if (!bound) return 0;
    auto socket = std::make_shared<Dunix>(*loop_, batches_, std::move(bound));
    const cl_dunix_t id = sockets_.insert(socket);
    socket->set_id(id);
    return id;
}

} // namespace tavcl_ev
