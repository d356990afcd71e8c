#include "channel_set.h"

#include <cassert>
#include <cstddef>
#include <cstring>

#include "loop.h"

namespace tavcl_ev {

namespace {

// Channels of one socket with a descriptor: a hub's busy destinations, in a quarter of the loop's 256.
constexpr size_t kMaxChannels = 64;
// Long enough that periodic traffic keeps its descriptor, short enough that a burst to many gives theirs
// back.
constexpr uint64_t kIdle_ms = 10'000;

std::string_view bytes_of(const cl_sockaddr_t &address) {
    return {reinterpret_cast<const char *>(&address.addr), address.len};
}

// Gives each address one form: a path with its terminator, whatever length the caller set.
bool normalise(const cl_sockaddr_t &address, cl_sockaddr_t *normal) {
    constexpr size_t kPath = offsetof(sockaddr_un, sun_path);
    if (address.len <= kPath || address.len > sizeof address.addr || address.addr.sun_family != AF_UNIX)
        return false;
    *normal = {};
    memcpy(&normal->addr, &address.addr, address.len);
    normal->len = address.len;
    if (address.addr.sun_path[0] == '\0') return true; // every byte of an abstract name counts
    char path[sizeof address.addr.sun_path + 1] = {};
    memcpy(path, address.addr.sun_path, address.len - kPath);
    return fill_address(normal, path);
}

} // namespace

ChannelSet::~ChannelSet() {
    assert(channels_.empty());
    loop_.stop_timer(sweep_timer_);
}

Channel *ChannelSet::find_or_make(const cl_sockaddr_t &address) {
    if (last_ && bytes_of(last_->destination()) == bytes_of(address)) return last_;
    cl_sockaddr_t destination;
    if (!normalise(address, &destination)) return nullptr;
    const auto found = channels_.find(bytes_of(destination));
    last_ = found != channels_.end() ? found->second.get() : &make(destination);
    return last_;
}

Channel &ChannelSet::make(const cl_sockaddr_t &destination) {
    const bool may_connect = channels_.size() < kMaxChannels || evict();
    auto channel = std::make_unique<Channel>(loop_, bound_fd_, destination, may_connect);
    const std::string_view key = bytes_of(channel->destination());
    Channel &made = *channels_.emplace(key, std::move(channel)).first->second;
    if (!sweep_timer_) start_sweep();
    return made;
}

// Closes idle channels until one more may have a descriptor. False when all are stalled.
bool ChannelSet::evict() noexcept {
    while (channels_.size() >= kMaxChannels) {
        auto oldest = channels_.end();
        for (auto at = channels_.begin(); at != channels_.end(); ++at)
            if (!at->second->waits() &&
                (oldest == channels_.end() || at->second->last_used_ms() < oldest->second->last_used_ms()))
                oldest = at;
        if (oldest == channels_.end()) {
            if (loop_.batches().empty()) return false;
            loop_.batches().send_all(); // a channel with a batch is idle then, unless that begins a stall
            continue;
        }
        if (last_ == oldest->second.get()) last_ = nullptr;
        channels_.erase(oldest);
    }
    return true;
}

// At multiples of the interval, so that the sweeps of all sockets share one wake-up.
void ChannelSet::start_sweep() noexcept {
    sweep_timer_ =
        loop_.start_timer((clock_ms() / kIdle_ms + 1) * kIdle_ms,
                          [](void *self) { static_cast<ChannelSet *>(self)->sweep(); }, this, false);
}

void ChannelSet::sweep() noexcept {
    const uint64_t now = clock_ms();
    sweep_timer_ = 0;
    last_ = nullptr;
    // A channel that may have no descriptor is made anew with the next send, and may have one then.
    std::erase_if(channels_, [now](const auto &entry) {
        const Channel &channel = *entry.second;
        return !channel.waits() && (!channel.may_connect() || now - channel.last_used_ms() >= kIdle_ms);
    });
    if (!channels_.empty()) start_sweep();
}

SendQueue ChannelSet::close() noexcept {
    SendQueue waiting;
    for (auto &entry : channels_) waiting.append(entry.second->take_waiting());
    channels_.clear();
    last_ = nullptr;
    return waiting;
}

} // namespace tavcl_ev
