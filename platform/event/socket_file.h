// The file of a bound socket: created with its directories, replaced when it is stale, removed if it is still
// ours.
#pragma once

#include <sys/types.h>

#include "private_fd.h"
#include "tavcl_ev.h"

namespace tavcl_ev {

// Identifies the file at a path; the default value stands for none.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity &) const = default;
};

// Identifies the socket at a path. None, with errno set, for anything else.
FileIdentity identify_socket(const char *path, bool follow_links) noexcept;

// Fills an address record. False when the path is empty or too long.
bool fill_address(cl_sockaddr_t *address, const char *path) noexcept;

// A non-blocking datagram socket whose send buffer is as large as the system allows. Empty, with errno set,
// on failure.
PrivateFd make_datagram_socket() noexcept;
// Bytes. Sixty datagrams of 64,000 bytes: more than a receiver's queue holds, so the queue is the limit.
// The kernel doubles the value. Values above the system's limit need a privilege, and are cut to it without.
void set_send_buffer(int fd, int bytes) noexcept;

// A socket bound to its file, which is removed with it.
class BoundSocket {
  public:
    BoundSocket() = default;
    // Empty, with errno set, on failure. EADDRINUSE: the path leads to a live socket, or to another kind of
    // file.
    static BoundSocket make(const cl_sockaddr_t &address) noexcept;
    BoundSocket(BoundSocket &&) = default;
    BoundSocket &operator=(BoundSocket &&) = delete;
    ~BoundSocket() { remove(); }

    int fd() const noexcept { return fd_.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(fd_); }
    void remove() noexcept;
    // Closes the socket and leaves the file: in a forked child it is the parent's.
    void forget() noexcept { fd_.reset(); }

  private:
    PrivateFd fd_;
    cl_sockaddr_t address_{};
    FileIdentity file_;
};

} // namespace tavcl_ev
