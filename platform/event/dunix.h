// A Unix datagram socket: the bound file, the channels to destinations, and reception.
#pragma once

#include <memory>

#include "channel_set.h"
#include "receiver.h"
#include "socket_file.h"

namespace tavcl_ev {

class Dunix : public std::enable_shared_from_this<Dunix> {
  public:
    Dunix(Loop &loop, RecvBatchPool &batches, BoundSocket bound) noexcept
        : loop_(loop), bound_(std::move(bound)), receiver_(loop, batches), channels_(loop, bound_.fd()) {}

    void set_id(cl_dunix_t id) noexcept { id_ = id; }
    bool start_receiving(cl_dunix_recv_cb callback, void *context) noexcept;
    // False when memory is short; the callback is then never called.
    bool send(const cl_sockaddr_t &address, const void *data, uint32_t len, cl_dunix_send_cb callback,
              void *context) noexcept;
    // Calls back for every send that is not reported yet. The caller keeps this object alive, and has taken
    // it out of the table, so that its id is stale.
    void close() noexcept;

  private:
    Loop &loop_;
    cl_dunix_t id_ = 0;
    BoundSocket bound_;
    Receiver receiver_;
    ChannelSet channels_;
};

} // namespace tavcl_ev
