// The channels of one socket, by destination. At most 64 may have a descriptor: a further one takes the place
// of the channel that was used longest ago. A channel that is idle for ten seconds is closed. Stalled
// channels stay; when all are stalled, further destinations get channels without a descriptor, until the next
// sweep. The loop bounds the descriptors of all sockets together.
#pragma once

#include <memory>
#include <string_view>
#include <unordered_map>

#include "channel.h"

namespace tavcl_ev {

class ChannelSet {
  public:
    ChannelSet(Loop &loop, int bound_fd) noexcept : loop_(loop), bound_fd_(bound_fd) {}
    ~ChannelSet();
    ChannelSet(const ChannelSet &) = delete;
    ChannelSet &operator=(const ChannelSet &) = delete;

    // Returns the channel to an address, a new one if necessary; null when the address is not that of a Unix
    // socket. May throw bad_alloc.
    Channel *find_or_make(const cl_sockaddr_t &address);
    // Closes all channels. Returns the sends that waited in them.
    SendQueue close() noexcept;

  private:
    Channel &make(const cl_sockaddr_t &destination);
    bool evict() noexcept;
    void start_sweep() noexcept;
    void sweep() noexcept;

    Loop &loop_;
    const int bound_fd_;
    std::unordered_map<std::string_view, std::unique_ptr<Channel>> channels_; // keys: their own destinations
    Channel *last_ = nullptr; // the one returned last: consecutive sends mostly have one destination
    uint64_t sweep_timer_ = 0;
};

} // namespace tavcl_ev
