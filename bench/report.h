// Results, and their forms: a table, JSON, and a plot.
#pragma once

#include <string>
#include <vector>

#include "works.h"

namespace bench {

// One run of one system on one work.
struct Result {
    double value = 0; // in the work's unit; NaN when not everything arrived
    Run run = {};
};

struct Series {
    const System *system;
    std::vector<Result> runs; // by round
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
