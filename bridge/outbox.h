// Durable datagrams that the engine has been given, or will be, and has not confirmed.
//
// They go out in the order in which they came, and all again on a new connection: the engine recognises by
// their ids those that it has. When they hold as many bytes as allowed, the bridge stops reading its socket.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "counters.h"

namespace tavbridge {

class Engine;

class Outbox {
  public:
    // stored(ticket) runs when the engine has the datagram with this ticket.
    Outbox(Engine &engine, Counters &counters, uint64_t most_bytes, std::function<void(uint64_t)> stored)
        : engine_(engine), counters_(counters), most_bytes_(most_bytes), stored_(std::move(stored)) {}

    void add(uint64_t ticket, std::string subject, std::string id_header, std::string_view datagram,
             uint64_t now_ms);
    // The engine's answer: stored, or not, which is tried again.
    void answered(uint64_t id, bool stored, bool before);
    // Gives the engine again what it refused or did not answer in time; all that it has not confirmed.
    void resend(uint64_t now_ms, bool all);

    bool full() const { return bytes_ >= most_bytes_; }
    bool roomy() const { return bytes_ <= most_bytes_ / 2; }
    uint64_t bytes() const { return bytes_; }
    uint64_t waiting() const { return waiting_; }

  private:
    struct Entry {
        std::string subject, id_header, datagram;
        uint64_t ticket = 0;
        uint64_t due_ms = 0; // when it is given again; 0: confirmed
    };
    void send(Entry &entry, uint64_t id, uint64_t now_ms);

    Engine &engine_;
    Counters &counters_;
    const uint64_t most_bytes_;
    const std::function<void(uint64_t)> stored_;
    std::deque<Entry> entries_;
    uint64_t first_ = 1; // id of the first entry
    uint64_t bytes_ = 0, waiting_ = 0;
};

} // namespace tavbridge
