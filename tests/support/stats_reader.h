// Reads a file of counters as another program does, and checks that counters balance.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tavipc/tav_ipc_stats.h"

// By how much what became of datagrams, or of their bytes, differs from what was accepted; 0: it balances.
inline int64_t imbalance(const uint64_t *v) {
    uint64_t count = v[TAV_IPC_STATS_ACCEPTED] - v[TAV_IPC_STATS_LEFT] - v[TAV_IPC_STATS_QUEUED] -
                     v[TAV_IPC_STATS_IN_FLIGHT];
    for (int i = TAV_IPC_STATS_DROPPED_NO_PEER; i <= TAV_IPC_STATS_DROPPED_OTHER; ++i) count -= v[i];
    const uint64_t bytes = v[TAV_IPC_STATS_ACCEPTED_BYTES] - v[TAV_IPC_STATS_LEFT_BYTES] -
                           v[TAV_IPC_STATS_DROPPED_BYTES] - v[TAV_IPC_STATS_QUEUED_BYTES] -
                           v[TAV_IPC_STATS_IN_FLIGHT_BYTES];
    const bool waits = v[TAV_IPC_STATS_QUEUED] + v[TAV_IPC_STATS_IN_FLIGHT] > 0;
    if (waits != (v[TAV_IPC_STATS_WAITING_SINCE_MS] != 0)) return INT64_MAX;
    return static_cast<int64_t>(count != 0 ? count : bytes);
}

struct StatsFile {
    tav_ipc_stats_file_st header{};
    std::vector<tav_ipc_stats_record_st> records; // those in use

    static std::filesystem::path path(const std::filesystem::path &sockets, pid_t pid) {
        return sockets / ("ipc" + std::to_string(pid) + ".stats");
    }
    StatsFile(const std::filesystem::path &sockets, pid_t pid) {
        std::ifstream file(path(sockets, pid), std::ios::binary);
        file.read(reinterpret_cast<char *>(&header), sizeof header).seekg(header.header_size);
        tav_ipc_stats_record_st record;
        while (file.read(reinterpret_cast<char *>(&record), sizeof record))
            if (record.kind != TAV_IPC_STATS_FREE) records.push_back(record);
    }
};
