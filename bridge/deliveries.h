// Durable datagrams on their way from the engine to local sockets.
//
// Each destination has a queue of messages and one batch that was handed to the local library. When nothing
// of that batch waits in the library, the counters of the destination show its outcome. If all datagrams
// left, the batch is acknowledged. If some were dropped, the whole batch goes back to the engine for another
// attempt, because the counters do not show which. Priorities reorder datagrams inside the library, so the
// outcome of a single one cannot be seen earlier.
//
// The engine gives out at most `window` messages without an acknowledgement, which bounds what is held here.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "engine.h"

namespace tavbridge {

// The newest messages that were delivered: one whose acknowledgement was lost comes again, and with replicas
// one that was stored twice. Another message may have the same key after the time for duplicates.
class Recent {
  public:
    explicit Recent(uint64_t within_ns) : within_ns_(within_ns) {}
    bool contains(const Origin &origin) const;
    void add(const Origin &origin);

  private:
    const uint64_t within_ns_;
    std::unordered_map<uint64_t, uint64_t> times_; // by key: when it was stored
    std::deque<uint64_t> order_;
};

class Deliveries {
  public:
    Deliveries(Engine &engine, Counters &counters, tav_ipc_st *endpoint, const Settings &settings)
        : engine_(engine), counters_(counters), endpoint_(endpoint), attempts_(settings.attempts),
          replicated_(settings.replicas > 1), recent_(settings.duplicates_s * 1'000'000'000) {}

    // Takes a message whose subject and datagram were judged.
    void add(Message message, const std::string &name);
    // Looks at the batches, and hands over what waits. Returns whether anything is held.
    bool poll();
    // Tells the engine that what is held is still being worked on.
    void keep_alive();
    size_t held() const { return held_.size(); }

  private:
    struct Item {
        Message message;
        Origin origin;
    };
    struct Queue {
        std::deque<Item> waiting;
        std::vector<Item> batch;
        uint64_t drops = 0; // of the destination before the batch
    };
    void settle(const std::string &name, Queue &queue);
    void finish(Item &item, bool left);
    void hand_over(const std::string &name, Queue &queue);

    Engine &engine_;
    Counters &counters_;
    tav_ipc_st *const endpoint_;
    const uint64_t attempts_;
    const bool replicated_;
    std::map<std::string, Queue> queues_;
    std::unordered_set<uint64_t> held_; // keys
    Recent recent_;
};

} // namespace tavbridge
