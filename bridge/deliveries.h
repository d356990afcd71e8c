// Durable datagrams on their way from the engine to local sockets.
//
// Each destination has a queue of messages and one batch that was handed to the local library. When nothing
// of that batch waits in the library, the counters of the destination show its outcome. If all datagrams
// left, the batch is acknowledged. If some were dropped, the whole batch goes back to the engine for another
// attempt, because the counters do not show which. Priorities reorder datagrams inside the library, so the
// outcome of a single one cannot be seen earlier.
//
// The fragments of a message wait for one another and go into one batch: a receiver drops a message when 10 s
// pass between two fragments, but the engine may deliver one of them half a minute later, or to the next
// bridge. If the others do not come, those that wait go back to the engine. Messages of very many fragments
// do not wait. A receiver only counts the bytes of fragments, so one that it gets twice would stand for one
// that is missing: each attempt gives the fragments another group.
//
// The engine gives out at most `window` messages without an acknowledgement, which bounds what is held here.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <unordered_map>

#include "engine.h"
#include "tavipc/tav_ipc.h"
#include "tavipc/tav_ipc_stats.h"

namespace tavbridge {

// While it lives, datagrams for one local socket leave with one system call.
struct Batch {
    Batch() { cl_event_loop_set_batching(64, 0); }
    ~Batch() { cl_event_loop_set_batching(0, 0); }
};

class Deliveries {
  public:
    Deliveries(Engine &engine, Counters &counters, tav_ipc_st *endpoint, const Settings &settings)
        : engine_(engine), counters_(counters), endpoint_(endpoint), settings_(settings) {}
    ~Deliveries() { cl_timer_stop(timer_); }

    // Takes a message whose subject and datagram were judged.
    void add(Message message, const Subject &subject) {
        const char *reply = natsMsg_GetReply(message.get()), *id = nullptr;
        Item item{std::move(message), parse_origin(reply ? reply : "")};
        if (item.origin.key == 0) // the reply subject names no place in a stream: nothing can be acknowledged
            return counters_.drop(kBadSubject, content(item.message.get()), "from the engine");
        if (settings_.replicas > 1 && natsMsgHeader_Get(item.message.get(), kBridgeId, &id) == NATS_OK)
            item.origin.key = std::hash<std::string>()(place_text(subject.from) + ' ' + id);
        const Origin origin = item.origin;
        const auto at = known_.find(origin.key);
        if (at != known_.end() && at->second.repeats(origin, settings_.duplicates_s))
            return counters_.add(kRedelivered), at->second.delivered ? acknowledge(item) : void();
        if (!gather(item, subject.name)) queues_[subject.name].waiting.push_back(std::move(item));
        known_[origin.key] = {origin.time_ns, false};
        if (item.message) failed(item); // the same fragment waits already
    }

    // Looks at the batches, and hands over what waits. Looks again by itself while something is held: the
    // library has no callback for "left".
    void poll() try {
        for (auto at = queues_.begin(); at != queues_.end();) {
            auto &[name, queue] = *at;
            settle(name, queue);
            if (queue.batch.empty()) hand_over(name, queue);
            at = queue.batch.empty() && queue.waiting.empty() ? queues_.erase(at) : std::next(at);
        }
        const auto again = [](void *argument) {
            auto *self = static_cast<Deliveries *>(argument);
            self->timer_ = 0;
            self->poll();
            self->engine_.flush();
        };
        if (held() > 0 && !timer_) timer_ = cl_timer_start(kLook_ms, again, this);
    } catch (const std::bad_alloc &) { // the bridge polls again soon
        TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for messages of the engine");
    }

    // Tells the engine that what is held is still being worked on.
    void keep_alive() {
        for (auto at = parts_.begin(); at != parts_.end();) {
            Parts &parts = at->second;
            for (auto &[number, item] : parts.items) engine_.answer(item.message.get(), "+WPI");
            const bool enough = ++parts.quiet > kMostQuiet;
            for (; enough && !parts.items.empty(); parts.items.erase(parts.items.begin()), --gathered_)
                failed(parts.items.begin()->second);
            at = enough ? parts_.erase(at) : std::next(at);
        }
        for (const auto &[name, queue] : queues_)
            for (const auto *items : {&queue.waiting, &queue.batch})
                for (const Item &item : *items) engine_.answer(item.message.get(), "+WPI");
    }

    size_t held() const {
        size_t count = gathered_;
        for (const auto &[name, queue] : queues_) count += queue.waiting.size() + queue.batch.size();
        return count;
    }

  private:
    static constexpr size_t kMostDelivered = 65536; // keys to remember: many windows
    // Datagrams, at most 16 MB: the library takes 32 MB for a destination.
    static constexpr size_t kBatch = 256;
    static constexpr size_t kMostGathered = 64; // fragments of a message that wait for one another: 4 MB
    static constexpr int kMostQuiet = 6;        // a minute: two deliveries of the engine
    static constexpr uint64_t kLook_ms = 1;
    // Pause before another attempt: 5 s more each time, because a module restarts in seconds; at most a
    // minute.
    static constexpr uint64_t kTryAgain_s = 5, kMostTryAgain_s = 60;

    struct Known {
        uint64_t time_ns = 0; // when it was stored
        bool delivered = false;
        // Another message may have the same id after the time for duplicates.
        bool repeats(const Origin &other, uint64_t within_s) const {
            const uint64_t apart_ns = std::max(time_ns, other.time_ns) - std::min(time_ns, other.time_ns);
            return !delivered || apart_ns / 1'000'000'000 < within_s;
        }
    };
    struct Item {
        Message message;
        Origin origin;
        bool more = false; // the next item is of the same message
    };
    struct Parts { // of a message
        std::string name;
        std::map<uint16_t, Item> items; // by fragment number
        int quiet = 0;                  // calls of keep_alive() without a new one
    };
    struct Queue {
        std::deque<Item> waiting, batch;
        uint64_t drops = 0, all_drops = 0; // before the batch: of the destination, of all
    };

