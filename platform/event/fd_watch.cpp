#include "fd_watch.h"

#include <new>
#include <utility>
#include <uv.h>

#include "private_fd.h"
#include "uv_loop.h"

namespace tavcl_ev {

struct FdWatch::Watch {
    uv_poll_t handle;
    UvLoop *loop;
    int fd;
    Handler handler;
    void *owner; // null once closed
    int events;
};

bool FdWatch::open(UvLoop &loop, int fd, Handler handler, void *owner) noexcept {
    auto *watch = new (std::nothrow) Watch{{}, &loop, fd, handler, owner, 0};
    if (!watch) return false;
    if (uv_poll_init(loop.get(), &watch->handle, fd) != 0) {
        delete watch;
        return false;
    }
    watch->handle.data = watch;
    loop.adopt(as_handle(&watch->handle));
    watch_ = watch;
    return true;
}

bool FdWatch::start_reading() noexcept { return start(UV_READABLE); }
bool FdWatch::start_writing() noexcept { return start(UV_WRITABLE); }

bool FdWatch::start(int events) noexcept {
    watch_->events = events;
    watch_->loop->note_change();
    return uv_poll_start(&watch_->handle, events, on_event) == 0;
}

void FdWatch::stop() noexcept {
    watch_->events = 0;
    uv_poll_stop(&watch_->handle);
}

// A forgotten loop keeps the handle for good. Its owner may give that loop an epoll set of the child's, and
// libuv then asks for the descriptor again: it stays open, but is never ready.
void FdWatch::close() noexcept {
    Watch *watch = std::exchange(watch_, nullptr);
    if (!watch) return;
    watch->owner = nullptr;
    if (watch->loop->forgotten()) return make_private_fd_inert(watch->fd);
    uv_close(as_handle(&watch->handle), [](uv_handle_t *handle) {
        auto *closed = static_cast<Watch *>(handle->data);
        closed->loop->disown();
        delete closed;
    });
}

// An error (a negative status) makes libuv stop watching. The handler's own system call meets the same error,
// which clears it, and the watch goes on.
void FdWatch::on_event(uv_poll_t *handle, int status, int) {
    auto *watch = static_cast<Watch *>(handle->data);
    if (!watch->owner) return;
    if (status < 0 && watch->events) uv_poll_start(handle, watch->events, on_event);
    const UvLoop::Callbacks guard(*watch->loop);
    watch->handler(watch->owner);
}

} // namespace tavcl_ev
