// The watches of one loop for descriptors of the caller's.
//
// They are in an epoll set of their own, which the loop watches. libuv does not see the descriptors: it would
// change their flags and abort when one is closed too early.
#pragma once

#include <unordered_map>

#include "fd_watch.h"
#include "private_fd.h"
#include "slot_table.h"
#include "tavcl_loop.h"

namespace tavcl_ev {

class Loop;

class IoWatches {
  public:
    explicit IoWatches(Loop &loop) noexcept : loop_(loop) {}
    ~IoWatches() { close(); }
    IoWatches(const IoWatches &) = delete;
    IoWatches &operator=(const IoWatches &) = delete;

    // Returns 0 with errno set on failure. May throw bad_alloc.
    cl_io_t start(int fd, int events, cl_io_cb callback, void *argument);
    void stop(cl_io_t io) noexcept;
    // Stops all, without a system call on the set in a child that shares it with its parent.
    void close() noexcept;

  private:
    struct Watch {
        int fd = -1;
        int events = 0;
        cl_io_cb callback = nullptr;
        void *argument = nullptr;
    };
    bool open() noexcept;
    void drain() noexcept;

    Loop &loop_;
    PrivateFd set_;
    FdWatch watch_;
    SlotTable<Watch> watches_;
    std::unordered_map<int, cl_io_t> by_fd_;
    uint64_t drains_ = 0;
};

} // namespace tavcl_ev
