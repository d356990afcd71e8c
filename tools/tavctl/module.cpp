#include "module.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <iostream>

#include <sys/socket.h>
#include <unistd.h>

#include "allowlist.h"
#include "sockets.h"
#include "tavaux.h"
#include "tavbase.h"
#include "tavipc/tav_agentid.h"

namespace tavctl {
namespace {

constexpr size_t kKeptLines = 256;

struct Log {
    std::deque<std::string> lines;
    bool verbose = false;
    uint64_t retries = 0;
};
Log &log_lines() {
    static Log log;
    return log;
}

void keep_line(int level, const char *source, int, const char *text, void *) {
    Log &log = log_lines();
    std::string line(text);
    while (line.ends_with('\n')) line.pop_back();
    if (log.verbose) std::cerr << "[" << level << " " << source << "] " << harmless(line) << std::endl;
    log.retries += line.find("retry later") != std::string::npos;
    if (level > 2) return;
    log.lines.push_back(line);
    if (log.lines.size() > kKeptLines) log.lines.pop_front();
}

bool may_end = false;
void tell_last_line() {
    if (!may_end) return;
    const auto &lines = log_lines().lines;
    std::cerr << "tavctl: the library ended the process while it determined the agent id"
              << (lines.empty() ? "" : ": " + lines.back()) << "\n  what to do: tavctl doctor" << std::endl;
}
void on_abort(int) {
    tell_last_line();
    _exit(kFailure);
}

// What the library would do next is to make an id and store it: not without being told.
void need_identity() {
    if (IsCNAPPAgent()) return;
    char directory[1024] = "";
    GetTAVConfPath(directory, sizeof directory);
    if (ReadAgentid((std::string(directory) + "/machineid").c_str()) == 0)
        throw Problem("there is no agent id in " + std::string(directory) + "/machineid yet",
                      "start a module of the agent, or make one: tavctl id --create");
}

std::string own_name() {
    // 36^8 > the largest process id in its 22 bits
    std::string name = "ctl";
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof digits, getpid(), 36).ptr;
    return name + std::string(digits, end);
}

Problem refusal(const std::string &name) {
    if (const Verdict verdict = judge_executable("/proc/self/exe"); !verdict.allowed)
        return Problem("tavctl may not open an endpoint: " + verdict.reason, verdict.remedy, kNotAllowed);
    const std::string path = socket_directory(tav_get_location()) + "/" + name;
    if (probe_socket(path) == SocketState::kLive)
        return Problem("the endpoint name " + name + " is in use: " + path,
                       "give another name (tavctl list shows those taken)");
    const auto lines = take_log();
    return Problem("cannot open the endpoint " + name + " at " + path +
                       (lines.empty() ? "" : ": " + lines.back()),
                   "tavctl doctor examines the directory and the identity");
}

volatile std::sig_atomic_t interrupts = 0;
void on_interrupt(int signal) {
    interrupts = interrupts + 1;
    if (interrupts > 1) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
}

} // namespace

tav_addr_st parse_address(const std::string &text, uint8_t flags) {
    const size_t at = text.find('@');
    const std::string name = text.substr(0, at);
    tav_addr_st address{};
    if (name.empty() || name.size() > TAV_IPC_NAME_MAX || name.find('/') != std::string::npos ||
        name == "." || name == "..")
        throw misuse("\"" + text + "\" is no endpoint: a name has 1 to 9 characters and no \"/\"",
                     "tavctl list shows the endpoints that there are");
    std::memcpy(address.name, name.data(), name.size());
    if (at != std::string::npos) {
        const char *first = text.data() + at + 1, *last = text.data() + text.size();
        const auto [end, error] = std::from_chars(first, last, address.loc);
        if (error != std::errc() || end != last)
            throw misuse("\"" + text + "\": a location is a number from 0 to 255");
    }
    address.flags = flags;
    return address;
}

std::string address_text(const tav_addr_st &address) {
    const std::string name(address.name, strnlen(address.name, sizeof address.name));
    return harmless(name) + (address.loc != 0 ? "@" + std::to_string(address.loc) : "");
}

void keep_log(bool verbose) {
    log_lines().verbose = verbose;
    const char *level = std::getenv("TAV_LOG_LEVEL");
    if (!verbose)
        error_output_set_level(2);
    else if (!level || !*level)
        error_output_set_level(4);
    error_output_set_sink(keep_line, nullptr);
}

