// Descriptors of libtavipc that a forked child does not keep: the child's copy of an inotify descriptor would
// take the parent's events, and a copy of a connection would keep it open after the parent has closed it.
//
// All are in one list of the process. The child closes them before fork returns, also those of threads that
// do not exist in the child. Their owners find them empty then.
#pragma once

#include <cstdint>

#include "common/unique_fd.h"

namespace tavipc {

class UnsharedFd {
  public:
    UnsharedFd() = default;
    ~UnsharedFd() { reset(); }
    UnsharedFd(const UnsharedFd &) = delete;
    UnsharedFd &operator=(const UnsharedFd &) = delete;

    // Closes what it has and takes the UniqueFd that make() returns; no thread forks in between. False, with
    // errno set, when that is empty or memory is short. make() must not use an UnsharedFd.
    template <class Make> [[nodiscard]] bool take_from(Make make) noexcept {
        reset();
        lock();
        const bool taken = take(make());
        unlock();
        return taken;
    }
    void reset() noexcept;
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

  private:
    static void lock() noexcept; // the list, which forks wait for
    static void unlock() noexcept;
    static void close_all_in_child() noexcept;
    bool take(UniqueFd fd) noexcept;  // the list is locked
    static const bool watches_forks_; // false: memory was short

    int fd_ = -1;
    UnsharedFd *next_ = nullptr;
    UnsharedFd **link_ = nullptr; // what points at this one
};

// The number of forks between the process that loaded the library and this one. What was made at another
// value belongs to the parent.
uint32_t fork_count() noexcept;

} // namespace tavipc
