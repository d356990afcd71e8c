// An owned file descriptor.
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace tavipc {

// An owned descriptor. Closing leaves errno as it was.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    void reset() noexcept {
        if (fd_ < 0) return;
        const int saved = errno;
        close(std::exchange(fd_, -1));
        errno = saved;
    }
    // Gives the descriptor to the caller.
    int release() noexcept { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

} // namespace tavipc
