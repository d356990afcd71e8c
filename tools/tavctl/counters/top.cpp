// tavctl top: what each endpoint does, as a table that is renewed: on a terminal in place, with keys, and
// elsewhere one table after the other.
#include <cmath>
#include <csignal>
#include <tuple>

#include <poll.h>

#include "commands.h"
#include "counters/counters.h"
#include "counters/screen.h"
#include "module/module.h"

namespace tavctl {
namespace {

constexpr double kShortest_s = 0.1; // between two tables: reading costs time, too

enum Column { kName, kState, kProcess, kOut, kOutBytes, kIn, kInBytes, kWaiting, kOldest, kDrops, kColumns };
struct ColumnInfo {
    const char *name, *title;
    char key;
    int width; // negative: left-aligned; 79 in all
};
constexpr std::array<ColumnInfo, kColumns> kTable = {{{"name", "NAME", 'n', -13},
                                                      {"state", " S", 's', -2},
                                                      {"process", "PROCESS", 'p', 8},
                                                      {"out", "OUT/s", 'o', 8},
                                                      {"out-bytes", "OUT B/s", 'O', 9},
                                                      {"in", "IN/s", 'i', 8},
                                                      {"in-bytes", "IN B/s", 'I', 9},
                                                      {"waiting", "WAITING", 'w', 8},
                                                      {"oldest", "OLDEST", 't', 7},
                                                      {"drops", "DROPS", 'd', 7}}};
constexpr const char *kKeys = "q quit; sort by: n name, s state, p process, o O out, i I in, w waiting,\n"
                              "t oldest, d drops";

// What an endpoint did between two readings of its counters.
struct Row {
    std::string name;
    pid_t process = 0;
    ProcessState state = ProcessState::kRunning;
    std::optional<double> out, out_bytes, in, in_bytes; // per second; empty at the first reading
    uint64_t waiting = 0, drops = 0, new_drops = 0;
    double oldest_s = 0;
};

struct Look {
    std::vector<Row> rows;
    size_t processes = 0, ended = 0, unusable = 0, hidden = 0;
};

// Keeps the counters of the last reading, and computes differences.
class Watcher {
  public:
    explicit Watcher(const Args &args) : deploy_types_(args.all("deploy-type")) {}
    Look look() {
        Look now;
        std::map<Key, Sample> samples;
        for (const CounterFile &file : read_counters(find_directories(deploy_types_))) {
            now.unusable += !file.error.empty();
            now.hidden += file.hidden;
            if (!file.error.empty()) continue;
            const bool ended = file.state == ProcessState::kEnded;
            ++(ended ? now.ended : now.processes);
            for (const EndpointCounters &endpoint : file.endpoints) {
                if (ended) break;
                const Key key{file.path, endpoint.number, endpoint.generation, endpoint.since_ms};
                const auto last = last_.find(key);
                now.rows.push_back(row_of(file, endpoint, last == last_.end() ? nullptr : &last->second));
                samples[key] = {file.time, endpoint.values};
            }
        }
        last_ = std::move(samples);
        return now;
    }

  private:
    using Key = std::tuple<std::string, uint32_t, uint32_t, uint64_t>; // file, record, generation, since when
    struct Sample {
        double time;
        std::array<uint64_t, TAV_IPC_STATS_COUNT> values;
    };
    static Row row_of(const CounterFile &file, const EndpointCounters &endpoint, const Sample *last) {
        Row row{endpoint.address(),
                file.process,
                file.state,
                {},
                {},
                {},
                {},
                endpoint.waiting(),
                endpoint.dropped(),
                0,
                endpoint.oldest_s()};
        if (!last || file.time <= last->time) return row;
        const auto gain = [&](size_t value) { // 0 if the file is damaged
            return endpoint.values[value] - std::min(endpoint.values[value], last->values[value]);
        };
        const auto rate = [&](size_t value) {
            return static_cast<double>(gain(value)) / (file.time - last->time);
        };
        row.out = rate(TAV_IPC_STATS_MESSAGES);
        row.out_bytes = rate(TAV_IPC_STATS_LEFT_BYTES);
        row.in = rate(TAV_IPC_STATS_DELIVERED);
        row.in_bytes = rate(TAV_IPC_STATS_RECEIVED_BYTES);
        for (size_t i = TAV_IPC_STATS_DROPPED_NO_PEER; i < TAV_IPC_STATS_DROPPED_BYTES; ++i)
            row.new_drops += gain(i);
        return row;
    }

