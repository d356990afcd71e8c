// Makes allocations and system calls of the libraries fail: the program's own malloc, socket, read and so on
// stand before those of the system. Its own calls are left alone. Time is the system's, moved on by hand.
#pragma once

#include <cstdint>

namespace inject {

enum class Kind { kNothing, kAllocations, kCalls };

struct Plan {
    Kind kind = Kind::kNothing;
    uint32_t at = 0;       // which of them fails, from 1 on; 0: none
    bool for_good = false; // and all later allocations, or all later calls of that function
    unsigned error = 0;    // which of the function's errors
};

// What happened, in memory that a child process shares with its parent.
struct Report {
    uint32_t points; // allocations or calls under the plan
    uint32_t failed; // of these; the four below are about the first
    unsigned errors; // number of errors that the function can have
    int error;
    char function[24];
    char caller[160];
    char fatal[80]; // the last log line of level 0
    char complaint[240];
    long allocations, descriptors; // that are left at the end
};
extern Report *report;

void begin(const Plan &plan);
void end();
inline bool any_failed() { return report->failed > 0; }
long live_allocations();
void move_clock(uint64_t ms);

} // namespace inject
