// What one thread has of this library: its loop, its sockets, its receive buffers.
#pragma once

#include <memory>

#include "dunix.h"
#include "loop.h"
#include "recv_batch.h"
#include "slot_table.h"

namespace tavcl_ev {

class ThreadEvents {
  public:
    // The calling thread's. get() makes it on first use: null when that cannot be, while it is being
    // released, and after the thread's end. existing() makes none.
    static ThreadEvents *get() noexcept;
    static ThreadEvents *existing() noexcept;
    static bool attach(uv_loop_t *foreign) noexcept;
    static void release() noexcept;

    Loop &loop() noexcept { return *loop_; }
    cl_dunix_t create_socket(const cl_sockaddr_t &address); // 0 with errno set; may throw bad_alloc
    std::shared_ptr<Dunix> take_socket(cl_dunix_t id) noexcept { return sockets_.take(id); }
    Dunix *find_socket(cl_dunix_t id) noexcept {
        const auto *found = sockets_.find(id);
        return found ? found->get() : nullptr;
    }

  private:
    static ThreadEvents *make(uv_loop_t *foreign) noexcept;
    explicit ThreadEvents(std::unique_ptr<Loop> loop) noexcept : loop_(std::move(loop)) {}

    std::unique_ptr<Loop> loop_; // outlives the sockets
    RecvBatchPool batches_;
    SlotTable<std::shared_ptr<Dunix>> sockets_;
    const pid_t process_ = getpid();
};

} // namespace tavcl_ev
