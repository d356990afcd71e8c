// Reads a file of counters as another program does, and checks that counters balance.
#pragma once

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tavipc/tav_ipc_stats.h"

inline uint64_t dropped(const uint64_t *values) {
    uint64_t sum = 0;
    for (int i = TAV_IPC_STATS_DROPPED_NO_PEER; i <= TAV_IPC_STATS_DROPPED_OTHER; ++i) sum += values[i];
    return sum;
}

// What accounts for more or fewer datagrams or bytes than were accepted; 0: balanced.
inline int64_t imbalance(const uint64_t *v) {
    const uint64_t count = v[TAV_IPC_STATS_ACCEPTED] - v[TAV_IPC_STATS_LEFT] - dropped(v) -
                           v[TAV_IPC_STATS_QUEUED] - v[TAV_IPC_STATS_IN_FLIGHT];
    const uint64_t bytes = v[TAV_IPC_STATS_ACCEPTED_BYTES] - v[TAV_IPC_STATS_LEFT_BYTES] -
                           v[TAV_IPC_STATS_DROPPED_BYTES] - v[TAV_IPC_STATS_QUEUED_BYTES] -
                           v[TAV_IPC_STATS_IN_FLIGHT_BYTES];
    const bool waits = v[TAV_IPC_STATS_QUEUED] + v[TAV_IPC_STATS_IN_FLIGHT] > 0;
    const bool since = v[TAV_IPC_STATS_WAITING_SINCE_MS] != 0;
    return count != 0   ? static_cast<int64_t>(count)
           : bytes != 0 ? static_cast<int64_t>(bytes)
                        : waits != since;
}

struct StatsFile {
    tav_ipc_stats_file_st header{};
    std::vector<tav_ipc_stats_record_st> records; // those in use

    static std::filesystem::path path(const std::filesystem::path &sockets, pid_t pid) {
        return sockets / ("ipc" + std::to_string(pid) + ".stats");
    }
    StatsFile(const std::filesystem::path &sockets, pid_t pid) {
        std::ifstream file(path(sockets, pid), std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        if (bytes.size() < sizeof header) return;
        std::memcpy(&header, bytes.data(), sizeof header);
        for (uint32_t i = 0; i < header.record_count; ++i) {
            tav_ipc_stats_record_st record;
            std::memcpy(&record, bytes.data() + header.header_size + i * header.record_size, sizeof record);
            if (record.kind != TAV_IPC_STATS_FREE) records.push_back(record);
        }
    }
};
