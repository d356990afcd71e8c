// Descriptors that a forked child does not keep.
//
// A child shares each open socket with its parent. If the child kept a copy, a socket whose owner has ended
// would still accept datagrams, and the parent's epoll set would go on reporting a socket that the parent has
// closed. Every descriptor that outlives one call is therefore listed here, and the child closes all that are
// listed, those of threads that do not exist in the child included. The list, not the PrivateFd, decides who
// closes: an object that survives in the child finds its number no longer listed and leaves it alone.
#pragma once

#include <utility>

#include "common/unique_fd.h"

namespace tavcl_ev {

// For the handlers of fork. The list stays locked, and so consistent, from lock to unlock.
void lock_private_fds() noexcept;
void unlock_private_fds() noexcept;

class PrivateFd {
  public:
    PrivateFd() = default;
    // Takes the UniqueFd that make() returns; no thread forks before it is listed. Empty, with errno set,
    // when that is empty or memory is short.
    template <class Make> static PrivateFd of(Make make) noexcept {
        PrivateFd made;
        lock_private_fds();
        made.take(make());
        unlock_private_fds();
        return made;
    }
    PrivateFd(PrivateFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    PrivateFd &operator=(PrivateFd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~PrivateFd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    void reset() noexcept;

  private:
    void take(tavipc::UniqueFd fd) noexcept; // the list is locked

    int fd_ = -1;
};

// Closes every listed descriptor. Only in a forked child.
void close_private_fds() noexcept;
// Puts a descriptor that is never ready in the place of a listed one, which is not listed any more then. Only
// in a forked child.
void make_private_fd_inert(int fd) noexcept;

} // namespace tavcl_ev
