#include "uv_loop.h"

#include <cassert>

#include "common/unique_fd.h"

namespace tavcl_ev {

bool UvLoop::open(uv_loop_t *foreign) noexcept {
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
