// tavctl monitor and tavctl log. Neither opens an endpoint: modules connect to them.
#include <optional>
#include <set>

#include "commands.h"
#include "common/socket_directory.h"
#include "module/module.h"
#include "monitor/monitor.h"
#include "tavaux.h"

namespace tavctl {
namespace {

constexpr double kReportMissed_s = 1; // time between two lines about missed copies
constexpr size_t kShownPayload = 256; // bytes, with --hexdump alone
constexpr size_t kNumbersWidth = 18;  // characters: command code, size and number of fragments

// NAME without its location where that is this machine's own.
std::string short_text(tav_addr_st address) {
    if (address.loc == tav_get_location()) address.loc = 0;
    const std::string text = one_line(address_text(address));
    return text.empty() ? "-" : text;
}

std::string fragments_text(const Message &message) {
    if (message.fragments == 1) return {};
    const std::string all = std::to_string(message.fragments);
    return message.seen == message.fragments ? all : std::to_string(message.seen) + "/" + all;
}

std::string line_of(const Message &message, const Stamp &time) {
    std::string numbers = std::to_string(message.size), fragments = fragments_text(message);
    numbers += std::string(5 - std::min<size_t>(fragments.size(), 4), ' ') + fragments;
    const std::string cmd = padded(std::to_string(message.header.cmd), 4);
    numbers.insert(0, kNumbersWidth - std::min(kNumbersWidth - 1, cmd.size() + numbers.size()), ' ');
    return time.clock() + " " + padded(short_text(message.header.src), 9) + " " +
           padded(short_text(message.header.dest), 9) + " " + padded(kind_of(message.header), 7) + " " + cmd +
           numbers + " " + outcome_text(message.outcome, message.reason, message.tries);
}

const char kTitle[] = "TIME         FROM      TO        KIND    CMD      SIZE FRAG OUTCOME";

std::set<std::string> words_of(const Args &args, const char *option, std::span<const char *const> known) {
    std::set<std::string> words;
    for (const std::string &word : args.all(option)) {
        if (std::ranges::find(known, word) == known.end())
            throw misuse(std::string("--") + option + ": \"" + word + "\" is unknown",
                         "tavctl monitor --help");
        words.insert(word);
    }
    return words;
}

// Opens a socket in each directory of an agent that was named and of a location that is asked for (empty:
// all). When there is none, the tool's own is made: its modules may come later.
void open_sockets(MonitorSockets &sockets, const std::vector<std::string> &deploy_types,
                  const std::set<int> &locations) {
    if (locations.empty()) {
        std::error_code failed; // opening then says why
        fs::create_directories(tavipc::socket_directory(GetDeployTypeStr(), tav_get_location()), failed);
    }
    std::optional<Problem> problem;
    for (const SocketDirectory &directory : scan_known(deploy_types).directories) {
        if (!directory.named || !(locations.empty() || locations.contains(directory.location))) continue;
        try {
            sockets.open(directory);
        } catch (const Problem &refused) {
            problem = refused;
        }
    }
    if (sockets.listeners().empty())
        throw problem ? *problem : Problem("there is no socket directory to monitor", "start a module first");
    if (problem) std::cerr << "tavctl: " << harmless(problem->what()) << std::endl;
}

class Monitor {
  public:
    Monitor(Console &out, const Args &args)
        : out_(out), args_(args), kinds_(words_of(args, "kind", kKinds)),
          outcomes_(words_of(args, "outcome", std::span(kOutcomeNames).subspan(1))), codes_(args.all("cmd")),
          messages_([this](const Message &message) { report(message); }) {
        std::set<int> locations;
        for (const std::string &name : args.all("NAME")) {
            addresses_.push_back(parse_address(name));
            if (addresses_.back().loc != 0) locations.insert(addresses_.back().loc);
        }
        if (std::ranges::any_of(addresses_, [](const auto &address) { return address.loc == 0; }))
            locations.clear();
        open_sockets(sockets_, args.all("deploy-type"), locations);
        std::vector<std::string> names;
        for (const MonitorSockets::Listener &listener : sockets_.listeners())
            names.push_back(listener.directory);
        packets_.resize(names.size());
        if (args.has("pcap")) capture_.emplace(args.text("pcap"), names);
    }

