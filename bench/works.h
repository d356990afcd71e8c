// What is measured, and what the processes of a measurement do.
//
// The runner starts a server and its clients, which meet in Shared. Each client greets the server; when all
// have, the work begins. The process that sees the end of the work ends itself, and the runner ends the
// others, so only the work goes over the link that is measured.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include <sys/resource.h>

#include "link.h"

namespace bench {

enum class Kind {
    kRoundTrip, // a message there and one back, count times
    kOneWay,    // count messages from each client, as fast as the system takes them
    kRequests,  // count requests, `window` of them outstanding
    kFile       // one file of size bytes
};
enum class Unit { kMicrosecondsEach, kMillisecondsEach, kThousandsPerSecond, kMilliseconds, kSeconds };

struct Work {
    const char *name;
    const char *title;
    const char *systems; // names, blank-separated
    Unit unit;
    Kind kind;
    size_t size;
    unsigned count;
    struct Circumstances {
        bool one_core = false;
        size_t reply = 0; // bytes that come back in a round trip; 0: the same message
        unsigned window = 1;
        unsigned busy_us = 0;  // the server computes this long on each message
        unsigned stall_ms = 0; // and sleeps this long on the first
        int clients = 1;
    } with = {};

    uint64_t total() const { return uint64_t{count} * static_cast<unsigned>(with.clients); }
    bool more_is_better() const { return unit == Unit::kThousandsPerSecond; }
    bool server_sees_end() const { return kind == Kind::kOneWay; }
};

struct System {
    const char *name;
    std::unique_ptr<Link> (*make)(const Ends &ends); // null: the command cp
};

std::span<const Work> works();
std::span<const System> systems();

inline constexpr int kMaxClients = 4;

// In memory that all processes of a measurement share.
struct Shared {
    struct Usage {
        int64_t cpu_us;
        int64_t waits; // voluntary context switches
    };
    std::atomic<bool> server_up;
    std::atomic<bool> ready;
    std::atomic<uint64_t> arrived; // messages, trips, requests
    std::atomic<int64_t> begin_ns, end_ns;
    Usage before[kMaxClients]; // of each client when the work began
};

Shared::Usage usage_of(const rusage &usage);
int64_t now_ns();

// Neither returns.
void be_server(const System &system, const Work &work, const Ends &ends, Shared &shared);
void be_client(const System &system, const Work &work, const Ends &ends, Shared &shared);

} // namespace bench
