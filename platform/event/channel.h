// The way of one socket's datagrams to one destination.
//
// A channel sends through a socket of its own, unbound and connected to the destination: that saves the
// look-up of the path for each datagram, and it is the only kind of socket whose writability tells whether
// the destination has room. States:
//
//   free      waiting_ is empty; a datagram is sent at once
//   stalled   the destination was full: datagrams wait in waiting_, in order, until the connected socket is
//             writable; then as many leave as there is room for
//
// While stalled, the send buffer is lowered to twenty datagrams of the size at hand. The kernel reports a
// socket writable only when three quarters of its buffer are free: the sender is woken when five of eleven
// are left and fills up, not once for each datagram that is read; and a quick reader is not kept waiting
// until its last is gone. The buffer stays lowered after the stall, until a larger datagram needs more.
//
// A stalled channel looks every now and then (tick) whether the destination still reads: by our datagrams
// that left its queue, or by the room that a wake-up proved. When it has not for the send-wait time, all that
// wait are reported as would-block.
//
// Without a descriptor for a channel, datagrams go by path through the bound socket, and a short timer takes
// the place of the writability. No function here calls back: outcomes go to Loop::finish.
#pragma once

#include <cstdint>

#include "fd_watch.h"
#include "private_fd.h"
#include "send_queue.h"
#include "socket_file.h"
#include "tavcl_ev.h"

namespace tavcl_ev {

class Loop;

class Channel {
  public:
    // bound_fd outlives the channel. may_connect: whether it may have a descriptor of its own.
    Channel(Loop &loop, int bound_fd, const cl_sockaddr_t &destination, bool may_connect) noexcept;
    ~Channel();
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    void send(Send *send) noexcept;
    // Takes what waits; the channel is only good for destruction then.
    SendQueue take_waiting() noexcept { return std::move(waiting_); }

    bool stalled() const noexcept { return !waiting_.empty(); }
    uint64_t last_used_ms() const noexcept { return last_used_ms_; }
    const cl_sockaddr_t &destination() const noexcept { return destination_; }

  private:
    int try_send(const Send &send, uint64_t now) noexcept;
    int send_connected(const Send &send) noexcept;
    int send_by_path(const Send &send) noexcept;
    bool open_descriptor() noexcept;
    void close_descriptor() noexcept;
    int connect_afresh(uint64_t now) noexcept;
    void notice_new_owner(uint64_t now) noexcept;

    void stall(Send *send, uint64_t now) noexcept;
    void wait_for_room() noexcept;
    void flush() noexcept;
    unsigned send_many() noexcept;
    void finish_front(int error) noexcept;
    void end_stall() noexcept;
    void tick() noexcept;
    void start_tick(uint64_t now) noexcept;
    int unread_bytes() const noexcept;

    void make_room_for(uint32_t len) noexcept;
    void size_buffer_for(uint32_t len) noexcept;

    Loop &loop_;
    const int bound_fd_;
    const cl_sockaddr_t destination_;
    const bool may_connect_;

    PrivateFd fd_;
    bool connected_ = false;
    FileIdentity file_; // that it is connected to
    uint64_t file_seen_ms_ = 0;
    int full_buffer_ = 0; // bytes as the kernel counts them
    int buffer_ = 0;

    SendQueue waiting_;
    FdWatch watch_;
    uint64_t retry_timer_ = 0; // in place of the watch
    uint64_t tick_timer_ = 0;
    uint64_t last_used_ms_ = 0;
    uint64_t last_progress_ms_ = 0;
    int last_unread_ = 0;
    uint32_t pushed_ = 0; // onto waiting_, since send last tried to flush
    uint32_t pushed_bytes_ = 0;
};

} // namespace tavcl_ev
