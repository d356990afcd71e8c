#include "uv_loop.h"

#include <cassert>
#include <fcntl.h>
#include <unistd.h>

#include "common/unique_fd.h"

namespace tavcl_ev {

namespace {

// The first uv_loop_init of a process makes an epoll set and then a pipe, and ends the process if it cannot
// make the pipe. So look first whether three descriptors can be had.
bool descriptors_are_left() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    const tavipc::UniqueFd in(ends[0]), out(ends[1]);
    const tavipc::UniqueFd third(fcntl(in.get(), F_DUPFD_CLOEXEC, 0));
    return static_cast<bool>(third);
}

} // namespace

bool UvLoop::open(uv_loop_t *foreign) noexcept {
    if (!foreign && !descriptors_are_left()) return false;
    if (!foreign && uv_loop_init(&own_) != 0) {
        const tavipc::UniqueFd left_open(own_.backend_fd); // libuv does not close its epoll set then
        return false;
    }
    loop_ = foreign ? foreign : &own_;
    return true;
}

UvLoop::~UvLoop() {
    assert(!forgotten_);
    if (!loop_) return;
    wait_until_closed();
    if (foreign()) return;
    [[maybe_unused]] const int result = uv_loop_close(&own_);
    assert(result == 0);
}

void UvLoop::wait_until_closed() noexcept {
    while (handles_ > 0) uv_run(loop_, UV_RUN_NOWAIT);
}

void UvLoop::adopt(uv_handle_t *handle) noexcept {
    ++handles_;
    uv_unref(handle);
}

void UvLoop::disown() noexcept {
    assert(handles_ > 0);
    --handles_;
}

// uv_loop_fork closes the child's copy of the epoll set without a change to the set, and makes another. When
// it fails the loop has none, and must not run again.
void UvLoop::enter_child() noexcept { forgotten_ = foreign() || uv_loop_fork(&own_) != 0; }

} // namespace tavcl_ev
