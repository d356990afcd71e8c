#include "dunix.h"

#include <new>

#include "loop.h"

namespace tavcl_ev {

bool Dunix::start_receiving(cl_dunix_recv_cb callback, void *context) noexcept {
    const auto ready = [](void *self) {
        const auto alive = static_cast<Dunix *>(self)->weak_from_this().lock(); // a callback may close it
        alive->receiver_.drain();
    };
    return receiver_.start(bound_.fd(), id_, callback, context, ready, this);
}

bool Dunix::send(const cl_sockaddr_t &address, const void *data, uint32_t len, cl_dunix_send_cb callback,
                 void *context) noexcept try {
    loop_.count_send();
    Channel *channel = channels_.find_or_make(address);
    Send *send = loop_.begin_send();
    if (!send) return false;
    *send = {send, id_, data, len, CL_EV_OK, 0, callback, context};
    if (channel)
        channel->send(send);
    else
        loop_.finish(send, CL_EV_IO);
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

int Dunix::send_now(const cl_sockaddr_t &address, const iovec *parts, size_t count, uint32_t len) noexcept
    try {
    loop_.count_send();
    Channel *channel = channels_.find_or_make(address);
    return channel ? channel->send_now(parts, count, len) : CL_EV_IO;
} catch (const std::bad_alloc &) {
    return -1;
}

// Reports what has left already as sent, batches included, and the rest as cancelled. Everything is closed
// before the first callback. In a child that abandons the loop, report() only frees the records; a fork in a
// callback from here is such a case.
void Dunix::close() noexcept {
    if (!loop_.abandoned()) loop_.batches().send_all();
    receiver_.close();
    SendQueue unreported = loop_.take_finished(id_);
    SendQueue waiting = channels_.close();
    if (loop_.abandoned())
        bound_.forget();
    else
        bound_.remove();
    const UvLoop::Callbacks guard(loop_.uv());
    while (!unreported.empty()) {
        Send *send = unreported.pop();
        loop_.report(send, send->status);
    }
    while (!waiting.empty()) loop_.report(waiting.pop(), CL_EV_CANCELLED);
}

} // namespace tavcl_ev
