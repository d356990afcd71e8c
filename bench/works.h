// What tavbench measures.
#pragma once

#include <span>

#include "measure/measure.h"

namespace bench {

enum class Unit { kMicrosecondsEach, kMillisecondsEach, kThousandsPerSecond, kMilliseconds, kSeconds };

struct Work {
    const char *name;
    const char *title;
    const char *systems; // names, blank-separated
    Unit unit;
    Job job;

    bool more_is_better() const { return unit == Unit::kThousandsPerSecond; }
};

std::span<const Work> works();
// The last one, without make, stands for the command cp.
std::span<const System> systems();

std::unique_ptr<Link> make_zeromq(const Ends &ends);
std::unique_ptr<Link> make_nng(const Ends &ends);
std::unique_ptr<Link> make_sdbus(const Ends &ends);

} // namespace bench
