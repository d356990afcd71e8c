// tavctl stats: the counters of each endpoint and its destinations, as text, JSON, or for Prometheus.
#include <set>

#include "commands.h"
#include "counters/counters.h"
#include "module/module.h"

namespace tavctl {
namespace {

constexpr char kOldest[] = "for how long something has waited without a break";

// Whether a destination has the value, too: these are about sending.
constexpr bool is_of_destination(size_t value) { return value <= TAV_IPC_STATS_WAITING_SINCE_MS; }

constexpr size_t kNameWidth = 21, kValueWidth = 15; // characters: an indented name; its number

// A value as people read it.
struct Shown {
    std::string name, value, meaning;
};

// The values that are not 0. Nothing waits any more in a process that has ended.
std::vector<Shown> shown_of(const CounterFile &file, const Counters &counters) {
    std::vector<Shown> shown;
    for (size_t i = 0; i < TAV_IPC_STATS_COUNT; ++i) {
        if (counters.values[i] == 0) continue;
        if (i != TAV_IPC_STATS_WAITING_SINCE_MS)
            shown.push_back({kValues[i].text, grouped(counters.values[i]), kValues[i].meaning});
        else if (file.state != ProcessState::kEnded)
            shown.push_back({"oldest_waiting", time_text(counters.oldest_s()), kOldest});
    }
    return shown;
}

// Adds items, separated by commas, in lines of at most width characters (0: one line).
std::string listed(const std::string &title, const std::vector<std::string> &items, size_t width) {
    std::string text = title + ":";
    size_t column = text.size();
    for (size_t i = 0; i < items.size(); ++i) {
        const std::string item = items[i] + (i + 1 < items.size() ? "," : "");
        const bool full = width > 0 && column + 1 + item.size() > width;
        text += full ? "\n      " + item : " " + item;
        column = full ? 6 + item.size() : column + 1 + item.size();
    }
    return text;
}

Record record_of(const CounterFile &file, const EndpointCounters &endpoint, const Counters *destination) {
    const Counters &counters = destination ? *destination : endpoint;
    Record record("type", destination ? "destination" : "endpoint", "endpoint", endpoint.name);
    record.add("location", endpoint.location, "process", file.process, "state", file.state_text());
    if (destination)
        record.add("destination", destination->name, "destination_location", destination->location);
    else
        record.add("executable", file.executable);
    record.add("age_s", counters.age_s(), "oldest_waiting_s", counters.oldest_s());
    for (size_t i = 0; i < TAV_IPC_STATS_COUNT; ++i)
        if (!destination || is_of_destination(i)) record.add(kValues[i].text, counters.values[i]);
    return record;
}

void show(Console &out, const CounterFile &file, const EndpointCounters &endpoint) {
    const unsigned width = out.width();
    const bool ended = file.state == ProcessState::kEnded;
    std::string text = endpoint.address() + ", process " + std::to_string(file.process);
    if (!file.executable.empty()) text += " (" + file.executable + ")";
    text += std::string(", ") + file.state_text();
    text += ended ? "; its last counts:" : ", open for " + time_text(endpoint.age_s());
    const std::vector<Shown> values = shown_of(file, endpoint);
    for (const auto &[name, value, meaning] : values)
        text += "\n" + fit(padded("  " + name, kNameWidth) +
                               padded("", kValueWidth - std::min(kValueWidth, value.size())) + value + "  " +
                               meaning,
                           width);
    if (values.empty()) text += "\n  all counters are 0";
    out.say(record_of(file, endpoint, nullptr), "", text);
    for (const Counters &destination : endpoint.destinations) {
        std::vector<std::string> items;
        for (const auto &[name, value, meaning] : shown_of(file, destination))
            items.push_back(name + " " + value);
        if (items.empty()) items.push_back("nothing");
        out.say(record_of(file, endpoint, &destination), "",
                listed("  to " + destination.address(), items, width));
    }
}

std::string label(const char *name, const std::string &value) {
    std::string text = std::string(name) + "=\"";
    for (const char c : value) text += c == '\\' || c == '"' ? std::string("\\") + c : std::string(1, c);
    return text + "\"";
}

// The counters of one record, with its labels as the text format has them.
struct Series {
    const CounterFile *file;
    const Counters *counters;
    bool destination;
    std::string labels;
};

std::string labels_of(const CounterFile &file, const EndpointCounters &endpoint, const std::string &to) {
    return "{" + label("endpoint", endpoint.name) + "," +
           label("location", std::to_string(endpoint.location)) + "," +
           label("pid", std::to_string(file.process)) + "," + label("destination", to) + "}";
}

void write_metric(const std::string &name, const char *help, bool gauge, const std::vector<Series> &all,
                  const std::function<std::string(const Series &)> &value_of) {
    const std::string full = "tavipc_" + name + (gauge ? "" : "_total");
    std::cout << "# HELP " << full << ' ' << help << "\n# TYPE " << full
              << (gauge ? " gauge\n" : " counter\n");
    for (const Series &series : all)
        if (const std::string value = value_of(series); !value.empty())
            std::cout << full << series.labels << ' ' << value << '\n';
}

// A scraper refuses all when two lines have the same labels, so the second is left out: that of an ended
// process, or of a forged file.
int write_prometheus(const std::vector<CounterFile> &files,
                     const std::function<bool(const Counters &)> &wanted) {
    std::vector<Series> all;
    std::set<std::string> seen;
    for (const CounterFile &file : files)
        for (const EndpointCounters &endpoint : file.endpoints) {
            std::string labels = labels_of(file, endpoint, "");
            if (!wanted(endpoint) || !seen.insert(labels).second) continue;
            all.push_back({&file, &endpoint, false, std::move(labels)});
            for (const Counters &destination : endpoint.destinations)
                if (labels = labels_of(file, endpoint, destination.address()); seen.insert(labels).second)
                    all.push_back({&file, &destination, true, std::move(labels)});
        }
    for (size_t i = 0; i < TAV_IPC_STATS_COUNT; ++i)
        write_metric(kValues[i].text, kValues[i].meaning, kValues[i].gauge, all, [i](const Series &series) {
            return series.destination && !is_of_destination(i) ? ""
                                                               : std::to_string(series.counters->values[i]);
        });
    write_metric("oldest_waiting_seconds", kOldest, true, all,
                 [](const Series &series) { return std::to_string(series.counters->oldest_s()); });
    write_metric("running", "1: the process runs or is stopped; 0: it has ended, these are its last counts",
                 true, all, [](const Series &series) {
                     const bool ended = series.file->state == ProcessState::kEnded;
                     return series.destination ? "" : std::string(ended ? "0" : "1");
                 });
    return kSuccess;
}

} // namespace

int stats(Console &out, const Args &args) {
    const std::string given = args.text("NAME");
    const tav_addr_st address = given.empty() ? tav_addr_st{} : parse_address(given);
    const std::string name = one_line({address.name, strnlen(address.name, sizeof address.name)});
    const auto wanted = [&](const Counters &endpoint) {
        return name.empty() ||
               (endpoint.name == name && (address.loc == 0 || endpoint.location == address.loc));
    };
    const auto files = read_counters(find_directories(args.all("deploy-type")));
    if (args.has("prometheus")) {
        if (args.has("json")) throw misuse("give --prometheus or --json, not both");
        return write_prometheus(files, wanted);
    }
    bool any = false;
    for (const CounterFile &file : files) {
        if (name.empty() && !file.error.empty())
            out.say(Record("type", "unusable", "file", one_line(file.path), "error", file.error),
                    "{file}: {error}");
        if (name.empty() && file.hidden > 0)
            out.tell(counted(file.hidden, "record") + " of process " + std::to_string(file.process) +
                     " found no space in its file.");
        for (const EndpointCounters &endpoint : file.endpoints) {
            if (!wanted(endpoint)) continue;
            if (any) out.tell("");
            any = true;
            show(out, file, endpoint);
        }
    }
    if (!any && !name.empty())
        throw Problem(
            "there are no counters of an endpoint " + harmless(given),
            "tavctl list shows the endpoints, and directories that this user may not read; a module of an "
            "older library has no counters");
    if (!any) out.tell("No process has counters below /var.");
    return kSuccess;
}

} // namespace tavctl