    int run() {
        const bool quiet = args_.text("pcap") == "-";
        for (const MonitorSockets::Listener &listener : sockets_.listeners())
            if (!quiet)
                out_.say(Record("type", "ready", "directory", listener.directory),
                         "monitoring {directory}; Ctrl-C ends it");
        if (!capture_) out_.tell(kTitle);
        while (std::cout && !interrupted() && !is_done()) {
            for (const Copy &copy : sockets_.take())
                if (!is_done()) take(copy);
            messages_.expire(now_seconds());
            report_missed();
            if (capture_) capture_->flush();
        }
        messages_.end();
        if (capture_) finish_capture();
        Record record("type", "end", "messages", seen_, "missed", sockets_.missed(), "ignored",
                      sockets_.ignored());
        if (!quiet)
            out_.say(record,
                     capture_ ? "{messages,datagram}, {missed,} missed"
                              : "{messages,message}, {missed,} missed",
                     sockets_.ignored() ? record.fill(", {ignored,record} ignored") : "");
        return kSuccess;
    }

  private:
    bool is_done() const { return args_.count_reached(seen_); }

    void take(const Copy &copy) {
        if (copy.record.event == TAV_IPC_MONITOR_HELLO) return on_hello(copy);
        if (!capture_) return messages_.add(copy);
        if (!wanted(copy.header, copy.record.event)) return;
        capture_->add(copy);
        ++packets_[copy.listener];
        ++seen_;
    }

    void on_hello(const Copy &copy) {
        const std::string_view name(copy.record.endpoint,
                                    strnlen(copy.record.endpoint, sizeof copy.record.endpoint));
        const auto payload = static_cast<uint32_t>(args_.has("payload")   ? args_.number("payload")
                                                   : args_.has("pcap")    ? TAV_IPC_FRAGMENT_PAYLOAD
                                                   : args_.has("hexdump") ? kShownPayload
                                                                          : 0);
        if (payload > 0) sockets_.command(copy, TAV_IPC_MONITOR_CAPTURE, payload);
        if (args_.text("pcap") == "-") return;
        out_.say(Record("type", "module", "process", copy.process, "endpoint", name),
                 "-- {endpoint}, process {process}, is monitored");
    }

    bool wanted(const tav_ipc_hdr_st &header, unsigned outcome) const {
        const auto is = [&](const tav_addr_st &end) {
            return std::ranges::any_of(addresses_, [&](const tav_addr_st &asked) {
                return strncmp(asked.name, end.name, sizeof end.name) == 0 &&
                       (asked.loc == 0 || asked.loc == (end.loc != 0 ? end.loc : tav_get_location()));
            });
        };
        return (addresses_.empty() || is(header.src) || is(header.dest)) &&
               (codes_.empty() || std::ranges::count(codes_, std::to_string(header.cmd)) > 0) &&
               (kinds_.empty() || kinds_.contains(kind_of(header))) &&
               (outcomes_.empty() || outcomes_.contains(kOutcomeNames[outcome]));
    }

