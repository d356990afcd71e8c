#include "deliveries.h"

#include <algorithm>
#include <functional>

#include "common/datagram.h"
#include "tavipc/tav_ipc_stats.h"

namespace tavbridge {
namespace {

constexpr size_t kRecent = 65536;         // messages, many windows
constexpr uint64_t kBatchBytes = 8 << 20; // of one batch: the library refuses 32 MiB to a destination
constexpr size_t kBatch = 256;            // datagrams: most of a window
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
    return {v[TAV_IPC_STATS_QUEUED] + v[TAV_IPC_STATS_IN_FLIGHT] > 0,
            v[TAV_IPC_STATS_DROPPED_NO_PEER] + v[TAV_IPC_STATS_DROPPED_WOULD_BLOCK] +
                v[TAV_IPC_STATS_DROPPED_BUDGET] + v[TAV_IPC_STATS_DROPPED_NO_MEMORY] +
                v[TAV_IPC_STATS_DROPPED_CLOSED] + v[TAV_IPC_STATS_DROPPED_OTHER]};
}

std::string later(uint64_t times) {
    const uint64_t delay_s = std::min(kTryAgain_s * times, kMostTryAgain_s);
    return "-NAK {\"delay\":" + std::to_string(delay_s) + "000000000}";
}

} // namespace

bool Recent::contains(const Origin &origin) const {
    const auto at = times_.find(origin.key);
    if (at == times_.end()) return false;
    const uint64_t time_ns = at->second;
    return std::max(time_ns, origin.time_ns) - std::min(time_ns, origin.time_ns) < within_ns_;
}

void Recent::add(const Origin &origin) {
    if (!times_.insert_or_assign(origin.key, origin.time_ns).second) return;
    order_.push_back(origin.key);
    if (order_.size() <= kRecent) return;
    times_.erase(order_.front());
    order_.pop_front();
}

void Deliveries::add(Message message, const std::string &name) {
    const char *reply = natsMsg_GetReply(message.get());
    Item item{std::move(message), parse_origin(reply ? reply : "")};
    if (item.origin.key == 0) return; // not from a stream
    const char *id = nullptr;
    if (replicated_ && natsMsgHeader_Get(item.message.get(), kBridgeId, &id) == NATS_OK)
        item.origin.key = std::hash<std::string_view>{}(id);
    if (held_.contains(item.origin.key)) return counters_.add(kRedelivered);
    if (recent_.contains(item.origin)) {
        counters_.add(kRedelivered);
        return engine_.answer(item.message.get(), "+ACK");
    }
    held_.insert(item.origin.key);
    queues_[name].waiting.push_back(std::move(item));
}

void Deliveries::finish(Item &item, bool left) {
    held_.erase(item.origin.key);
    if (left) {
        counters_.add(kHandedDurable);
        recent_.add(item.origin);
        return engine_.answer(item.message.get(), "+ACK");
    }
    if (item.origin.times < attempts_) {
        counters_.add(kPutBack);
        return engine_.answer(item.message.get(), later(item.origin.times).c_str());
    }
    const tav_ipc_hdr_st header = tavipc::read_header(natsMsg_GetData(item.message.get()));
    counters_.drop(kNoReceiver, &header, "all attempts failed");
    engine_.answer(item.message.get(), "+TERM");
}

void Deliveries::settle(const std::string &name, Queue &queue) {
    const Fate fate = fate_of(endpoint_, name);
    if (fate.pending) return;
    for (Item &item : queue.batch) finish(item, fate.drops == queue.drops);
    queue.batch.clear();
}

void Deliveries::hand_over(const std::string &name, Queue &queue) {
    queue.drops = fate_of(endpoint_, name).drops;
    for (uint64_t bytes = 0; !queue.waiting.empty() && queue.batch.size() < kBatch && bytes < kBatchBytes;) {
        Item &item = queue.waiting.front();
        if (tav_ipc_send_raw(endpoint_, name.c_str(), natsMsg_GetData(item.message.get())) != IPC_OK) break;
        bytes += content(item.message.get()).size();
        queue.batch.push_back(std::move(item));
        queue.waiting.pop_front();
    }
}

bool Deliveries::poll() {
    for (auto at = queues_.begin(); at != queues_.end();) {
        auto &[name, queue] = *at;
        if (!queue.batch.empty()) settle(name, queue);
        if (queue.batch.empty() && !queue.waiting.empty()) hand_over(name, queue);
        at = queue.batch.empty() && queue.waiting.empty() ? queues_.erase(at) : std::next(at);
    }
    return !queues_.empty();
}

void Deliveries::keep_alive() {
    for (auto &[name, queue] : queues_) {
        for (Item &item : queue.waiting) engine_.answer(item.message.get(), "+WPI");
        for (Item &item : queue.batch) engine_.answer(item.message.get(), "+WPI");
    }
}

} // namespace tavbridge
