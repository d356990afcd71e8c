// What the processes of a measurement share, and their two roles.
#pragma once

#include <atomic>
#include <cstdint>

#include <sys/resource.h>

#include "measure/measure.h"

namespace bench {

inline constexpr int kMaxClients = 4;

// In memory that all processes of a measurement share.
struct Shared {
    struct Usage {
        int64_t cpu_us;
        int64_t waits; // voluntary context switches
    };
    Job job;
    std::atomic<bool> server_up;
    std::atomic<bool> ready;
    std::atomic<uint64_t> arrived; // messages, trips, requests
    std::atomic<int64_t> begin_ns, end_ns;
    Usage before[kMaxClients]; // of each client when the job began
};

Shared::Usage usage_of(const rusage &usage);
int64_t now_ns();

// Neither returns.
[[noreturn]] void be_server(const System &system, const Job &job, const Ends &ends, Shared &shared);
[[noreturn]] void be_client(const System &system, const Job &job, const Ends &ends, const char *source,
                            Shared &shared);

} // namespace bench
