// The loop's part in a send: its record, its outcome, and the callback that reports it.
#include "loop.h"

#include <cassert>
#include <utility>

namespace tavcl_ev {

Send *Loop::begin_send() noexcept {
    Send *send = sends_.take();
    if (send) hold();
    return send;
}

void Loop::finish(Send *send, int status) noexcept {
    send->status = status;
    send->order = ++last_finished_;
    if (finished_.empty()) nudge();
    finished_.push(send);
}

void Loop::report_finished(cl_dunix_send_cb only) noexcept {
    if (finished_.empty()) return;
    const UvLoop::Callbacks guard(uv_);
    const bool was_reporting = std::exchange(reporting_, true);
    const uint64_t until = last_finished_;
    while (Send *send = only ? finished_.first_that_left() : finished_.first()) {
        if (send->order > until || (only && send->callback != only)) break;
        finished_.remove(send);
        report(send, send->status);
    }
    reporting_ = was_reporting;
}

void Loop::report(Send *send, int status) noexcept {
    const Send copy = *send;
    sends_.give_back(send);
    if (abandoned_) return;
    drop();
    count_callback();
    if (copy.callback) copy.callback(copy.socket, status, copy.context);
}

} // namespace tavcl_ev
