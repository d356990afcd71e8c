// The event loop of a command, the library's log, and what the library has no call for.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/facts.h"
#include "module/module.h"
#include "tavbase.h"

namespace tavctl {
namespace {

constexpr size_t kKeptLines = 256; // the newest; a command reports a few of them at most
constexpr int64_t kSlice_ms = 100; // a signal does not end a turn of the loop

volatile std::sig_atomic_t interrupts = 0;
void on_interrupt(int signal) {
    interrupts = interrupts + 1;
    if (interrupts > 1) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
}

struct Log {
    std::vector<std::string> lines;
    bool verbose = false;
    void (*watch)(const std::string &line) = nullptr;
};
Log &kept_log() {
    static Log log;
    return log;
}

void keep_line(int level, const char *source, int, const char *text, void *) {
    Log &log = kept_log();
    std::string line(text);
    while (line.ends_with('\n')) line.pop_back();
    if (log.verbose) std::cerr << "[" << level << " " << source << "] " << harmless(line) << std::endl;
    if (log.watch) log.watch(line);
    if (level > 2) return;
    if (log.lines.size() == kKeptLines) log.lines.erase(log.lines.begin());
    log.lines.push_back(line);
}

bool may_end = false;
void explain_end() {
    if (!may_end) return;
    const auto &lines = kept_log().lines;
    std::cerr << "tavctl: the library ended the process while it determined the agent id"
              << (lines.empty() ? "" : ": " + lines.back()) << "\n  what to do: tavctl doctor" << std::endl;
}
void on_abort(int) {
    explain_end();
    _exit(kFailure);
}

// An attempt to send ends after 1 s; the library repeats it after another second, and logs that it will.
constexpr double kAttempt_s = 1.2, kAttemptAndPause_s = 2.5;

uint64_t retries = 0;
std::string dropped; // the first line that reports it

void read_line(const std::string &line) {
    retries += line.find("retry later") != line.npos;
    if (dropped.empty() && line.find("drop it|") != line.npos) dropped = line;
}

} // namespace

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}
bool interrupted() { return interrupts > 0; }

Wait run_until(const std::function<bool()> &done, std::optional<Milliseconds> limit) {
    const double end = limit ? now_seconds() + std::chrono::duration<double>(*limit).count() : 0;
    for (;;) {
        if (done()) return Wait::kDone;
        if (!std::cout) return Wait::kInterrupted; // the reader has gone: output would be lost
        if (interrupted()) return Wait::kInterrupted;
        int64_t slice_ms = kSlice_ms;
        if (limit) {
            const double left = end - now_seconds();
            if (left <= 0) return Wait::kTimeout;
            slice_ms = std::min(slice_ms, static_cast<int64_t>(left * 1000) + 1);
        }
        if (cl_event_loop_run_once(static_cast<int>(slice_ms)) <= 0)
            return done() ? Wait::kDone : Wait::kNothingLeft;
    }
}

void pause(double seconds) {
    if (seconds > 0) run_until([] { return false; }, Milliseconds(static_cast<int64_t>(seconds * 1000)));
}

double now_seconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void keep_log(bool verbose) {
    kept_log().verbose = verbose;
    const char *level = std::getenv("TAV_LOG_LEVEL");
    if (!verbose)
        error_output_set_level(2);
    else if (!level || !*level)
        error_output_set_level(4);
    error_output_set_sink(keep_line, nullptr);
}

std::vector<std::string> take_log() { return std::exchange(kept_log().lines, {}); }

void watch_log(void (*watch)(const std::string &line)) {
    kept_log().watch = watch;
    error_output_set_level(4);
}

MayEndProcess::MayEndProcess() : before_(std::signal(SIGABRT, on_abort)) {
    static const int registered = std::atexit(explain_end);
    static_cast<void>(registered);
    may_end = true;
}
MayEndProcess::~MayEndProcess() {
    may_end = false;
    std::signal(SIGABRT, before_);
}

void watch_departures() { watch_log(read_line); }

// The library writes a line when it repeats an attempt and when it drops a message. Once it has been silent
// for longer than an attempt and the pause before the next, all messages have left.
void wait_for_departures(const tav_addr_st &destination) {
    const uint64_t retries_before = retries;
    uint64_t seen = retries;
    double since = now_seconds();
    const Wait ended = run_until([&] {
        if (retries != seen) since = now_seconds();
        seen = retries;
        const double silent_s = seen == retries_before ? kAttempt_s : kAttemptAndPause_s;
        return !dropped.empty() || now_seconds() - since > silent_s;
    });
    if (ended == Wait::kInterrupted) throw Problem("interrupted before the message had left");
    if (!dropped.empty()) throw Problem("dropped: " + dropped, silence(destination).remedy());
}

// A new descriptor is the lowest free one: a trial tells which one the library gets.
FilePosition::FilePosition(int file, const std::function<void()> &begin)
    : library_fd_(UniqueFd(dup(file)).get()) {
    struct stat info {};
    fstat(file, &info);
    device_ = info.st_dev;
    inode_ = info.st_ino;
    begin();
}

std::optional<uint64_t> FilePosition::get() const {
    struct stat now {};
    if (fstat(library_fd_, &now) != 0 || now.st_dev != device_ || now.st_ino != inode_) return {};
    const off_t at = lseek(library_fd_, 0, SEEK_CUR);
    if (at < 0) return {};
    return static_cast<uint64_t>(at);
}

// A file that is being received is open for writing; one that is complete is at most open for reading.
unsigned drop_unfinished_files() {
    const std::string_view pattern = tavipc::kReceivedFile, prefix = pattern.substr(0, pattern.find('X'));
    unsigned count = 0;
    for (const fs::path &fd : files_in("/proc/self/fd")) {
        std::error_code closed;
        const std::string target = fs::read_symlink(fd, closed);
        const fs::perms mode = fs::symlink_status(fd, closed).permissions();
        const bool writes = !closed && (mode & fs::perms::owner_write) != fs::perms::none;
        if (writes && target.starts_with(prefix) && unlink(target.c_str()) == 0) ++count;
    }
    return count;
}

} // namespace tavctl
