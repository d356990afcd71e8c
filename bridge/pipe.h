// A socket that local modules write to, and the datagrams in it that the engine has not confirmed.
//
// A datagram is looked at with MSG_PEEK and taken out of the socket only when it is done: the engine has
// stored it, or nothing has to store it. Until then it stays in the kernel. If the service manager holds the
// socket, too (a socket unit), it survives a bridge that is killed, and the next one reads it again; the
// engine then recognises by their ids the datagrams that it has. What is to be stored goes out in the order
// in which it came, and all of it again on a new connection.
//
// SO_PEEK_OFF makes each peek begin behind the one before. The socket stays readable while it has such
// datagrams, so it is watched edge-triggered, in an epoll set of its own.
#pragma once

#include <array>
#include <deque>

#include <sys/socket.h>
#include <sys/un.h>

#include "engine.h"

namespace tavbridge {

class Pipe {
  public:
    // Gets each datagram once. Returns the message with which the engine shall store it, or null if it is
    // done. The engine answers to reply_subject(ticket).
    using Take = std::function<Message(uint64_t ticket, std::string_view datagram, std::string_view from)>;

    // taken() is called after the datagrams of one turn of the loop, and may call read().
    Pipe(Engine &engine, Counters &counters, Take take, std::function<void()> taken)
        : engine_(engine), counters_(counters), take_(std::move(take)), taken_(std::move(taken)) {}
    ~Pipe();

    // Takes the socket with this path that the service manager has passed, or makes one. False with errno set
    // on failure.
    bool open(const std::string &path);
    // While it does not read, the datagrams stay in the socket, and their senders wait.
    void read(bool reading);
    bool reading() const { return reading_; }
    // The engine's answer: stored, now or before; or not, which is tried again.
    void answered(uint64_t ticket, bool stored, bool before);
    // Gives the engine again what it refused or did not answer in time; all that it has not confirmed.
    void resend(bool all);
    // Takes out what is done, up to the first datagram that is not.
    void take_done();
    // Of what the engine has not confirmed.
    uint64_t bytes() const { return bytes_; }
    uint64_t waiting() const { return waiting_; }

  private:
    static constexpr size_t kAtOnce = 64;
    struct Seen {
        size_t size = 0;
        Message message = nullptr; // to store; null: the datagram is done
        uint64_t due_ms = 0;       // when it is given to the engine again
    };
    void arm(int operation);
    void look();
    void send(Seen &seen);

    Engine &engine_;
    Counters &counters_;
    const Take take_;
    const std::function<void()> taken_;
    std::string own_path_; // of a socket that it made
    tavipc::UniqueFd socket_, set_;
    cl_io_t io_ = 0;
    bool reading_ = false;
    std::unique_ptr<char[]> buffer_; // for kAtOnce datagrams, each with its place, sender and message header
    std::array<iovec, kAtOnce> places_;
    std::array<sockaddr_un, kAtOnce> senders_;
    std::array<mmsghdr, kAtOnce> headers_{};
    std::deque<Seen> seen_; // what was looked at and is still in the socket
    uint64_t first_ = 1;    // ticket of the first
    uint64_t bytes_ = 0, waiting_ = 0;
};

} // namespace tavbridge
