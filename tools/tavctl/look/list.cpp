// tavctl list: the endpoints, whose they are, and the files that killed processes have left.
#include <array>
#include <sstream>
#include <tuple>

#include "commands.h"
#include "common/facts.h"
#include "counters/counters.h"
#include "look/sockets.h"
#include "module/module.h"
#include "tavaux.h"

namespace tavctl {
namespace {

constexpr size_t kColumns = 7;
using Row = std::array<std::string, kColumns>;
constexpr std::array<size_t, kColumns> kWidest = {20, 9, 8, 12, 6, 8, 4096}; // on a terminal, in characters
const Row kTitles = {"NAME", "STATE", "PROCESS", "USER", "AGE", "WAITING", "EXECUTABLE"};

constexpr const char *kStates[] = {"gone", "live", "stale", "forbidden", "other"}; // by SocketState

Row row_of(const SocketDirectory &directory, const SocketFile &file) {
    const std::string name = one_line(file.name) + "@" + std::to_string(directory.location);
    const std::string executable = file.executable.substr(file.executable.rfind('/') + 1);
    return {name,
            kStates[static_cast<size_t>(file.state)],
            file.process ? std::to_string(file.process) : "-",
            one_line(file.user),
            age_text(static_cast<double>(time(nullptr) - file.made)),
            file.waiting ? grouped(*file.waiting) : "-",
            executable.empty() ? "-" : one_line(executable)};
}

std::vector<Row> rows_of(const SocketDirectory &directory, bool pool) {
    std::vector<Row> rows = {kTitles};
    std::map<std::tuple<pid_t, SocketState, pid_t, std::string>, std::pair<size_t, const SocketFile *>>
        senders; // those that share all this: their number, and the oldest
    for (const SocketFile &file : directory.sockets) {
        if (file.sender == 0 || pool) {
            rows.push_back(row_of(directory, file));
        } else {
            auto &[count, first] = senders[{file.sender, file.state, file.process, file.user}];
            if (++count == 1 || file.made < first->made) first = &file;
        }
    }
    for (const auto &[alike, found] : senders) {
        const auto &[count, first] = found;
        rows.push_back(row_of(directory, *first));
        rows.back()[0] = "ipc" + std::to_string(first->sender) + "_* x" + std::to_string(count);
    }
    return rows;
}

void add_count(std::string &text, size_t count, const char *what) {
    if (count > 0) text += (text.ends_with(": ") ? "" : ", ") + grouped(count) + " " + what;
}

std::string title_of(const SocketDirectory &directory) {
    std::string text = one_line(directory.path) + ": ";
    if (!directory.error.empty()) return text + directory.error;
    add_count(text, directory.count(SocketState::kLive), "live");
    add_count(text, directory.count(SocketState::kStale), "stale");
    add_count(text, directory.count(SocketState::kForbidden), "forbidden to this user");
    add_count(text, directory.strange + directory.count(SocketState::kNoSocket), "of another kind");
    return text;
}

void tell_table(Console &out, const std::vector<Row> &rows) {
    const unsigned width = out.width();
    std::array<size_t, kColumns> widths{};
    for (const Row &row : rows)
        for (size_t i = 0; i < kColumns; ++i)
            widths[i] = std::max(widths[i], width ? std::min(row[i].size(), kWidest[i]) : row[i].size());
    for (const Row &row : rows) {
        std::string line;
        for (size_t i = 0; i < kColumns; ++i)
            line += padded(fit(row[i], width ? static_cast<unsigned>(widths[i]) : 0), widths[i]) + "  ";
        out.tell(fit(line.substr(0, line.find_last_not_of(' ') + 1), width));
    }
}

Record record_of(const SocketDirectory &directory, const SocketFile &file) {
    Record record("directory", one_line(directory.path), "name", one_line(file.name));
    record.add("location", directory.location, "state", kStates[static_cast<size_t>(file.state)], "sending",
               file.sender != 0);
    const auto process = file.process ? std::optional(file.process) : std::nullopt;
    const auto executable = file.process ? std::optional(one_line(file.executable)) : std::nullopt;
    record.add("process", process, "executable", executable, "waiting", file.waiting);
    return record.add("user", one_line(file.user), "owner", file.owner, "since", Stamp(file.made));
}

// A shell expands the words that it completes, so names with characters that it interprets are left out.
bool is_plain(const std::string &name) {
    return name.size() <= TAV_IPC_NAME_MAX &&
           name.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz._+-") ==
               name.npos;
}

// False when the file could not be removed.
bool clean_one(Console &out, const std::string &directory, const SocketFile &file) {
    Record record("path", one_line(directory + "/" + file.name));
    const int error = remove_stale(directory, file);
    if (error == 0) out.say(record.add("removed", true), "removed {path}");
    if (error == 0 || error == ENOENT) return true; // removed, gone by itself, or in use again
    record.add("removed", false, "error",
               error == EWOULDBLOCK ? "another process holds the lock of the directory"
                                    : std::strerror(error));
    out.say(record, "cannot remove {path}: {error}");
    return false;
}

// Directories that nobody named belong to other agents: their files stay.
int clean(Console &out, const Scan &scan) {
    size_t stale = 0, failed = 0, forbidden = 0, others = 0;
    for (const SocketDirectory &directory : scan.directories) {
        if (!directory.named) {
            others += directory.count(SocketState::kStale);
            continue;
        }
        forbidden += directory.count(SocketState::kForbidden);
        for (const SocketFile &file : directory.sockets) {
            if (file.state != SocketState::kStale) continue;
            ++stale;
            failed += !clean_one(out, directory.path, file);
        }
    }
    if (stale + forbidden == 0) out.tell("There is no stale socket file.");
    if (forbidden > 0)
        out.tell(counted(forbidden, "socket") + " forbidden to this user: run it as root to clean them too.");
    if (others > 0)
        out.tell(grouped(others) +
                 " stale in directories of other deployment types: clean them with --deploy-type TYPE.");
    if (failed > 0) out.tell_remedy("run it as the owner of the directory, or as root");
    return failed > 0 ? kFailure : kSuccess;
}

// The endpoints of other locations from which the bridge of this one has had messages. It answers the command
// code with a line for each: name, location, host id, seconds since then.
int tell_heard(Console &out) {
    const tav_addr_st bridge = parse_address(tavipc::kBridgeEndpoint);
    catch_interrupts();
    const Module module;
    const Answer answer =
        exchange(module, TAV_IPC_EXCHANGE_REQUEST, bridge, kProbeTimeout_s, tavipc::kBridgeHeard);
    if (!answer.ended) return kFailure;
    if (answer.code != 0) throw failed_exchange(bridge, answer.code);
    out.tell("\nOther locations, as the bridge has heard them:");
    std::istringstream rows(answer.payload);
    for (std::string row; std::getline(rows, row);) {
        std::istringstream words(row);
        std::string name;
        unsigned location = 0, hostid = 0, age_s = 0;
        if (words >> name >> location >> hostid >> age_s) // peers choose their names: one may have a blank
            out.say(Record("name", one_line(name), "location", location, "hostid", hostid, "state", "heard",
                           "age_s", age_s),
                    "{name}@{location}  on machine {hostid}, {age_s} s ago");
    }
    return kSuccess;
}

} // namespace

std::set<std::string> live_names() {
    std::set<std::string> names;
    for (const SocketDirectory &directory : scan_known({}).directories) {
        const int location = directory.location;
        const std::string suffix = location == tav_get_location() ? "" : "@" + std::to_string(location);
        for (const SocketFile &file : directory.sockets)
            if (directory.own && file.state == SocketState::kLive && !file.sender && is_plain(file.name))
                names.insert(file.name + suffix);
    }
    return names;
}

int list(Console &out, const Args &args) {
    if (args.has("names")) {
        for (const std::string &name : live_names()) std::cout << name << '\n';
        return kSuccess;
    }
    Scan scan = scan_everything(args.all("deploy-type"));
    if (args.has("clean")) return clean(out, scan);
    const auto counters = read_counters(scan.directories);
    bool any = false;
    for (SocketDirectory &directory : scan.directories) {
        if (directory.sockets.empty() && directory.strange == 0 && directory.error.empty()) continue;
        for (SocketFile &file : directory.sockets) {
            file.waiting = waiting_of(counters, directory, file);
            out.say(record_of(directory, file), "");
        }
        out.tell((any ? "\n" : "") + fit(title_of(directory), out.width()));
        if (!directory.sockets.empty()) tell_table(out, rows_of(directory, args.has("pool")));
        any = true;
    }
    if (!any) out.tell("No endpoint is open, and none has left a socket file below /var.");
    if (scan.incomplete)
        out.tell(geteuid() == 0
                     ? "\nThe process of some sockets is in another namespace, perhaps of a container."
                     : "\nThis user does not see everything; root does.");
    return args.has("all") ? tell_heard(out) : kSuccess;
}

} // namespace tavctl
