// Results, and their forms: a table, JSON, and a plot.
#pragma once

#include <string>
#include <vector>

#include "works.h"

namespace bench {

// One run of one system on one work.
struct Run {
    double value = 0; // in the work's unit; NaN when not everything arrived
    double lost = 0;
    double cpu_us = 0; // of the sender or senders, for each message
    double waits = 0;  // how often they went to sleep, for each message
};

struct Series {
    const System *system;
    std::vector<Run> runs; // by round
};

struct WorkResults {
    const Work *work;
    std::vector<Series> series; // tavipc's is the first
};

void print_table(const WorkResults &results);
void write_json(const std::string &path, const std::vector<WorkResults> &all, unsigned rounds);
void write_svg(const std::string &path, const std::vector<WorkResults> &all);
std::string machine();

} // namespace bench
