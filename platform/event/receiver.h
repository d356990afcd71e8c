// The receiving side of one socket: fetches datagrams in batches and hands them to the callback.
//
// drain() may be on the stack several times, when a callback runs the loop. fetched_ is the only batch with
// undelivered datagrams. An inner drain delivers the rest of it before it fetches more, which keeps the
// order. A drain never fetches more than it may still deliver, so nothing is left over when it returns,
// unless the socket was closed.
//
// When datagrams arrive one by one, a second fetch finds nothing and wastes a third of a microsecond. A drain
// then fetches one, and only every fourth drain asks for more. When several arrive, a drain fetches until
// none is left: the next datagram of a fast sender arrives before the loop has completed its turn, and
// neither side sleeps. At first it fetches one at a time if the callbacks of the drain before sent something,
// else four. If it took all that a peer has outstanding, the peer would have nothing to do until the first of
// them is answered, and would sleep; then both sides would wake each other up by turns. After eight in a row
// many datagrams wait, and larger fetches cost less. Large datagrams are fetched one at a time, into a buffer
// that stays in the cache.
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
