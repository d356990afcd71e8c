// tavctl doctor: examines what the modules of an agent need, and says how to fix each fault. It makes and
// changes nothing; the endpoints that it opens are closed again.
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/timex.h>

#include "agent/agent.h"
#include "commands.h"
#include "common/facts.h"
#include "look/sockets.h"
#include "module/module.h"

namespace tavctl {
namespace {

constexpr size_t kVerdictWidth = 9, kCheckWidth = 18, kIndent = kVerdictWidth + kCheckWidth; // characters

// The text in lines of at most width characters (0: one line), with an indent before each but the first.
std::string folded(const std::string &text, size_t width) {
    std::istringstream words(text);
    std::string lines;
    size_t column = kIndent;
    for (std::string word; words >> word; column += word.size()) {
        const bool full = width > kIndent && column + 1 + word.size() > width;
        if (!lines.empty()) lines += full ? "\n" + std::string(kIndent, ' ') : " ";
        column = lines.empty() || full ? kIndent : column + 1;
        lines += word;
    }
    return lines;
}

// Users paste a remedy, so its lines stay whole.
std::string remedy_lines(const std::string &remedy) {
    std::istringstream lines(remedy);
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        const std::string title = text.empty() ? padded("", kVerdictWidth) + "what to do:" : "";
        text += "\n" + padded(title, kIndent) + line;
    }
    return text;
}

Finding check_endpoint(const Findings &findings) {
    if (!findings.allowed || !findings.has_id || !findings.directory)
        return skip("not tried, because of the findings above");
    try {
        const Module module;
        const Answer probe =
            exchange(module, TAV_IPC_EXCHANGE_PROBE, *tav_ipc_get_local_addr(module), kProbeTimeout_s);
        const bool answered = probe.ended && probe.code == 0;
        const char *how =
            answered ? " opened, and answered itself in " : " opened, but did not answer itself in ";
        const std::string seen = module.text() + how + time_text(probe.took_s);
        return answered ? ok(seen) : fail(seen, "tavctl --verbose doctor");
    } catch (const Problem &problem) {
        return fail(problem.what(), problem.remedy());
    }
}

// --- what the machine gives to modules: queues, buffers, descriptors, space for files, the clock
constexpr long kFewDatagrams = 64;       // the kernel's default is 10, that of the Debian packages 512
constexpr rlim_t kFewDescriptors = 1024; // the usual limit; a process keeps half for received files
constexpr double kLittleSpace = 100e6, kNoSpace = 1e6; // bytes
constexpr time_t kKeptFile_s = 600; // a living receiver removes a file 6 minutes after its last data
constexpr time_t kEarliest_s = 1'577'836'800; // 2020: no clock that was ever set shows less

std::optional<long> setting(const char *path) {
    long value = 0;
    return std::ifstream(path) >> value ? std::optional(value) : std::nullopt; // some systems do not have it
}

// For now, and after the next start: in a file that comes after the packaged 60-tavipc.conf.
std::string sysctl_remedy(const std::string &assignment) {
    return as_root("sysctl -w " + assignment) + "\necho " + assignment + " | " +
           as_root("tee -a /etc/sysctl.d/61-tavipc-local.conf");
}

Finding check_queue() {
    const auto length = setting("/proc/sys/net/unix/max_dgram_qlen");
    if (!length) return skip("net.unix.max_dgram_qlen cannot be read");
    const std::string seen = "net.unix.max_dgram_qlen is " + std::to_string(*length);
    if (*length >= kFewDatagrams) return ok(seen);
    return warn(seen + ": further datagrams to a busy receiver wait in their senders, which takes time",
                sysctl_remedy("net.unix.max_dgram_qlen=512") +
                    "\n# then start the modules again: a socket keeps the value it was made with");
}

Finding check_buffers() {
    const UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int size = tavipc::kSendBuffer;
    if (setsockopt(probe.get(), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0)
        setsockopt(probe.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    socklen_t length = sizeof size;
    getsockopt(probe.get(), SOL_SOCKET, SO_SNDBUF, &size, &length);
    size /= 2; // the kernel reports twice what was asked for
    const auto most = setting("/proc/sys/net/core/wmem_max");
    const std::string limit =
        most ? ", net.core.wmem_max is " + grouped(static_cast<uint64_t>(*most)) : std::string();
    const std::string seen = "a socket of this user gets a send buffer of " + bytes_text(size);
    if (size >= tavipc::kSendBuffer) return ok(seen + limit);
    return warn(seen + " instead of " + bytes_text(tavipc::kSendBuffer) + limit,
                sysctl_remedy("net.core.wmem_max=" + std::to_string(tavipc::kSendBuffer)));
}

Finding check_descriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const std::string seen = (limit.rlim_cur == RLIM_INFINITY ? "any number of" : grouped(limit.rlim_cur)) +
                             " descriptors for a process started from here";
    if (limit.rlim_cur >= kFewDescriptors) return ok(seen);
    return warn(seen + "; files that are received may take half of them",
                "ulimit -n 4096    # of a service: LimitNOFILE=4096 in its unit");
}

Finding check_space() {
    struct statvfs disk {};
    if (access("/tmp", W_OK | X_OK) != 0 || statvfs("/tmp", &disk) != 0)
        return fail(std::string("this user cannot write to it: ") + std::strerror(errno),
                    as_root("chmod 1777 /tmp"));
    const double space = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize);
    const bool no_inode = disk.f_files > 0 && disk.f_favail == 0;
    const std::string seen = bytes_text(space) + " free for files that are received";
    const char *look = "du -xsh /tmp/* | sort -h | tail";
    if (space < kNoSpace || no_inode)
        return fail(seen + (no_inode ? ", but not for one more file" : ""), look);
    return space < kLittleSpace ? warn(seen, look) : ok(seen);
}

Finding check_received_files() {
    const std::string_view pattern = tavipc::kReceivedFile, prefix = pattern.substr(0, pattern.find('X'));
    uint64_t count = 0, bytes = 0;
    for (const std::string path : files_in("/tmp")) {
        struct stat file {};
        if (!path.starts_with(prefix) || path.size() != pattern.size() || lstat(path.c_str(), &file) != 0 ||
            !S_ISREG(file.st_mode) || time(nullptr) - file.st_mtime <= kKeptFile_s)
            continue;
        ++count;
        bytes += static_cast<uint64_t>(file.st_size);
    }
    if (count == 0) return ok("none left in /tmp by a process that was killed");
    return warn(grouped(count) + " left in /tmp by processes that are gone, " +
                    bytes_text(static_cast<double>(bytes)),
                as_root("find /tmp -maxdepth 1 -type f -name 'ipc_file.*' -mmin +10 -delete"));
}

Finding check_clock() {
    const std::string seen = Stamp().format("%Y-%m-%d %H:%M:%S %Z");
    if (time(nullptr) < kEarliest_s)
        return fail("it shows " + seen, as_root("timedatectl set-time 'YYYY-MM-DD HH:MM:SS'"));
    timex state{};
    if (adjtimex(&state) == TIME_ERROR || (state.status & STA_UNSYNC))
        return warn(seen + ", not kept by a time service; a step of the clock affects time-outs",
                    as_root("timedatectl set-ntp true"));
    return ok(seen + ", kept by a time service");
}

Finding check_trace_switch() {
    struct stat file {};
    if (lstat(tavipc::kTraceSwitch, &file) != 0) return ok("off");
    return warn(tavipc::kTraceSwitch + std::string(" is there: every module traces each message"),
                "tavctl trace off");
}

Finding check_environment() {
    const char *root = std::getenv("TAV_INSTALL_ROOT"), *test = std::getenv("IPC_TEST");
    if (test && test[0] == '1')
        return warn("IPC_TEST is 1: processes started from here mark all messages for the trace",
                    "unset IPC_TEST");
    if (!root) return ok("neither TAV_INSTALL_ROOT nor IPC_TEST changes anything");
    return warn(
        std::string("TAV_INSTALL_ROOT is ") + root +
            ": its config directory, if there is one, has identity and manager; allow-list and agent.ini "
            "are beside the executable",
        "unset TAV_INSTALL_ROOT");
}

// What tav-bridge says itself, if this agent has one: server, streams, how much waits for this location, and
// whether the running one is ready. Without an agent id it would make and store one.
Finding check_bridge(const Findings &findings) {
    const std::string program = fs::path(own_executable()).parent_path() / "tav-bridge";
    if (access((config_beside(own_executable()) + "/tav-bridge.ini").c_str(), F_OK) != 0 ||
        access(program.c_str(), X_OK) != 0)
        return skip("this agent has no bridge to other locations");
    if (!findings.has_id) return skip("not tried, because there is no agent id");
    FILE *output = popen((quoted(program) + " --check 2>&1").c_str(), "r");
    if (!output) return warn("tav-bridge --check cannot be started", "tav-bridge --check");
    std::string seen, failed;
    for (char line[512]; std::fgets(line, sizeof line, output);) {
        const std::string text = std::string(line).substr(0, std::strcspn(line, "\n"));
        if (failed.empty() && !text.starts_with("ok ")) failed = text;
        seen = text;
    }
    if (pclose(output) != 0) return fail("tav-bridge --check: " + failed, quoted(program) + " --check");
    const Finding good = ok(seen.substr(std::min<size_t>(5, seen.size())));
    if (!findings.allowed || !findings.directory) return good;
    try { // the running bridge has a connection of its own
        const Module module;
        const Answer answer =
            exchange(module, TAV_IPC_EXCHANGE_REQUEST, parse_address(tavipc::kBridgeEndpoint),
                     kProbeTimeout_s, tavipc::kBridgeCounters);
        if (!answer.ended || answer.code != 0)
            return warn("the engine is ready, but no bridge answers", as_root("systemctl start tav-bridge"));
        if (answer.payload.find("\nready 1\n") == std::string::npos)
            return fail("the engine is ready, but the running bridge is not",
                        as_root("journalctl -u tav-bridge"));
    } catch (const Problem &) { // see check_endpoint
    }
    return good;
}

constexpr std::pair<const char *, Finding (*)()> kMachineChecks[] = {
    {"datagram queue", check_queue},          {"send buffer", check_buffers},
    {"open files", check_descriptors},        {"/tmp", check_space},
    {"received files", check_received_files}, {"clock", check_clock},
    {"trace switch", check_trace_switch},     {"environment", check_environment}};

} // namespace

