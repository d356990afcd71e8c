// The file of a bound socket: made with its directories, told from a stale one, removed if it is still ours.
#pragma once

#include <sys/types.h>

#include "common/facts.h"
#include "common/unique_fd.h"
#include "tavcl_ev.h"

namespace tavcl_ev {

using tavipc::kSendBuffer;
using tavipc::UniqueFd;

// Which file a path leads to; the default is none.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity &) const = default;
};

// Of the socket at a path; none, with errno set, for anything else.
FileIdentity identify_socket(const char *path, bool follow_links) noexcept;

// Fills an address record; false when the path is empty or too long.
bool fill_address(cl_sockaddr_t *address, const char *path) noexcept;

// A datagram socket, not blocking, with as large a send buffer as is allowed; none with errno set.
UniqueFd make_datagram_socket() noexcept;
// The system doubles the value. Beyond its limit only with the privilege to do so.
void set_send_buffer(int fd, int bytes) noexcept;

// A socket bound to its file, which is removed with it.
class BoundSocket {
  public:
    BoundSocket() = default;
    // None with errno set. EADDRINUSE: a live socket, or something else, is at the path.
    static BoundSocket make(const cl_sockaddr_t &address) noexcept;
    BoundSocket(BoundSocket &&) = default;
    BoundSocket &operator=(BoundSocket &&) = delete;
    ~BoundSocket() { remove(); }

    int fd() const noexcept { return fd_.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(fd_); }
    void remove() noexcept;

  private:
    UniqueFd fd_;
    cl_sockaddr_t address_{};
    FileIdentity file_;
    pid_t maker_ = 0;
};

} // namespace tavcl_ev
