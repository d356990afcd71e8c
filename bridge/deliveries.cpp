#include "deliveries.h"

#include <new>

#include "common/log.h"
#include "tavipc/tav_ipc_stats.h"

namespace tavbridge {
namespace {

constexpr size_t kRecent = 65536;         // messages, many windows
constexpr uint64_t kBatchBytes = 8 << 20; // of one batch: the library refuses 32 MiB to a destination
constexpr uint64_t kLook_ms = 1;          // the library has no callback for "left"
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

void Recent::add(uint64_t key) {
    if (!keys_.insert(key).second) return;
    order_.push_back(key);
    if (order_.size() <= kRecent) return;
    keys_.erase(order_.front());
    order_.pop_front();
}

void Deliveries::add(Message message, const std::string &name) {
    const char *reply = natsMsg_GetReply(message.get());
    Item item{std::move(message), parse_origin(reply ? reply : "")};
    if (item.origin.key == 0) return; // not from a stream
    if (held_.contains(item.origin.key)) return counters_.add(kRedelivered);
    if (recent_.contains(item.origin.key)) {
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
        recent_.add(item.origin.key);
        return engine_.answer(item.message.get(), "+ACK");
    }
    if (item.origin.times < attempts_) {
        counters_.add(kPutBack);
        return engine_.answer(item.message.get(), later(item.origin.times).c_str());
    }
    counters_.drop(kNoReceiver, content(item.message.get()), "all attempts failed");
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

void Deliveries::poll() {
    for (auto at = queues_.begin(); at != queues_.end();) {
        auto &[name, queue] = *at;
        if (!queue.batch.empty()) settle(name, queue);
        if (queue.batch.empty() && !queue.waiting.empty()) hand_over(name, queue);
        at = queue.batch.empty() && queue.waiting.empty() ? queues_.erase(at) : std::next(at);
    }
    engine_.set_holding(!held_.empty());
    const auto look = [](void *self) { static_cast<Deliveries *>(self)->look(); };
    if (!held_.empty() && !timer_) timer_ = cl_timer_start(kLook_ms, look, this);
}

void Deliveries::look() try {
    timer_ = 0;
    poll();
    engine_.flush();
} catch (const std::bad_alloc &) {
    TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for messages of the engine"); // the bridge's tick polls
}

void Deliveries::keep_alive() {
    for (auto &[name, queue] : queues_) {
        for (Item &item : queue.waiting) engine_.answer(item.message.get(), "+WPI");
        for (Item &item : queue.batch) engine_.answer(item.message.get(), "+WPI");
    }
}

} // namespace tavbridge
