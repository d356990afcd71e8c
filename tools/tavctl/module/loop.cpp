// The event loop of a command, and the library's log.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include <unistd.h>

#include "cli/console.h"
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

} // namespace tavctl
