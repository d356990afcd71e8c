// Carries the datagrams of one socket to one destination.
//
// A channel sends through a socket of its own, unbound and connected to the destination. That saves the path
// lookup for each datagram, and only a connected socket becomes writable when the destination can take more.
// States:
//
//   free      waiting_ is empty; a datagram is sent at once
//   batching  if the loop batches: datagrams wait in waiting_, in order, until their batch leaves (batches.h)
//   stalled   the destination was full; datagrams wait in waiting_, in order, until the socket is writable,
//             and then as many leave as the destination takes
//
// While stalled, the send buffer is lowered to twenty datagrams of the current size. The kernel reports a
// socket writable only when three quarters of its buffer are free. The sender is therefore woken when five of
// the eleven datagrams in a full queue are left, not after each read, and a fast reader does not run dry. The
// buffer stays lowered after the stall, until a larger datagram needs more.
//
// A stalled channel checks at intervals (tick) whether the destination still reads. It counts as progress
// that datagrams of ours left the queue, or that the socket became writable. Without progress for the
// send-wait time, all waiting sends are reported as would-block.
//
// A channel without a descriptor sends by path through the bound socket, and a short timer takes the place of
// the writable event. No function here calls back: outcomes go to Loop::finish.
#pragma once

#include <cstdint>
#include <sys/uio.h>

#include "batches.h"
#include "fd_watch.h"
#include "private_fd.h"
#include "send_queue.h"
#include "socket_file.h"
#include "tavcl_ev.h"

namespace tavcl_ev {

class Loop;

class Channel {
  public:
    // bound_fd outlives the channel. may_connect: the channel may have a descriptor of its own.
    Channel(Loop &loop, int bound_fd, const cl_sockaddr_t &destination, bool may_connect) noexcept;
    ~Channel();
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    void send(Send *send) noexcept;
    // Sends a datagram of several parts, len bytes in all, if nothing waits. Returns an enum cl_ev_status.
    int send_now(const iovec *parts, size_t count, uint32_t len) noexcept;
    // Takes out all waiting sends. Only destruction is allowed afterwards.
    SendQueue take_waiting() noexcept { return std::move(waiting_); }

    bool may_connect() const noexcept { return may_connect_; }
    bool waits() const noexcept { return !waiting_.empty(); }
    uint64_t last_used_ms() const noexcept { return last_used_ms_; }
    const cl_sockaddr_t &destination() const noexcept { return destination_; }

  private:
    // What one system call sends.
    struct Datagram {
        const iovec *parts;
        size_t count; // of parts
        uint32_t len; // bytes in all
    };
    int try_send(const Send &send, uint64_t now) noexcept;
    int try_send(const Datagram &datagram, uint64_t now) noexcept;
    int send_connected(const Datagram &datagram) noexcept;
    int send_by_path(const Datagram &datagram) noexcept;
    bool open_descriptor() noexcept;
    void close_descriptor() noexcept;
    int connect_afresh(uint64_t now) noexcept;
    void notice_new_owner(uint64_t now) noexcept;

    void add_to_batch(Send *send) noexcept;
    void send_batch() noexcept;
    void stall(uint64_t now) noexcept;
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
    FileIdentity file_; // the file that fd_ is connected to
    uint64_t file_seen_ms_ = 0;
    int full_buffer_ = 0; // bytes as the kernel counts them, when not lowered
    int buffer_ = 0;      // the same, now

    SendQueue waiting_;
    FdWatch watch_;
    uint64_t retry_timer_ = 0; // in place of the watch
    uint64_t tick_timer_ = 0;
    uint64_t last_used_ms_ = 0;
    uint64_t last_progress_ms_ = 0;
    int last_unread_ = 0; // bytes as the kernel counts them
    bool stalled_ = false;
    Batches::Member batch_;
    uint32_t batched_ = 0; // sends in the batch
    uint32_t pushed_ = 0;  // sends added to waiting_ since send() last tried to flush
    uint32_t pushed_bytes_ = 0;
};

} // namespace tavcl_ev
