// The channels of one socket, by destination. Their number is bounded: beyond 64 the one that was used
// longest ago makes way, and one that is idle for ten seconds is closed. A stalled channel stays; when all
// are stalled, further destinations get channels without a descriptor. (The descriptors of all sockets
// together are bounded by the loop.)
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

    // The channel to an address, made when there is none; null when it is no Unix socket address. May throw
    // bad_alloc.
    Channel *find_or_make(const cl_sockaddr_t &address);
    // Closes all channels. Returns what waited in them.
    SendQueue close() noexcept;

  private:
    Channel &make(const cl_sockaddr_t &destination);
    bool evict() noexcept;
    void start_sweep() noexcept;
    void sweep() noexcept;

    Loop &loop_;
    const int bound_fd_;
    std::unordered_map<std::string_view, std::unique_ptr<Channel>> channels_; // keys: their own destinations
    Channel *last_ = nullptr;                                                 // that was asked for
    uint64_t sweep_timer_ = 0;
};

} // namespace tavcl_ev
