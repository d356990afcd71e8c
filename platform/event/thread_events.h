// What one thread has of this library: its loop, its sockets, its receive buffers.
//
// fork: the child has only the forking thread. There, before fork returns, that thread's ThreadEvents is
// abandoned: sockets are closed without a callback and without a change to files or to the parent's epoll
// set, and the next use makes a new one. Frames of the abandoned loop may still be on the stack, when a
// callback forked. The object is deleted when the last of them has returned; on the caller's libuv loop,
// which keeps our handles, never. What other threads had stays in the child's memory, but their descriptors
// are closed (private_fd.h).
#pragma once

#include <memory>

#include "dunix.h"
#include "io_watches.h"
#include "loop.h"
#include "recv_batch.h"
#include "signal_watches.h"
#include "slot_table.h"

namespace tavcl_ev {

class ThreadEvents {
  public:
    // The calling thread's. get() makes it on first use; it returns null on failure, while it is being
    // released, and after the thread's end. existing() makes none.
    static ThreadEvents *get() noexcept;
    static ThreadEvents *existing() noexcept;
    static bool attach(uv_loop_t *foreign) noexcept;
    static void release() noexcept;
    // Deletes what a fork has abandoned, as far as no frame on the stack needs it.
    static void reap() noexcept;

    Loop &loop() noexcept { return *loop_; }
    IoWatches &io() noexcept { return io_; }
    SignalWatches &signals() noexcept { return signals_; }
    cl_dunix_t create_socket(const cl_sockaddr_t &address); // 0 with errno set; may throw bad_alloc
    std::shared_ptr<Dunix> take_socket(cl_dunix_t id) noexcept { return sockets_.take(id); }
    Dunix *find_socket(cl_dunix_t id) noexcept {
        const auto *found = sockets_.find(id);
        return found ? found->get() : nullptr;
    }

  private:
    static ThreadEvents *make(uv_loop_t *foreign) noexcept;
    static bool watch_forks() noexcept;
    static void after_fork_in_child() noexcept;
    explicit ThreadEvents(std::unique_ptr<Loop> loop) noexcept
        : loop_(std::move(loop)), io_(*loop_), signals_(*loop_) {}
    void close_sockets() noexcept;

    std::unique_ptr<Loop> loop_; // outlives the sockets and watches
    IoWatches io_;
    SignalWatches signals_;
    RecvBatchPool batches_;
    SlotTable<std::shared_ptr<Dunix>> sockets_;
    ThreadEvents *next_abandoned_ = nullptr;
};

} // namespace tavcl_ev