    const std::vector<std::string> deploy_types_;
    std::map<Key, Sample> last_;
};

// Orders by a column, the largest number first, then by name.
void sort_rows(std::vector<Row> &rows, Column column) {
    const auto number = [column](const Row &row) -> double {
        switch (column) {
        case kState:
            return static_cast<double>(row.state);
        case kProcess:
            return -row.process;
        case kOut:
            return row.out.value_or(0);
        case kOutBytes:
            return row.out_bytes.value_or(0);
        case kIn:
            return row.in.value_or(0);
        case kInBytes:
            return row.in_bytes.value_or(0);
        case kWaiting:
            return static_cast<double>(row.waiting);
        case kOldest:
            return row.oldest_s;
        case kDrops:
            return static_cast<double>(row.drops);
        default:
            return 0;
        }
    };
    std::ranges::sort(rows, {},
                      [&](const Row &row) { return std::tuple(-number(row), row.name, row.process); });
}

// In at most 7 characters.
std::string count_text(double number) {
    if (number > 0 && number < 9.95) {
        char text[16];
        snprintf(text, sizeof text, "%.1f", number);
        return text;
    }
    if (number < 999'999.5) return grouped(static_cast<uint64_t>(std::llround(number)));
    std::string text = bytes_text(number);
    text.pop_back(); // the B of "1.2 MB"
    return text;
}
std::string count_text(uint64_t number) {
    return number < 1'000'000 ? grouped(number) : count_text(static_cast<double>(number));
}
std::string rate_text(const std::optional<double> &rate) { return rate ? count_text(*rate) : "-"; }
std::string bytes_rate_text(const std::optional<double> &rate) { return rate ? bytes_text(*rate) : "-"; }

std::string line_of(const std::array<std::string, kColumns> &cells) {
    std::string line;
    for (size_t i = 0; i < kColumns; ++i) {
        const auto width = static_cast<size_t>(std::abs(kTable[i].width));
        const std::string cell = fit(cells[i], static_cast<unsigned>(width));
        line += kTable[i].width < 0 ? padded(cell, width) : padded("", width - cell.size()) + cell;
    }
    return line;
}

std::string line_of(const Row &row) {
    constexpr const char *kLetters[] = {" R", " T", " -", " ?"}; // by ProcessState, as in ps
    return line_of({row.name, kLetters[static_cast<size_t>(row.state)], std::to_string(row.process),
                    rate_text(row.out), bytes_rate_text(row.out_bytes), rate_text(row.in),
                    bytes_rate_text(row.in_bytes), count_text(row.waiting),
                    row.waiting == 0 ? "-" : age_text(row.oldest_s), count_text(row.drops)});
}

std::string summary_of(const Look &look, Column sorted) {
    std::string text =
        "tavctl top " + Stamp().format("%H:%M:%S") + "  " + counted(look.rows.size(), "endpoint") + ", ";
    text += look.processes == 1 ? "1 process" : grouped(look.processes) + " processes";
    if (look.ended > 0) text += ", " + grouped(look.ended) + " ended";
    if (look.unusable > 0) text += ", " + counted(look.unusable, "file") + " not usable";
    if (look.hidden > 0) text += ", " + counted(look.hidden, "record") + " missing";
    return text + "; by " + kTable[sorted].name;
}

std::string titles() {
    std::array<std::string, kColumns> cells;
    for (size_t i = 0; i < kColumns; ++i) cells[i] = kTable[i].title;
    return line_of(cells);
}

// One table for a pipe or a file, or one object for each row.
void tell(Console &out, Look look, Column sorted, bool first) {
    sort_rows(look.rows, sorted);
    out.tell((first ? "" : "\n") + summary_of(look, sorted) + "\n" + titles());
    const Stamp now;
    for (const Row &row : look.rows) {
        Record record("type", "endpoint", "time", now, "endpoint", row.name, "process", row.process);
        record.add("state", kProcessStates[static_cast<size_t>(row.state)]);
        record.add("out", row.out, "out_bytes", row.out_bytes, "in", row.in, "in_bytes", row.in_bytes);
        record.add("waiting", row.waiting, "oldest_s", row.oldest_s, "drops", row.drops, "new_drops",
                   row.new_drops);
        out.say(record, "", line_of(row));
    }
}

// A frame as high and wide as the terminal. Endpoints that have just dropped something are bold.
std::string frame_of(Look &look, Column sorted, unsigned rows, unsigned width) {
    sort_rows(look.rows, sorted);
    const unsigned columns = std::max(width, 2u) - 1; // the last one would wrap
    const size_t lines = rows > 4 ? rows - 4 : 0;
    const size_t shown = look.rows.size() <= lines ? look.rows.size() : lines - (lines > 0);
    std::string frame = fit(summary_of(look, sorted), columns);
    const std::string keys = kKeys;
    const size_t half = keys.find('\n');
    frame += "\n" + fit(keys.substr(0, half), columns) + "\n" + fit(keys.substr(half + 1), columns);
    frame += "\n\033[7m" + fit(titles(), columns) + "\033[m";
    for (size_t i = 0; i < shown; ++i) {
        const std::string line = fit(line_of(look.rows[i]), columns);
        frame += look.rows[i].new_drops > 0 ? "\n\033[1m" + line + "\033[m" : "\n" + line;
    }
    if (lines > 0 && shown < look.rows.size())
        frame += "\n" + grouped(look.rows.size() - shown) + " more: make the terminal higher";
    if (look.rows.empty() && lines > 0) frame += "\n  no process has counters below /var";
    return frame;
}

Column column_of_key(int key, Column now) {
    for (size_t i = 0; i < kColumns; ++i)
        if (kTable[i].key == key) return static_cast<Column>(i);
    return now;
}

Column column_named(const std::string &name) {
    std::string names;
    for (size_t i = 0; i < kColumns; ++i) {
        if (kTable[i].name == name) return static_cast<Column>(i);
        names += (i ? ", " : "") + std::string(kTable[i].name);
    }
    throw misuse("--sort: there is no column \"" + name + "\"", "one of " + names);
}

int run_on_terminal(Console &out, const Args &args, double interval_s, Column sorted) {
    Watcher watcher(args);
    Screen screen;
    for (uint64_t done = 0;; ++done) {
        Look look = watcher.look();
        const double end = now_seconds() + (done == 0 ? std::min(interval_s, 1.0) : interval_s);
        for (double left_s; (left_s = end - now_seconds()) > 0;) {
            screen.show(frame_of(look, sorted, screen.rows(), out.width()));
            const int key = screen.wait_key(left_s);
            if (key == 'q' || key < 0) return kSuccess;
            sorted = column_of_key(key, sorted);
        }
        if (args.count_reached(done)) return kSuccess; // the first table has no rates
    }
}

int run_in_pipe(Console &out, const Args &args, double interval_s, Column sorted) {
    catch_interrupts();
    Watcher watcher(args);
    watcher.look();
    for (uint64_t done = 0; !args.count_reached(done) && std::cout; ++done) {
        const double end = now_seconds() + interval_s;
        for (double left_s; !interrupted() && (left_s = end - now_seconds()) > 0;)
            poll(nullptr, 0, static_cast<int>(std::ceil(std::min(left_s, 1.0) * 1000)));
        if (interrupted()) break;
        tell(out, watcher.look(), sorted, done == 0);
    }
    return kSuccess;
}

} // namespace

int top(Console &out, const Args &args) {
    const double interval_s = std::max(args.seconds("interval"), kShortest_s);
    const Column sorted = column_named(args.text("sort"));
    const bool live = out.shows_progress() && Screen::is_possible();
    return live ? run_on_terminal(out, args, interval_s, sorted) : run_in_pipe(out, args, interval_s, sorted);
}

} // namespace tavctl