    void report(const Message &message) {
        if (is_done() || !wanted(message.header, message.outcome)) return;
        ++seen_;
        const tav_ipc_hdr_st &header = message.header;
        const uint64_t time_ns = message.record.time_ns;
        const Stamp time(static_cast<time_t>(time_ns / 1'000'000'000),
                         static_cast<long>(time_ns % 1'000'000'000));
        Record record("type", "message", "time", time, "from", address_text(header.src), "to",
                      address_text(header.dest), "kind", kind_of(header), "cmd", header.cmd, "size",
                      message.size, "fragments", message.fragments, "fragments_seen", message.seen);
        record.add("outcome", kOutcomeNames[message.outcome]);
        const std::string reason = reason_text(message.reason);
        reason.empty() ? record.add("reason", nullptr) : record.add("reason", reason);
        record.add("tries", message.tries, "reqid", header.reqid, "flags", header.flags, "process",
                   message.process);
        const std::string lines = describe(record, message.payload);
        out_.say(record, "", fit(line_of(message, time), out_.width()) + lines);
    }

    std::string describe(Record &record, std::string_view payload) const {
        if (payload.empty()) return {};
        const bool text = is_text(payload);
        record.add(text ? "text" : "hex", text ? std::string(payload) : hex_of(payload));
        if (args_.has("hexdump") || !text) return "\n" + hex_dump(payload, payload.size(), "  ");
        return "\n  " + one_line(payload);
    }

    void report_missed() {
        const double now_s = now_seconds();
        const uint64_t missed = sockets_.missed();
        if (capture_) out_.progress(counted(seen_, "datagram") + ", " + grouped(missed) + " missed");
        if (capture_ || missed == reported_ || now_s < reported_s_ + kReportMissed_s) return;
        out_.say(Record("type", "missed", "copies", missed - reported_),
                 "-- {copies,} missed: they came faster than they were read");
        reported_ = missed;
        reported_s_ = now_s;
    }

    void finish_capture() {
        for (unsigned i = 0; i < packets_.size(); ++i)
            capture_->add_statistics(i, packets_[i], sockets_.listeners()[i].missed);
        capture_->flush();
    }

    Console &out_;
    const Args &args_;
    const std::set<std::string> kinds_, outcomes_;
    const std::vector<std::string> codes_; // of commands
    std::vector<tav_addr_st> addresses_;
    MonitorSockets sockets_;
    std::optional<CaptureFile> capture_;
    Messages messages_;
    std::vector<uint64_t> packets_; // in the file, by directory
    uint64_t seen_ = 0, reported_ = 0;
    double reported_s_ = 0;
};

struct Target {
    SocketDirectory directory;
    SocketFile file;
};
// The endpoint's socket, and the process that has it open.
Target find_module(const tav_addr_st &address) {
    const std::string name = address_text(address), plain = name.substr(0, name.find('@'));
    const int location = address.loc != 0 ? address.loc : tav_get_location();
    for (const SocketDirectory &directory : scan_everything({}).directories)
        for (const SocketFile &file : directory.sockets) {
            if (!directory.own || directory.location != location || file.name != plain) continue;
            if (file.state != SocketState::kLive && file.state != SocketState::kForbidden) break;
            if (file.process == 0 || (geteuid() != 0 && file.owner != geteuid()))
                throw Problem("only root and user " + user_name(file.owner) + " may set the level of " + name,
                              "run tavctl as that user, or as root");
            return {directory, file};
        }
    throw silence(address);
}

} // namespace

int monitor(Console &out, const Args &args) { return Monitor(out, args).run(); }

int log_level(Console &out, const Args &args) {
    const long level = number_of(args.text("LEVEL"));
    if (level < 0 || level > 4) throw misuse("\"" + args.text("LEVEL") + "\" is not a log level: 0 to 4");
    const tav_addr_st address = parse_address(args.text("NAME"));
    const Target target = find_module(address);
    MonitorSockets sockets;
    sockets.open(target.directory);
    const double end = now_seconds() + args.seconds("timeout");
    std::optional<Copy> hello;
    while (!hello || !sockets.command_was_read(*hello)) {
        if (interrupted()) throw Problem("interrupted: it is not known whether the level was set");
        if (now_seconds() > end) throw silence(address);
        for (const Copy &copy : sockets.take())
            if (!hello && copy.process == target.file.process &&
                sockets.command(copy, TAV_IPC_MONITOR_LOG_LEVEL, static_cast<uint32_t>(level)))
                hello = copy;
    }
    out.say(Record("name", address_text(address), "process", target.file.process, "level", level),
            "{name}: log level {level} in process {process}");
    return kSuccess;
}

} // namespace tavctl
