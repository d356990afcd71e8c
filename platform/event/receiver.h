// The receiving side of one socket: fetches datagrams in batches and hands them to the callback.
//
// drain() may be on the stack several times, when a callback runs the loop. fetched_ is the only batch with
// undelivered datagrams. An inner drain delivers the rest of it before it fetches more, which keeps the
// order. A drain never fetches more than it may still deliver, so nothing is left over when it returns,
// unless the socket was closed.
//
// A drain fetches until the socket is empty or it has delivered 64 datagrams. The next datagram of a fast
// sender then arrives before the loop has completed its turn, and neither side sleeps. One fetch is one
// system call. The first line that applies says how many datagrams it asks for:
//
//   situation                                             datagrams in a fetch
//   several drains in a row found one at most (a)         1, then the drain ends; each fourth drain as below
//   the last datagram was large (b)                       1
//   eight datagrams have come in a row (c)                16
//   the callbacks of the drain before sent something (d)  1
//   otherwise                                             4
//
// (a) Datagrams arrive one by one. A second fetch would find nothing, which wastes 0.3 microseconds.
// (b) It then uses the same buffer again, which stays in the cache.
// (c) Many datagrams wait, and larger fetches cost less for each.
// (d) The receiver answers. If it first fetched all that a peer has outstanding, the peer would have nothing
//     to do until the first answer, and would sleep. Both sides would then wake each other again and again.
#pragma once

#include "fd_watch.h"
#include "recv_batch.h"

namespace tavcl_ev {

class Loop;

class Receiver {
  public:
    Receiver(Loop &loop, RecvBatchPool &batches) noexcept : loop_(loop), batches_(batches) {}
    ~Receiver() { close(); }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    // Starts, or replaces the callback. ready(owner) must call drain(). Returns false on failure.
    bool start(int fd, cl_dunix_t socket, cl_dunix_recv_cb callback, void *context, FdWatch::Handler ready,
               void *owner) noexcept;
    // The caller keeps this object alive until drain() has returned.
    void drain() noexcept;
    void close() noexcept;

  private:
    unsigned fetch(RecvBatch &batch, unsigned most) noexcept;
    unsigned next_fetch() const noexcept;
    void deliver(const RecvBatch::Datagram &datagram, int status) noexcept;

    Loop &loop_;
    RecvBatchPool &batches_;
    FdWatch watch_;
    int fd_ = -1;
    cl_dunix_t socket_ = 0;
    cl_dunix_recv_cb callback_ = nullptr; // null: not started, or closed
    void *context_ = nullptr;
    RecvBatch *fetched_ = nullptr;
    uint32_t last_len_ = 0; // bytes of the datagram that was delivered last
    unsigned in_a_row_ = 0; // datagrams since the socket was found empty, or nearly
    bool answers_ = false;  // the callbacks of the drain before sent something
    unsigned singles_ = 0;  // drains in a row that found no more than one datagram
};

} // namespace tavcl_ev
