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
// bridge. Messages of very many fragments do not wait.
//
// The engine gives out at most `window` messages without an acknowledgement, which bounds what is held here.
#pragma once

#include <deque>
#include <map>
#include <unordered_map>

#include "engine.h"
#include "tavipc/tav_ipc.h"

namespace tavbridge {

class Deliveries {
  public:
    Deliveries(Engine &engine, Counters &counters, tav_ipc_st *endpoint, const Settings &settings)
        : engine_(engine), counters_(counters), endpoint_(endpoint), settings_(settings) {}
    ~Deliveries() { cl_timer_stop(timer_); }

    // Takes a message whose subject and datagram were judged.
    void add(Message message, const std::string &name);
    // Looks at the batches, and hands over what waits. Looks again by itself while something is held.
    void poll();
    // Tells the engine that what is held is still being worked on.
    void keep_alive();
    size_t held() const { return known_.size() - delivered_.size(); }

  private:
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
        uint64_t drops = 0; // of the destination before the batch
    };
    void use_id(Item &item) const;
    bool gather(Item &item, const std::string &name);
    void release(Parts &parts);
    void settle(const std::string &name, Queue &queue);
    void finish(Item &item, bool left);
    void hand_over(const std::string &name, Queue &queue);

    Engine &engine_;
    Counters &counters_;
    tav_ipc_st *const endpoint_;
    const Settings &settings_;
    std::map<std::string, Queue> queues_;
    std::map<std::string, Parts> parts_; // by destination, source and ids
    uint64_t gathered_ = 0;              // items in parts_
    struct Known {
        bool delivered;
        uint64_t time_ns; // when it was stored
    };
    // By key, messages that are held here and the newest that were delivered: a message whose acknowledgement
    // was lost comes again, and with replicas one that was stored twice.
    std::unordered_map<uint64_t, Known> known_;
    std::deque<uint64_t> delivered_;
    cl_timer_t timer_ = 0;
};

} // namespace tavbridge
