// Durable datagrams that the engine has been given, or will be, and has not confirmed.
//
// They go out in the order in which they came, and all again on a new connection: the engine recognises by
// their ids those that it has. When they hold as many bytes as allowed, the bridge stops reading its socket.
#pragma once

#include <map>

#include "engine.h"

namespace tavbridge {

class Outbox {
  public:
    Outbox(Engine &engine, Counters &counters, uint64_t most_bytes)
        : engine_(engine), counters_(counters), most_bytes_(most_bytes) {}

    // The ticket is the datagram's in the pipe, and its number in the engine's answer.
    void add(uint64_t ticket, const std::string &subject, const std::string &id, std::string_view datagram);
    // The engine's answer: stored, or not, which is tried again. Returns whether the datagram is done.
    bool answered(uint64_t ticket, bool stored, bool before);
    // Gives the engine again what it refused or did not answer in time; all that it has not confirmed.
    void resend(bool all);

    bool full() const { return bytes_ >= most_bytes_; }
    bool roomy() const { return bytes_ <= most_bytes_ / 2; }
    uint64_t bytes() const { return bytes_; }
    uint64_t waiting() const { return entries_.size(); }

  private:
    struct Entry {
        Message message;
        uint64_t due_ms; // when it is given again
    };
    void send(Entry &entry);

    Engine &engine_;
    Counters &counters_;
    const uint64_t most_bytes_;
    std::map<uint64_t, Entry> entries_; // by ticket
    uint64_t bytes_ = 0;
};

} // namespace tavbridge
