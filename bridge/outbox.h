// Durable datagrams that the engine has been given, or will be, and has not confirmed.
//
// They go out in the order in which they came, and all again on a new connection: the engine recognises by
// their ids those that it has. When they hold as many bytes as allowed, the bridge stops reading its socket.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "counters.h"

namespace tavbridge {

class Engine;

class Outbox {
  public:
    Outbox(Engine &engine, Counters &counters, uint64_t most_bytes)
        : engine_(engine), counters_(counters), most_bytes_(most_bytes) {}

    void add(std::string subject, std::string id_header, const void *datagram, uint32_t size,
             uint64_t now_ms);
    // The engine's answer: stored, or not, which is tried again.
    void answered(uint64_t id, bool stored, bool before);
    // Gives the engine everything that it has not confirmed.
    void resend(uint64_t now_ms);
    // Gives it again what it refused or did not answer in time.
    void resend_late(uint64_t now_ms);

    bool full() const { return bytes_ >= most_bytes_; }
    bool roomy() const { return bytes_ <= most_bytes_ / 2; }
    uint64_t bytes() const { return bytes_; }
    uint64_t waiting() const { return waiting_; }

  private:
    struct Entry {
        std::string subject, id_header, datagram;
        uint64_t due_ms = 0; // when it is given again; 0: confirmed
    };
    void send(Entry &entry, uint64_t id, uint64_t now_ms);

    Engine &engine_;
    Counters &counters_;
    const uint64_t most_bytes_;
    std::deque<Entry> entries_;
    uint64_t first_ = 1; // id of the first entry
    uint64_t bytes_ = 0, waiting_ = 0;
};

} // namespace tavbridge
