// Keeps errno over calls that may change it: clean-up, and log lines, whose sink may do anything.
#pragma once

#include <cerrno>

namespace tavipc {

class KeepErrno {
  public:
    KeepErrno() noexcept : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;

  private:
    const int saved_;
};

} // namespace tavipc
