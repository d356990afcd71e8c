// What the bridge counts. Each datagram that it does not pass on adds to one counter of drops, with a log
// line at most once in 5 s for each reason.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/datagram.h"
#include "common/log.h"

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
    X(kTooLarge, "drop_too_large", "larger than the engine's max_payload")                                   \
    X(kNoEngine, "drop_no_engine", "control traffic while the engine was away")                              \
    X(kNoReceiver, "drop_no_receiver", "no local socket took it in all attempts")                            \
    X(kRefused, "drop_refused", "the local library refused control traffic")                                 \
    X(kNoMemory, "drop_no_memory", "memory was short")

#define TAV_BRIDGE_NAME(name, text, meaning) name,
enum Counter { TAV_BRIDGE_COUNTERS(TAV_BRIDGE_NAME) kCounters, kNoDrop = kCounters };
#undef TAV_BRIDGE_NAME
using Drop = Counter; // from kShort on, or kNoDrop

#define TAV_BRIDGE_TEXT(name, text, meaning) text,
inline constexpr const char *kNames[] = {TAV_BRIDGE_COUNTERS(TAV_BRIDGE_TEXT)};
#undef TAV_BRIDGE_TEXT

class Counters {
  public:
    void add(Counter what) { ++counts_[what]; }
    // Counts the drop of a datagram, which may be a part of one, and writes its line.
    void drop(Drop reason, std::string_view datagram, const char *where) {
        static tavipc::RateLimit limits[kCounters]; // one line in 5 s for each reason
        ++counts_[reason];
        if (!error_output_check(2) || !limits[reason].pass()) return;
        tav_ipc_hdr_st h{};
        if (datagram.size() >= sizeof h) h = tavipc::read_header(datagram.data());
        error_output(2, "tav_bridge", __LINE__,
                     "drop it|%s|%s|src=[%u:%s:%u]|dest=[%u:%s:%u]|reqid=%u|size=%u|total=%llu",
                     kNames[reason], where, h.src.hostid, tavipc::name_text(h.src).text, h.src.loc,
                     h.dest.hostid, tavipc::name_text(h.dest).text, h.dest.loc, h.reqid, h.size,
                     static_cast<unsigned long long>(counts_[reason]));
    }

    // "NAME VALUE\n" for each.
    std::string text() const {
        std::string text;
        for (size_t i = 0; i < kCounters; ++i) text += kNames[i] + (' ' + std::to_string(counts_[i])) + '\n';
        return text;
    }

  private:
    uint64_t counts_[kCounters] = {};
};

} // namespace tavbridge
