// The counters of all processes, read from the files that they map. The processes may hang, be stopped, or
// have been killed. A process may write anything to its own file at any time: a file is copied with pread,
// never mapped, and everything in it is checked.
#pragma once

#include <array>

#include "look/sockets.h"
#include "tavipc/tav_ipc_stats.h"

namespace tavctl {

// One record.
struct Counters {
    uint32_t number = 0, generation = 0; // together they tell records of one file apart
    std::string name;                    // printable
    int location = 0;
    uint64_t since_ms = 0; // CLOCK_MONOTONIC
    std::array<uint64_t, TAV_IPC_STATS_COUNT> values{};

    std::string address() const { return name + "@" + std::to_string(location); }
    uint64_t waiting() const { return values[TAV_IPC_STATS_QUEUED] + values[TAV_IPC_STATS_IN_FLIGHT]; }
    uint64_t dropped() const; // for all reasons
    double oldest_s() const;  // for how long something has waited without a break
    double age_s() const;
};

struct EndpointCounters : Counters {
    std::vector<Counters> destinations; // by name
};

enum class ProcessState { kRunning, kStopped, kEnded, kHidden };
inline constexpr const char *kProcessStates[] = {"running", "stopped", "ended", "not visible"};

struct CounterFile {
    std::string path;
    double time = 0;   // now_seconds() when it was read
    std::string error; // why there is nothing more; empty: there is
    pid_t process = 0;
    std::string executable; // of a process that this user may look at; without its directory, harmless
    ProcessState state = ProcessState::kEnded;
    uint32_t hidden = 0; // endpoints and destinations without a record
    std::vector<EndpointCounters> endpoints;

    const char *state_text() const { return kProcessStates[static_cast<size_t>(state)]; }
};

// The counter files in these directories; those of ended processes come last.
std::vector<CounterFile> read_counters(const std::vector<SocketDirectory> &directories);

// What waits in the process of an endpoint to be sent by it; empty when it is not known.
std::optional<uint64_t> waiting_of(const std::vector<CounterFile> &files, const SocketDirectory &directory,
                                   const SocketFile &socket);

// The table of the values, by enum tav_ipc_stats_value.
struct ValueInfo {
    const char *text, *meaning;
    bool gauge; // goes up and down
};
extern const std::array<ValueInfo, TAV_IPC_STATS_COUNT> kValues;

pid_t counting_process(std::string_view name); // the N of "ipcN.stats", a file of counters; else 0

} // namespace tavctl