std::vector<std::string> take_log() {
    auto &lines = log_lines().lines;
    std::vector<std::string> taken(lines.begin(), lines.end());
    lines.clear();
    return taken;
}

void watch_retries() { error_output_set_level(4); }
uint64_t retries_logged() { return log_lines().retries; }

MayEndProcess::MayEndProcess() : before_(std::signal(SIGABRT, on_abort)) {
    static const int registered = std::atexit(tell_last_line);
    static_cast<void>(registered);
    may_end = true;
}
MayEndProcess::~MayEndProcess() {
    may_end = false;
    std::signal(SIGABRT, before_);
}

Module::Module(Kind kind, const std::string &name) {
    const std::string used = name.empty() ? own_name() : name;
    parse_address(used); // refuses what is no name
    if (used.find('@') != std::string::npos)
        throw misuse("\"" + used + "\": the tool's own endpoint has no location");
    if (c_get_process() != 0) throw refusal(used);
    need_identity();
    take_log();
    const MayEndProcess explained;
    ipc_ = tav_ipc_create_temp(used.c_str(), kind == kReceivingFiles);
    if (!ipc_) throw refusal(used);
}

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}
bool interrupted() { return interrupts > 0; }

Wait run_until(const std::function<bool()> &done, std::optional<Milliseconds> limit) {
    constexpr int64_t kSlice_ms = 100; // a signal does not end a turn of the loop
    const double end = limit ? now_seconds() + std::chrono::duration<double>(*limit).count() : 0;
    for (;;) {
        if (done()) return Wait::kDone;
        if (!std::cout) return Wait::kInterrupted; // nobody reads: what came would be lost
        if (interrupted()) return Wait::kInterrupted;
        int64_t slice = kSlice_ms;
        if (limit) {
            const double left = end - now_seconds();
            if (left <= 0) return Wait::kTimeout;
            slice = std::min(slice, static_cast<int64_t>(left * 1000) + 1);
        }
        if (cl_event_loop_run_once(static_cast<int>(slice)) <= 0)
            return done() ? Wait::kDone : Wait::kNothingLeft;
    }
}

void pause(double seconds) {
    if (seconds > 0) run_until([] { return false; }, Milliseconds(static_cast<int64_t>(seconds * 1000)));
}

Problem silence(const tav_addr_st &address) {
    const std::string name(address.name, strnlen(address.name, sizeof address.name));
    const int location = address.loc != 0 ? address.loc : tav_get_location();
    const std::string who = address_text(address);
    if (location != tav_get_location())
        return Problem("no answer from " + who,
                       "messages for another location go through its proxy endpoint: does it run? "
                       "tavctl list",
                       kNoAnswer);
    const std::string path = socket_directory(location) + "/" + name;
    switch (probe_socket(path)) {
    case SocketState::kMissing:
        return Problem("no answer from " + who + ": there is no socket " + path,
                       "start the module, or see which endpoints there are: tavctl list", kNoAnswer);
    case SocketState::kStale:
        return Problem("no answer from " + who + ": the socket " + path + " is stale, its process is gone",
                       "start the module again; tavctl list --clean removes the file", kNoAnswer);
    case SocketState::kForbidden:
        return Problem("no answer from " + who + ": " + path + " may not be written by this user",
                       "run tavctl as the user of the module, or as root", kNoAnswer);
    case SocketState::kNoSocket:
        return Problem("no answer from " + who + ": " + path + " is no socket",
                       "see whose it is, and move it away", kNoAnswer);
    case SocketState::kLive:
        break;
    }
    return Problem("no answer from " + who + ", although its socket is open",
                   "its process is busy or stopped, or its application does not answer: tavctl probe " +
                       name + " asks the library in it; tavctl list shows its process",
                   kNoAnswer);
}

Problem failed_exchange(const tav_addr_st &address, int code) {
    if (code == IPC_ERR_TIMEOUT) return silence(address);
    const auto lines = take_log();
    return Problem(address_text(address) + ": " + tav_ipc_strerror(code) + " (" + std::to_string(code) + ")",
                   lines.empty() ? "tavctl --verbose shows the library's log" : lines.back());
}

std::string socket_directory(int location) {
    const char *type = GetDeployTypeStr();
    return std::string("/var/") + (type ? std::string(type) + "/" : "") + "zon_ipc" +
           std::to_string(location);
}

double now_seconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

} // namespace tavctl
