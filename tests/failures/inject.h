// The plan that makes allocations and system calls of the libraries fail, and a report of what it did.
#pragma once

#include <cstdint>

namespace inject {

enum class Kind { kNothing, kAllocations, kCalls };
struct Plan {
    Kind kind = Kind::kNothing;
    uint32_t at = 0;       // number of the allocation or call that fails, from 1 on; 0: none
    bool for_good = false; // all later allocations, or all later calls of that function, fail too
    unsigned error = 0;    // index of the error among those of the function
};
struct Report {                      // in memory that a child process shares with its parent
    uint32_t points = 0, failed = 0; // allocations or calls under the plan, and how many of them failed
    unsigned errors = 0;             // number of errors of the function that failed first
    char function[24] = "", caller[160] = "", complaint[240] = "";
    long allocations = 0, descriptors = 0; // left at the end
};
extern Report *report;
extern Plan plan;
extern uint64_t clock_offset_ms;
extern long live_allocations;

} // namespace inject