void Findings::add(const char *check, const Finding &finding) {
    constexpr std::array<const char *, Finding::kVerdicts> kNames = {"ok", "warn", "FAIL", "skipped"};
    const char *verdict = kNames[finding.verdict];
    const std::string seen = one_line(finding.seen), remedy = harmless(finding.remedy);
    ++counts_[finding.verdict];
    Record record("check", check, "verdict", verdict, "seen", seen);
    if (!remedy.empty()) record.add("remedy", remedy);
    out_.say(record, "",
             padded(verdict, kVerdictWidth) + padded(check, kCheckWidth) + folded(seen, out_.width()) +
                 remedy_lines(remedy));
}

bool Findings::summarize() const {
    const auto &[ok, warn, fail, skipped] = counts_;
    const Record record("check", "summary", "ok", ok, "warn", warn, "fail", fail, "skipped", skipped);
    std::string pattern = "\n" + counted(ok + warn + fail + skipped, "check") + ": {ok,} ok";
    if (warn) pattern += ", {warn,} to look at";
    if (fail) pattern += ", {fail,} FAILED";
    if (skipped) pattern += ", {skipped,} skipped";
    out_.say(record, pattern);
    return fail == 0;
}

std::string as_root(const std::string &command) { return (geteuid() == 0 ? "" : "sudo ") + command; }
std::string this_user() { return user_name(geteuid()); }
std::string config_directory() {
    const std::string found = configuration_directory();
    std::error_code error;
    const fs::path plain = fs::weakly_canonical(found, error);
    return error ? found : plain.string();
}

int doctor(Console &out, const Args &) {
    Findings findings(out);
    check_agent(findings);
    for (const auto &[name, check] : kMachineChecks) findings.add(name, check());
    findings.add("bridge", check_bridge(findings));
    findings.add("endpoint", check_endpoint(findings));
    return findings.summarize() ? kSuccess : kFailure;
}

} // namespace tavctl
