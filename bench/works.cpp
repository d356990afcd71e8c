#include "works.h"

namespace bench {
namespace {

constexpr char kPeers[] = "tavipc raw-pair raw-open zeromq nng sd-bus";
constexpr char kWithBatches[] = "tavipc raw-pair raw-open mmsg zeromq nng sd-bus";
constexpr char kMany[] = "tavipc raw-open zeromq nng";
constexpr size_t kLargest = 65'471'999;
constexpr unsigned kBulk = 938; // of 64,000 bytes: 60 MB

using enum Unit;
using enum Kind;

constexpr Work kWorks[] = {
    {"trip-160", "round trip of 160 bytes, two cores", kPeers, kMicrosecondsEach, {kRoundTrip, 160, 8000}},
    {"trip-160-one-core",
     "round trip of 160 bytes, one core",
     kPeers,
     kMicrosecondsEach,
     {kRoundTrip, 160, 20000, {.one_core = true}}},
    {"trip-64k",
     "round trip of 64,000 bytes, two cores",
     kPeers,
     kMicrosecondsEach,
     {kRoundTrip, 64000, 4000}},
    {"trip-64k-one-core",
     "round trip of 64,000 bytes, one core",
     kPeers,
     kMicrosecondsEach,
     {kRoundTrip, 64000, 4000, {.one_core = true}}},
    {"way-160", "one way, 160 bytes", kWithBatches, kThousandsPerSecond, {kOneWay, 160, 200'000}},
    {"way-1084", "one way, 1,084 bytes", kWithBatches, kThousandsPerSecond, {kOneWay, 1084, 150'000}},
    {"way-64k", "one way, 64,000 bytes", kWithBatches, kThousandsPerSecond, {kOneWay, 64000, 12'000}},
    {"large", "a message of 65 MB", kWithBatches, kMillisecondsEach, {kRoundTrip, kLargest, 4, {.reply = 1}}},
    {"request-1",
     "requests of 160 bytes, 1 outstanding",
     kPeers,
     kThousandsPerSecond,
     {kRequests, 160, 8000}},
    {"request-8",
     "requests of 160 bytes, 8 outstanding",
     kPeers,
     kThousandsPerSecond,
     {kRequests, 160, 30'000, {.window = 8}}},
    {"request-64",
     "requests of 160 bytes, 64 outstanding",
     kPeers,
     kThousandsPerSecond,
     {kRequests, 160, 60'000, {.window = 64}}},
    {"file", "a file of 1 GiB under /tmp", "tavipc raw-pair cp", kSeconds, {kFile, 1u << 30, 1}},
    {"burst-fast", "100,000 of 160 bytes to a fast receiver", kPeers, kMilliseconds, {kOneWay, 160, 100'000}},
    {"burst-busy",
     "100,000 of 160 bytes, 20 us of work on each",
     kPeers,
     kMilliseconds,
     {kOneWay, 160, 100'000, {.busy_us = 20}}},
    {"burst-stall",
     "100,000 of 160 bytes to a receiver that sleeps 500 ms",
     kPeers,
     kMilliseconds,
     {kOneWay, 160, 100'000, {.stall_ms = 500}}},
    {"bulk-fast", "60 MB to a fast receiver", kPeers, kMilliseconds, {kOneWay, 64000, kBulk}},
    {"bulk-busy",
     "60 MB, 20 us of work on each 64,000 bytes",
     kPeers,
     kMilliseconds,
     {kOneWay, 64000, kBulk, {.busy_us = 20}}},
    {"bulk-stall",
     "60 MB to a receiver that sleeps 500 ms",
     kPeers,
     kMilliseconds,
     {kOneWay, 64000, kBulk, {.stall_ms = 500}}},
    {"four-160",
     "100,000 of 160 bytes from four senders",
     kMany,
     kMilliseconds,
     {kOneWay, 160, 25'000, {.clients = 4}}},
    {"four-64k",
     "60 MB from four senders",
     kMany,
     kMilliseconds,
     {kOneWay, 64000, kBulk / 4, {.clients = 4}}},
};

constexpr System kSystems[] = {
    {"tavipc", make_tavipc}, {"raw-pair", make_raw_pair}, {"raw-open", make_raw_open}, {"mmsg", make_mmsg},
    {"zeromq", make_zeromq}, {"nng", make_nng},           {"sd-bus", make_sdbus},      {"cp", nullptr},
};

} // namespace

std::span<const Work> works() { return kWorks; }
std::span<const System> systems() { return kSystems; }

} // namespace bench
