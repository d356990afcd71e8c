// tavctl probe: like ping, to the library of another process.
#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "commands.h"
#include "module/module.h"

namespace tavctl {
namespace {

struct Statistics {
    uint64_t sent = 0;
    std::vector<double> times; // seconds

    void say(Console &out, const std::string &who) {
        const uint64_t lost = sent - times.size();
        Record record("type", "statistics", "to", who, "sent", sent, "answered", times.size());
        const std::string percent = std::to_string(sent > 0 ? 100 * lost / sent : 0) + " % lost";
        const std::string round_trips = times.empty() ? "" : add_times(record);
        out.say(record, "--- {to}: {sent,} sent, {answered,} answered, ", percent + round_trips);
    }

  private:
    std::string add_times(Record &record) {
        std::ranges::sort(times);
        const auto count = static_cast<double>(times.size());
        const double median = (times[(times.size() - 1) / 2] + times[times.size() / 2]) / 2;
        const double mean = std::accumulate(times.begin(), times.end(), 0.0) / count;
        double squares = 0;
        for (const double t : times) squares += (t - mean) * (t - mean);
        record.add("min_us", Duration{times.front()}, "median_us", Duration{median}, "mean_us",
                   Duration{mean});
        record.add("max_us", Duration{times.back()}, "deviation_us", Duration{std::sqrt(squares / count)});
        return record.fill("\n  min {min_us}, median {median_us}, mean {mean_us}, max {max_us}, "
                           "std dev {deviation_us}");
    }
};

} // namespace

int probe(Console &out, const Args &args) {
    const tav_addr_st destination = parse_address(args.text("NAME"));
    const std::string who = address_text(destination);
    const uint64_t count = args.number("count"); // 0: until interrupted
    catch_interrupts();
    Statistics statistics;
    Exchange exchange;
    const Module module;
    while ((count == 0 || statistics.sent < count) && !interrupted()) {
        exchange = {};
        tav_ipc_probe(module, &destination, Exchange::on_status, &exchange);
        if (exchange.wait() == Wait::kInterrupted) break; // not counted: it had no time to be answered
        ++statistics.sent;
        Record record("type", "probe", "to", who, "number", statistics.sent, "code", exchange.code);
        if (exchange.code == 0) {
            statistics.times.push_back(exchange.took());
            out.say(record.add("us", Duration{exchange.took()}), "{to}: number {number,}, {us}");
        } else {
            const Problem why = failed_exchange(destination, exchange.code);
            const bool first = statistics.sent == statistics.times.size() + 1;
            out.say(record.add("error", why.what()), "{error}",
                    first ? "\n  what to do: " + why.remedy() : std::string());
        }
        if (count == 0 || statistics.sent < count)
            pause(args.seconds("interval") - (now_seconds() - exchange.begin));
    }
    statistics.say(out, who);
    if (statistics.sent == 0) return kFailure; // interrupted before one could be answered
    return statistics.times.empty() ? kNoAnswer : kSuccess;
}

} // namespace tavctl
