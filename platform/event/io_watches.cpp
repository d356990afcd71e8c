#include "io_watches.h"

#include <cerrno>
#include <sys/epoll.h>

#include "loop.h"

namespace tavcl_ev {

namespace {

constexpr int kMostEvents = 64; // for one turn, as the datagrams of a socket
constexpr int kAllEvents = CL_IO_READ | CL_IO_WRITE;

uint32_t epoll_events(int events) {
    return (events & CL_IO_READ ? EPOLLIN | EPOLLRDHUP : 0u) | (events & CL_IO_WRITE ? EPOLLOUT : 0u);
}

int io_events(uint32_t events) {
    if (events & (EPOLLERR | EPOLLHUP)) return kAllEvents;
    return (events & (EPOLLIN | EPOLLRDHUP) ? CL_IO_READ : 0) | (events & EPOLLOUT ? CL_IO_WRITE : 0);
}

} // namespace

bool IoWatches::open() noexcept {
    if (!set_) set_ = PrivateFd::of([] { return tavipc::UniqueFd(epoll_create1(EPOLL_CLOEXEC)); });
    if (!set_ || watch_.opened()) return static_cast<bool>(set_);
    const auto ready = [](void *self) { static_cast<IoWatches *>(self)->drain(); };
    if (watch_.open(loop_.uv(), set_.get(), ready, this) && watch_.start_reading()) return true;
    watch_.close();
    errno = ENOMEM;
    return false;
}

// If the descriptor of an older watch was closed and its number is used again, the kernel has dropped that
// watch's entry, and adding the new one succeeds.
cl_io_t IoWatches::start(int fd, int events, cl_io_cb callback, void *argument) {
    if (!callback || !(events & kAllEvents) || (events & ~kAllEvents)) return errno = EINVAL, 0;
    if (!open()) return 0;
    cl_io_t &id_of_fd = by_fd_[fd];
    const cl_io_t older = id_of_fd;
    const cl_io_t id = watches_.insert({fd, events, callback, argument});
    epoll_event event{epoll_events(events), {.u64 = id}};
    if (epoll_ctl(set_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        watches_.take(id);
        if (!older) by_fd_.erase(fd);
        return 0;
    }
    if (auto *closed = watches_.find(older)) closed->fd = -1;
    id_of_fd = id;
    loop_.hold();
    return id;
}

void IoWatches::stop(cl_io_t io) noexcept {
    if (!watches_.find(io)) return;
    const Watch watch = watches_.take(io);
    loop_.drop();
    if (watch.fd < 0) return;
    by_fd_.erase(watch.fd);
    const int error = errno;
    epoll_ctl(set_.get(), EPOLL_CTL_DEL, watch.fd, nullptr);
    errno = error;
}

void IoWatches::close() noexcept {
    if (!loop_.abandoned())
        while (const cl_io_t io = watches_.any()) stop(io);
    watches_.clear();
    by_fd_.clear();
    watch_.close();
    set_.reset();
}

// A nested run in a callback handles what is ready then. The events that were fetched before it are out of
// date, and the set reports them again on the next turn if they are still true.
void IoWatches::drain() noexcept {
    epoll_event events[kMostEvents];
    const int count = epoll_wait(set_.get(), events, kMostEvents, 0);
    const uint64_t drain = ++drains_;
    for (int i = 0; i < count && drain == drains_; ++i) {
        const cl_io_t id = events[i].data.u64;
        const Watch *found = watches_.find(id);
        if (!found) continue;
        const Watch watch = *found;
        loop_.count_callback();
        watch.callback(id, io_events(events[i].events) & watch.events, watch.argument);
    }
}

} // namespace tavcl_ev
