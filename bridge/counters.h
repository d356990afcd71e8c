// What the bridge counts. Each datagram that it does not pass on adds to one counter of drops, with a log
// line at most once in 5 s for each reason.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tavbridge {

// X(NAME, text, meaning)
#define TAV_BRIDGE_COUNTERS(X)                                                                               \
    X(kSentControl, "sent_control", "control datagrams given to the engine")                                 \
    X(kSentDurable, "sent_durable", "durable datagrams given to the engine, each once")                      \
    X(kStored, "stored", "durable datagrams that the engine has stored")                                     \
    X(kDuplicates, "stored_before", "of these: known to the engine already")                                 \
    X(kRepeated, "repeated", "durable datagrams given to the engine again")                                  \
    X(kPauses, "pauses", "times that the socket was not read, for back-pressure")                            \
    X(kHandedControl, "handed_control", "control datagrams handed to the local library")                     \
    X(kHandedDurable, "handed_durable", "durable datagrams that a local socket took")                        \
    X(kRedelivered, "redelivered", "durable datagrams that came again and were recognised")                  \
    X(kPutBack, "put_back", "durable datagrams given back to the engine for a later try")                    \
    X(kHubCopies, "hub_copies", "copies of the hub's messages that were left out")                           \
    X(kReconnects, "reconnects", "connections made to the engine")                                           \
    X(kShort, "drop_short", "shorter than a header")                                                         \
    X(kBadSize, "drop_bad_size", "the size does not fit the datagram")                                       \
    X(kBadCheck, "drop_bad_check", "wrong check value")                                                      \
    X(kForgedSource, "drop_forged_source", "the source does not belong to the sending bridge")               \
    X(kBadName, "drop_bad_name", "a name that a subject cannot carry")                                       \
    X(kBadSubject, "drop_bad_subject", "the subject does not fit the datagram")                              \
    X(kLoop, "drop_loop", "sent from and to the same location")                                              \
    X(kNotHere, "drop_not_here", "for another location or machine")                                          \
    X(kNoEngine, "drop_no_engine", "control traffic while the engine was away")                              \
    X(kNoReceiver, "drop_no_receiver", "no local socket took it in all attempts")                            \
    X(kRefused, "drop_refused", "the local library refused control traffic")                                 \
    X(kNoMemory, "drop_no_memory", "memory was short")

#define TAV_BRIDGE_NAME(name, text, meaning) name,
enum Counter { TAV_BRIDGE_COUNTERS(TAV_BRIDGE_NAME) kCounters, kNoDrop = kCounters };
#undef TAV_BRIDGE_NAME
using Drop = Counter; // from kShort on, or kNoDrop

class Counters {
  public:
    void add(Counter what) { ++counts_[what]; }
    // Counts the drop of a datagram, which may be a part of one, and writes its line.
    void drop(Drop reason, std::string_view datagram, const char *where);
    std::string text() const; // "NAME VALUE\n" for each

  private:
    uint64_t counts_[kCounters] = {};
};

} // namespace tavbridge
