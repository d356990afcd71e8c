// The receiving side of one socket: fetches datagrams in batches and hands them to the callback.
//
// drain() may be on the stack several times, when a callback runs the loop. fetched_ is the one batch with
// datagrams that are not delivered yet: an inner drain delivers the rest of it before it fetches more, so
// that the order holds. Every drain fetches no more than it may still deliver, so none is left over when it
// returns, unless the socket was closed.
//
// Where datagrams come one by one, asking for more than one is a wasted look into the socket (a third of a
// microsecond): then a drain asks for one, and only every fourth for more. Where they come in numbers, it
// asks until there are none: with a quick sender the next is there before the loop has gone round, and
// neither side goes to sleep.
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

    // Starts, or replaces the callback. ready(owner) is called when drain() is to be; false on failure.
    bool start(int fd, cl_dunix_t socket, cl_dunix_recv_cb callback, void *context, FdWatch::Handler ready,
               void *owner) noexcept;
    // The caller keeps this object alive until drain() returns.
    void drain() noexcept;
    void close() noexcept;

  private:
    unsigned fetch(RecvBatch &batch, unsigned most) noexcept;
    void deliver(const RecvBatch::Datagram &datagram, int status) noexcept;

    Loop &loop_;
    RecvBatchPool &batches_;
    FdWatch watch_;
    int fd_ = -1;
    cl_dunix_t socket_ = 0;
    cl_dunix_recv_cb callback_ = nullptr; // null: not started, or closed
    void *context_ = nullptr;
    RecvBatch *fetched_ = nullptr;
    unsigned singles_ = 0; // drains in a row that found no more than one datagram
};

} // namespace tavcl_ev
