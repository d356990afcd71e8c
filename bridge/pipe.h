// A socket that local modules write to, read so that nothing is lost when the bridge dies.
//
// A datagram is looked at with MSG_PEEK and taken out of the socket only when it is done: the engine has
// stored it, or nothing has to store it. Until then it stays in the kernel. If the service manager holds the
// socket, too (a socket unit), it survives a bridge that is killed, and the next one reads it again; the
// engine then recognises by their ids the datagrams that it has.
//
// SO_PEEK_OFF makes each peek begin behind the one before. The socket stays readable while it has such
// datagrams, so it is watched edge-triggered, in an epoll set of its own.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"
#include "tavcl_loop.h"

namespace tavbridge {

class Pipe {
  public:
    // Gets each datagram once, with the sender's address. The ticket is for done(), which it may call itself.
    using Handler = std::function<void(uint64_t ticket, std::string_view datagram, std::string_view from)>;

    // around(true) runs before it reads, around(false) after.
    Pipe(Handler handler, std::function<void(bool)> around)
        : handler_(std::move(handler)), around_(std::move(around)) {}
    ~Pipe();
    Pipe(const Pipe &) = delete;

    // Takes the socket with this path that the service manager has passed, or makes one. False with errno set
    // on failure.
    bool open(const std::string &path);
    // While it does not read, the datagrams stay in the socket, and their senders wait.
    void read(bool reading);
    void done(uint64_t ticket);
    bool reading() const { return reading_; }

  private:
    struct Seen {
        size_t size;
        bool done;
    };
    bool watch();
    void look();
    void take_done();

    const Handler handler_;
    const std::function<void(bool)> around_;
    std::string own_path_; // of a socket that it made
    tavipc::UniqueFd socket_, set_;
    cl_io_t io_ = 0;
    bool reading_ = false, looking_ = false;
    std::vector<char> buffer_;
    std::deque<Seen> seen_; // what was looked at and is still in the socket
    uint64_t first_ = 1;    // ticket of the first
};

} // namespace tavbridge