    // Keeps a fragment until the others are there, unless too much waits already. Leaves the message in the
    // item if that fragment is there: a receiver only counts bytes, so it must not get one twice.
    bool gather(Item &item, const std::string &name) {
        const tav_ipc_hdr_st header = tavipc::read_header(natsMsg_GetData(item.message.get()));
        const size_t size = tavipc::kFragmentPayload, count = (header.frag_orig + size - 1) / size;
        const uint64_t most = settings_.window / 2;
        if (!tavipc::is_fragment(header) || count > std::min<uint64_t>(kMostGathered, most)) return false;
        std::string key(reinterpret_cast<const char *>(&header.src), sizeof header.src);
        key += name + '.' + std::to_string(header.reqid) + '.' + std::to_string(header.frag_id);
        Parts &parts = parts_[key];
        if (!parts.items.try_emplace(tavipc::fragment_sequence(header), std::move(item)).second) return true;
        parts.name = name, parts.quiet = 0;
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

    void release(Parts &parts) {
        std::deque<Item> &waiting = queues_[parts.name].waiting;
        uint64_t times = 0; // they are tried again together
        for (const auto &[number, item] : parts.items) times = std::max(times, item.origin.times);
        for (; !parts.items.empty(); --gathered_) {
            Item &item = parts.items.begin()->second;
            item.origin.times = times, item.more = parts.items.size() > 1;
            waiting.push_back(std::move(item));
            parts.items.erase(parts.items.begin());
        }
    }

    // How many datagrams for the destination the library has, and how many it has dropped; without a name,
    // for all destinations, which it always knows. Nothing for one that it has forgotten or cannot count for.
    std::optional<std::pair<uint64_t, uint64_t>> pending_and_drops(const char *name) const {
        tav_ipc_stats_st stats;
        if (tav_ipc_get_stats(endpoint_, name, &stats, sizeof stats) != 0) return {};
        const auto &v = stats.values;
        const uint64_t pending = v[TAV_IPC_STATS_QUEUED] + v[TAV_IPC_STATS_IN_FLIGHT];
        return std::pair{pending, v[TAV_IPC_STATS_ACCEPTED] - v[TAV_IPC_STATS_LEFT] - pending};
    }

    void hand_over(const std::string &name, Queue &queue) {
        const Batch batch;
        queue.drops = pending_and_drops(name.c_str()).value_or(std::pair{0, 0}).second;
        queue.all_drops = pending_and_drops(nullptr)->second;
        for (; !queue.waiting.empty(); queue.waiting.pop_front()) {
            if (queue.batch.size() >= kBatch && !queue.batch.back().more) break;
            const Item &item = queue.waiting.front();
            const char *datagram = natsMsg_GetData(item.message.get());
            std::string again;
            if (item.origin.times > 1 && tavipc::is_fragment(tavipc::read_header(datagram)))
                datagram = (again = tavipc::regrouped(content(item.message.get()), item.origin.times)).data();
            if (tav_ipc_send_raw(endpoint_, name.c_str(), datagram) != IPC_OK) break;
            queue.batch.push_back(std::move(queue.waiting.front()));
        }
    }

    void settle(const std::string &name, Queue &queue) {
        if (queue.batch.empty()) return;
        const auto own = pending_and_drops(name.c_str()), all = pending_and_drops(nullptr);
        if ((own ? own : all)->first > 0) return;
        const bool good = own ? own->second == queue.drops : all->second == queue.all_drops;
        for (; !queue.batch.empty(); queue.batch.pop_front())
            good ? left(queue.batch.front()) : failed(queue.batch.front());
    }

    void left(const Item &item) {
        delivered_.push_back(item.origin.key);
        known_[item.origin.key] = {item.origin.time_ns, true};
        counters_.add(kHandedDurable);
        acknowledge(item);
        if (delivered_.size() <= kMostDelivered) return;
        known_.erase(delivered_.front());
        delivered_.pop_front();
    }

    void acknowledge(const Item &item) { engine_.answer(item.message.get(), "+ACK"); }

    void failed(const Item &item) {
        known_.erase(item.origin.key);
        if (item.origin.times >= settings_.attempts) {
            counters_.drop(kNoReceiver, content(item.message.get()), "all attempts failed");
            return engine_.answer(item.message.get(), "+TERM");
        }
        counters_.add(kPutBack);
        const auto delay_s = std::to_string(std::min(kTryAgain_s * item.origin.times, kMostTryAgain_s));
        engine_.answer(item.message.get(), ("-NAK {\"delay\":" + delay_s + "000000000}").c_str());
    }

    Engine &engine_;
    Counters &counters_;
    tav_ipc_st *const endpoint_;
    const Settings &settings_;
    std::map<std::string, Queue> queues_;
    std::map<std::string, Parts> parts_; // by destination, source and ids
    uint64_t gathered_ = 0;              // items in parts_
    // Messages that are held here, and the newest that were delivered, by key: one whose acknowledgement was
    // lost comes again, and with replicas one that was stored twice.
    std::unordered_map<uint64_t, Known> known_;
    std::deque<uint64_t> delivered_; // keys
    cl_timer_t timer_ = 0;
};

} // namespace tavbridge
