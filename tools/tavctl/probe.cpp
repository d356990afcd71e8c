// tavctl probe: like ping, to the library of another process.
#include <algorithm>
#include <cmath>

#include "commands.h"
#include "module.h"

namespace tavctl {
namespace {

struct Probe {
    bool ended = false;
    int code = 0;
    double end = 0;
};

int on_probe(int32_t code, void *user) {
    auto &probe = *static_cast<Probe *>(user);
    probe = {true, code, now_seconds()};
    return 0;
}

struct Statistics {
    uint64_t sent = 0;
    std::vector<double> times;

    void tell(Console &out, const std::string &who) const {
        Record record;
        record.add("type", "statistics").add("to", who).add("sent", sent).add("answered", times.size());
        const uint64_t lost = sent - times.size();
        std::string text = "--- " + who + ": " + grouped(sent) + " sent, " + grouped(times.size()) +
                           " answered, " + std::to_string(sent > 0 ? 100 * lost / sent : 0) + " % lost";
        if (!times.empty()) {
            std::vector<double> sorted = times;
            std::ranges::sort(sorted);
            const double median = (sorted[(sorted.size() - 1) / 2] + sorted[sorted.size() / 2]) / 2;
            double sum = 0, squares = 0;
            for (const double t : sorted) sum += t;
            const double mean = sum / static_cast<double>(sorted.size());
            for (const double t : sorted) squares += (t - mean) * (t - mean);
            const double deviation = std::sqrt(squares / static_cast<double>(sorted.size()));
            record.add("min_us", sorted.front() * 1e6)
                .add("median_us", median * 1e6)
                .add("mean_us", mean * 1e6);
            record.add("max_us", sorted.back() * 1e6).add("deviation_us", deviation * 1e6);
            text += "\n    round trip: least " + time_text(sorted.front()) + ", median " + time_text(median) +
                    ", mean " + time_text(mean) + ", most " + time_text(sorted.back()) + ", deviation " +
                    time_text(deviation);
        }
        out.say(record, text);
    }
};

} // namespace

int probe(Console &out, const ProbeOptions &options) {
    const tav_addr_st destination = parse_address(options.destination);
    const std::string who = address_text(destination);
    catch_interrupts();
    Statistics statistics;
    Probe state; // before the endpoint: its end completes what is outstanding
    const Module module(Module::kReceiving);
    while ((options.count == 0 || statistics.sent < options.count) && !interrupted()) {
        state = {};
        const double begin = now_seconds();
        ++statistics.sent;
        tav_ipc_probe(module, &destination, on_probe, &state);
        if (run_until([&] { return state.ended; }) == Wait::kInterrupted) {
            --statistics.sent; // no time was left to answer
            break;
        }
        const double took = state.end - begin;
        Record record;
        record.add("type", "probe").add("to", who).add("number", statistics.sent).add("code", state.code);
        if (state.code == 0) {
            statistics.times.push_back(took);
            out.say(record.add("us", took * 1e6),
                    who + ": number " + grouped(statistics.sent) + ", " + time_text(took));
        } else {
            const Problem why = failed_exchange(destination, state.code);
            const bool first = statistics.sent == statistics.times.size() + 1;
            out.say(record.add("error", why.what()),
                    why.what() + (first ? "\n  what to do: " + why.remedy() : std::string()));
        }
        if (options.count == 0 || statistics.sent < options.count)
            pause(options.interval_s - (now_seconds() - begin));
    }
    statistics.tell(out, who);
    if (statistics.sent == 0) return kFailure; // interrupted before one could be answered
    return statistics.times.empty() ? kNoAnswer : kSuccess;
}

} // namespace tavctl
