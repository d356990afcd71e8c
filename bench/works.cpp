#include "works.h"

#include <cstdlib>
#include <ctime>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace bench {
namespace {

constexpr char kPeers[] = "tavipc raw-pair raw-open zeromq nng sd-bus";
constexpr char kTrips[] = "tavipc raw-pair raw-open zeromq nng sd-bus busy-poll";
constexpr char kRequestPeers[] = "tavipc raw-pair raw-open zeromq nng sd-bus busy-poll batching";
constexpr char kWithBatches[] = "tavipc raw-pair raw-open mmsg mmsg-open zeromq nng sd-bus batching";
constexpr char kMany[] = "tavipc raw-open zeromq nng batching";
constexpr size_t kLargest = 65'471'999;
constexpr unsigned kBulk = 938; // of 64,000 bytes: 60 MB

using enum Unit;
using enum Kind;

constexpr Work kWorks[] = {
    {"trip-160", "round trip of 160 bytes, two cores", kTrips, kMicrosecondsEach, kRoundTrip, 160, 8000},
    {"trip-160-one-core",
     "round trip of 160 bytes, one core",
     kTrips,
     kMicrosecondsEach,
     kRoundTrip,
     160,
     20000,
     {.one_core = true}},
    {"trip-64k", "round trip of 64,000 bytes, two cores", kTrips, kMicrosecondsEach, kRoundTrip, 64000, 4000},
    {"trip-64k-one-core",
     "round trip of 64,000 bytes, one core",
     kTrips,
     kMicrosecondsEach,
     kRoundTrip,
     64000,
     4000,
     {.one_core = true}},
    {"way-160", "one way, 160 bytes", kWithBatches, kThousandsPerSecond, kOneWay, 160, 200'000},
    {"way-1084", "one way, 1,084 bytes", kWithBatches, kThousandsPerSecond, kOneWay, 1084, 150'000},
    {"way-64k", "one way, 64,000 bytes", kWithBatches, kThousandsPerSecond, kOneWay, 64000, 12'000},
    {"large", "a message of 65 MB", kWithBatches, kMillisecondsEach, kRoundTrip, kLargest, 4, {.reply = 1}},
    {"request-1", "requests of 160 bytes, 1 outstanding", kRequestPeers, kThousandsPerSecond, kRequests, 160,
     8000},
    {"request-8",
     "requests of 160 bytes, 8 outstanding",
     kRequestPeers,
     kThousandsPerSecond,
     kRequests,
     160,
     30'000,
     {.window = 8}},
    {"request-64",
     "requests of 160 bytes, 64 outstanding",
     kRequestPeers,
     kThousandsPerSecond,
     kRequests,
     160,
     60'000,
     {.window = 64}},
    {"file", "a file of 1 GiB under /tmp", "tavipc raw-pair cp", kSeconds, kFile, 1u << 30, 1},
    {"burst-fast", "100,000 of 160 bytes to a fast receiver", kPeers, kMilliseconds, kOneWay, 160, 100'000},
    {"burst-busy",
     "100,000 of 160 bytes, 20 us of work on each",
     kPeers,
     kMilliseconds,
     kOneWay,
     160,
     100'000,
     {.busy_us = 20}},
    {"burst-stall",
     "100,000 of 160 bytes to a receiver that sleeps 500 ms",
     kPeers,
     kMilliseconds,
     kOneWay,
     160,
     100'000,
     {.stall_ms = 500}},
    {"bulk-fast", "60 MB to a fast receiver", kPeers, kMilliseconds, kOneWay, 64000, kBulk},
    {"bulk-busy",
     "60 MB, 20 us of work on each 64,000 bytes",
     kPeers,
     kMilliseconds,
     kOneWay,
     64000,
     kBulk,
     {.busy_us = 20}},
    {"bulk-stall",
     "60 MB to a receiver that sleeps 500 ms",
     kPeers,
     kMilliseconds,
     kOneWay,
     64000,
     kBulk,
     {.stall_ms = 500}},
    {"four-160",
     "100,000 of 160 bytes from four senders",
     kMany,
     kMilliseconds,
     kOneWay,
     160,
     25'000,
     {.clients = 4}},
    {"four-64k", "60 MB from four senders", kMany, kMilliseconds, kOneWay, 64000, kBulk / 4, {.clients = 4}},
};

constexpr System kSystems[] = {
    {"tavipc", make_tavipc},       {"raw-pair", make_raw_pair},
    {"raw-open", make_raw_open},   {"mmsg", make_mmsg},
    {"zeromq", make_zeromq},       {"nng", make_nng},
    {"sd-bus", make_sdbus},        {"cp", nullptr},
    {"busy-poll", make_busy_poll}, {"batching", make_batching},
    {"mmsg-open", make_mmsg_open},
};

std::string payload(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7);
    return bytes;
}

void count(Shared &shared) {
    shared.arrived.store(shared.arrived.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

[[noreturn]] void end_of_work(Shared &shared) {
    shared.end_ns = now_ns();
    std::_Exit(0);
}

void work_on(const Work &work, const Shared &shared) {
    if (work.with.stall_ms && shared.arrived == 0) usleep(work.with.stall_ms * 1000);
    if (work.with.busy_us)
        for (const int64_t until = now_ns() + work.with.busy_us * 1000; now_ns() < until;) continue;
}

void check_file(const std::string &path, size_t size) {
    struct stat info {};
    check(stat(path.c_str(), &info) == 0 && static_cast<size_t>(info.st_size) == size, path.c_str());
    unlink(path.c_str());
}

void serve(Link &link, const Work &work, const Ends &ends, Shared &shared) {
    static const std::string reply = payload(work.with.reply);
    switch (work.kind) {
    case kRoundTrip:
        link.on_message = [&](const char *data, size_t size) {
            check(size == work.size, "size of a message");
            reply.empty() ? link.send(data, size) : link.send(reply.data(), reply.size());
        };
        break;
    case kOneWay:
        link.on_message = [&](const char *, size_t size) {
            check(size == work.size, "size of a message");
            work_on(work, shared);
            count(shared);
            if (shared.arrived == work.total()) end_of_work(shared);
        };
        break;
    case kRequests:
        link.answer_requests();
        break;
    case kFile:
        link.on_file = [&](const std::string &path) { check_file(path, work.size); };
        link.receive_file(ends.dir + "/received", work.size);
        break;
    }
}

void make_trips(Link &link, const std::string &message, unsigned trips, Shared &shared) {
    unsigned left = trips;
    const bool in_handler =
        message.size() <= kChunk; // a large one might have to be kept, at the cost of a copy
    link.on_message = [&](const char *, size_t) {
        count(shared);
        --left > 0 && in_handler ? link.send(message.data(), message.size()) : link.stop();
    };
    do {
        link.send(message.data(), message.size());
        link.run();
    } while (left > 0);
}

void make_requests(Link &link, const Work &work, const std::string &message, Shared &shared) {
    unsigned begun = 0, done = 0;
    link.on_reply = [&] {
        count(shared);
        if (++done == work.count) end_of_work(shared);
        if (begun < work.count) ++begun, link.request(message.data(), message.size());
    };
    while (begun < work.with.window) ++begun, link.request(message.data(), message.size());
    link.run();
}

void begin_work(const Ends &ends, Shared &shared) {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    shared.before[ends.client] = usage_of(usage);
    int64_t nobody = 0;
    shared.begin_ns.compare_exchange_strong(nobody, now_ns());
}

} // namespace

std::span<const Work> works() { return kWorks; }
std::span<const System> systems() { return kSystems; }

Shared::Usage usage_of(const rusage &usage) {
    const auto us = [](const timeval &time) { return int64_t{time.tv_sec} * 1'000'000 + time.tv_usec; };
    return {us(usage.ru_utime) + us(usage.ru_stime), usage.ru_nvcsw};
}

int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void be_server(const System &system, const Work &work, const Ends &ends, Shared &shared) {
    const std::unique_ptr<Link> link = system.make(ends);
    int greetings = 0;
    link->on_message = [&](const char *, size_t) {
        if (++greetings == ends.clients) link->stop();
    };
    shared.server_up = true;
    link->run();
    serve(*link, work, ends, shared);
    shared.ready = true;
    link->run();
    std::_Exit(1);
}

void be_client(const System &system, const Work &work, const Ends &ends, Shared &shared) {
    const std::unique_ptr<Link> link = system.make(ends);
    const std::string message = payload(work.kind == kFile ? 0 : work.size);
    link->on_message = [](const char *, size_t) {};
    link->send("h", 1);
    while (!shared.ready) link->turn(1);
    if (work.kind == kRoundTrip && work.count > 100) make_trips(*link, message, work.count / 10, shared);

    begin_work(ends, shared);
    switch (work.kind) {
    case kRoundTrip:
        make_trips(*link, message, work.count, shared);
        break;
    case kRequests:
        make_requests(*link, work, message, shared);
        break;
    case kOneWay:
        for (unsigned i = 0; i < work.count; ++i) link->send(message.data(), message.size());
        link->run(); // until the runner ends it
        break;
    case kFile:
        link->on_reply = [&] { end_of_work(shared); };
        link->send_file((ends.dir + "/../source").c_str());
        link->run();
    }
    end_of_work(shared);
}

} // namespace bench
