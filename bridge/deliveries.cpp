#include "deliveries.h"

#include <algorithm>
#include <functional>
#include <new>

#include "common/datagram.h"
#include "common/log.h"
#include "tavipc/tav_ipc_stats.h"

namespace tavbridge {
namespace {

constexpr size_t kMostDelivered = 65536;  // keys to remember: many windows
constexpr uint64_t kBatchBytes = 8 << 20; // of one batch: the library refuses 32 MiB to a destination
constexpr size_t kBatch = 256;            // datagrams: most of a window
constexpr size_t kMostGathered = 64;      // fragments of a message that wait for one another: 4 MB
constexpr int kMostQuiet = 6;             // a minute: two deliveries of the engine
constexpr uint64_t kLook_ms = 1;          // the library has no callback for "left"
// Pause before another attempt: 5 s more each time, because a module restarts in seconds; at most a minute.
constexpr uint64_t kTryAgain_s = 5, kMostTryAgain_s = 60;

struct Fate {
    bool pending = false;
    uint64_t drops = 0;
};

// What the library has of a destination's datagrams, and how many it has dropped.
Fate fate_of(tav_ipc_st *endpoint, const std::string &name) {
    tav_ipc_stats_st stats;
    if (tav_ipc_get_stats(endpoint, name.c_str(), &stats, sizeof stats) != 0) return {};
    const auto &v = stats.values;
    const uint64_t pending = v[TAV_IPC_STATS_QUEUED] + v[TAV_IPC_STATS_IN_FLIGHT];
    return {pending > 0, v[TAV_IPC_STATS_ACCEPTED] - v[TAV_IPC_STATS_LEFT] - pending};
}

} // namespace

// With replicas the sender's id is the key, but not after the time for duplicates, when another message may
// have it.
void Deliveries::use_id(Item &item) const {
    const char *id = nullptr;
    if (settings_.replicas < 2 || natsMsgHeader_Get(item.message.get(), kBridgeId, &id) != NATS_OK) return;
    const uint64_t key = std::hash<std::string_view>{}(id), now_ns = item.origin.time_ns;
    const auto at = known_.find(key);
    const uint64_t before_ns = at == known_.end() ? now_ns : at->second.time_ns;
    if (std::max(now_ns, before_ns) - std::min(now_ns, before_ns) < settings_.duplicates_s * 1'000'000'000)
        item.origin.key = key;
}

void Deliveries::add(Message message, const std::string &name) {
    const char *reply = natsMsg_GetReply(message.get());
    Item item{std::move(message), parse_origin(reply ? reply : "")};
    if (item.origin.key == 0) return; // not from a stream
    use_id(item);
    if (const auto at = known_.find(item.origin.key); at != known_.end()) {
        counters_.add(kRedelivered);
        if (at->second.delivered) engine_.answer(item.message.get(), "+ACK");
        return;
    }
    const Origin origin = item.origin;
    if (!gather(item, name)) queues_[name].waiting.push_back(std::move(item));
    known_.emplace(origin.key, Known{false, origin.time_ns});
}

// Keeps a fragment until the others are there, unless too much waits already.
bool Deliveries::gather(Item &item, const std::string &name) {
    const tav_ipc_hdr_st header = tavipc::read_header(content(item.message.get()).data());
    const size_t count = (size_t{header.frag_orig} + tavipc::kFragmentPayload - 1) / tavipc::kFragmentPayload;
    const uint64_t most = settings_.window / 2;
    if (!tavipc::is_fragment(header) || count > std::min<uint64_t>(kMostGathered, most)) return false;
    std::string key(reinterpret_cast<const char *>(&header.src), sizeof header.src);
    key += name + '.' + std::to_string(header.reqid) + '.' + std::to_string(header.frag_id);
    Parts &parts = parts_[key];
    if (!parts.items.try_emplace(tavipc::fragment_sequence(header), std::move(item)).second) return false;
    parts.name = name;
    parts.quiet = 0;
    ++gathered_;
    if (parts.items.size() >= count) {
        release(parts);
        parts_.erase(key);
    } else if (gathered_ >= most) {
        for (auto &[other, some] : parts_) release(some);
        parts_.clear();
    }
    return true;
}

void Deliveries::release(Parts &parts) {
    std::deque<Item> &waiting = queues_[parts.name].waiting;
    for (auto &[number, item] : parts.items) {
        --gathered_;
        item.more = number != parts.items.rbegin()->first;
        waiting.push_back(std::move(item));
    }
    parts.items.clear();
}

void Deliveries::finish(Item &item, bool left) {
    if (left) {
        delivered_.push_back(item.origin.key);
        known_[item.origin.key].delivered = true;
        counters_.add(kHandedDurable);
        engine_.answer(item.message.get(), "+ACK");
        if (delivered_.size() <= kMostDelivered) return;
        known_.erase(delivered_.front());
        return delivered_.pop_front();
    }
    known_.erase(item.origin.key);
    if (item.origin.times < settings_.attempts) {
        counters_.add(kPutBack);
        const uint64_t delay_s = std::min(kTryAgain_s * item.origin.times, kMostTryAgain_s);
        const std::string later = "-NAK {\"delay\":" + std::to_string(delay_s) + "000000000}";
        return engine_.answer(item.message.get(), later.c_str());
    }
    counters_.drop(kNoReceiver, content(item.message.get()), "all attempts failed");
    engine_.answer(item.message.get(), "+TERM");
}

void Deliveries::settle(const std::string &name, Queue &queue) {
    const Fate fate = fate_of(endpoint_, name);
    if (fate.pending) return;
    for (; !queue.batch.empty(); queue.batch.pop_front())
        finish(queue.batch.front(), fate.drops == queue.drops);
}

void Deliveries::hand_over(const std::string &name, Queue &queue) {
    queue.drops = fate_of(endpoint_, name).drops;
    for (uint64_t bytes = 0; !queue.waiting.empty();) {
        const bool full = queue.batch.size() >= kBatch || bytes >= kBatchBytes;
        if (full && !queue.batch.back().more) break;
        Item &item = queue.waiting.front();
        const std::string_view datagram = content(item.message.get());
        if (tav_ipc_send_raw(endpoint_, name.c_str(), datagram.data()) != IPC_OK) break;
        bytes += datagram.size();
        queue.batch.push_back(std::move(item));
        queue.waiting.pop_front();
    }
}

void Deliveries::poll() try {
    for (auto at = queues_.begin(); at != queues_.end();) {
        auto &[name, queue] = *at;
        if (!queue.batch.empty()) settle(name, queue);
        if (queue.batch.empty() && !queue.waiting.empty()) hand_over(name, queue);
        at = queue.batch.empty() && queue.waiting.empty() ? queues_.erase(at) : std::next(at);
    }
    const auto again = [](void *self) {
        static_cast<Deliveries *>(self)->timer_ = 0;
        static_cast<Deliveries *>(self)->poll();
        static_cast<Deliveries *>(self)->engine_.flush();
    };
    if (held() > 0 && !timer_) timer_ = cl_timer_start(kLook_ms, again, this);
} catch (const std::bad_alloc &) { // the bridge polls again soon
    TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for messages of the engine");
}

void Deliveries::keep_alive() {
    for (auto at = parts_.begin(); at != parts_.end();) {
        Parts &parts = at->second;
        for (auto &[number, item] : parts.items) engine_.answer(item.message.get(), "+WPI");
        if (++parts.quiet <= kMostQuiet) {
            ++at;
            continue;
        }
        release(parts);
        at = parts_.erase(at);
    }
    for (auto &[name, queue] : queues_) {
        for (Item &item : queue.waiting) engine_.answer(item.message.get(), "+WPI");
        for (Item &item : queue.batch) engine_.answer(item.message.get(), "+WPI");
    }
}

} // namespace tavbridge
