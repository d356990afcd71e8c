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

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>

#include "common/unique_fd.h"
#include "tavcl_loop.h"

namespace tavbridge {

class Pipe {
  public:
    struct Datagram {
        uint64_t ticket; // for done()
        std::string_view bytes, from;
    };
    // Gets each datagram once, those of one turn of the loop together. It may call done() and read().
    using Handler = std::function<void(std::span<const Datagram>)>;

    explicit Pipe(Handler handler) : handler_(std::move(handler)) {}
    ~Pipe();
    Pipe(const Pipe &) = delete;

    // Takes the socket with this path that the service manager has passed, or makes one. False with errno set
    // on failure.
    bool open(const std::string &path);
    // While it does not read, the datagrams stay in the socket, and their senders wait.
    void read(bool reading);
    bool reading() const { return reading_; }
    void done(uint64_t ticket);
    // Takes out what is done, up to the first datagram that is not.
    void take_done();

  private:
    static constexpr size_t kAtOnce = 64;
    struct Seen {
        size_t size = 0;
        bool done = false;
    };
    void arm(int operation);
    void look();
    void skip_seen();

    const Handler handler_;
    std::string own_path_; // of a socket that it made
    tavipc::UniqueFd socket_, set_;
    cl_io_t io_ = 0;
    bool reading_ = false;
    std::unique_ptr<char[]> buffer_; // for kAtOnce datagrams
    std::array<iovec, kAtOnce> places_;
    std::array<sockaddr_un, kAtOnce> senders_;
    std::array<mmsghdr, kAtOnce> messages_{}; // each with its place and its sender
    std::deque<Seen> seen_;                   // what was looked at and is still in the socket
    uint64_t first_ = 1;                      // ticket of the first
};

} // namespace tavbridge
