// The event loop of a command, the library's log, and what the library has no call for.
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "common/facts.h"
#include "module/module.h"
#include "tavbase.h"

namespace tavctl {
namespace {

constexpr double kSlice_ms = 100; // a signal does not end a turn of the loop

volatile std::sig_atomic_t interrupts = 0;
void on_interrupt(int signal) {
    interrupts = interrupts + 1;
    if (interrupts > 1) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
}

struct Log {
    std::string newest; // line of level 2 or less
    bool verbose = false;
    uint64_t retries = 0; // attempts to send that the library will repeat
    std::string dropped;  // the first line that reports a dropped message
};
Log kept;

void keep_line(int level, const char *source, int, const char *text, void *) {
    std::string line(text);
    while (line.ends_with('\n')) line.pop_back();
    if (kept.verbose) std::cerr << "[" << level << " " << source << "] " << harmless(line) << std::endl;
    kept.retries += line.find("retry later") != line.npos;
    if (kept.dropped.empty() && line.find("drop it|") != line.npos) kept.dropped = line;
    if (level <= 2) kept.newest = line;
}

bool may_end = false;
void explain_end() {
    if (!may_end) return;
    std::cerr << "tavctl: the library ended the process while it determined the agent id" << take_reason()
              << "\n  what to do: tavctl doctor" << std::endl;
}
void on_abort(int) {
    explain_end();
    _exit(kFailure);
}

// An attempt to send ends after 1 s; the library repeats it after another second, and logs that it will.
constexpr double kAttempt_s = 1.2, kAttemptAndPause_s = 2.5;

} // namespace

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}
bool interrupted() { return interrupts > 0; }

Wait run_until(const std::function<bool()> &done, double limit_s) {
    const double end = now_seconds() + limit_s;
    for (;;) {
        if (done()) return Wait::kDone;
        if (!std::cout || interrupted()) return Wait::kInterrupted; // without a reader output would be lost
        const double left_ms = (end - now_seconds()) * 1000;
        if (left_ms <= 0) return Wait::kTimeout;
        if (cl_event_loop_run_once(static_cast<int>(std::min(kSlice_ms, left_ms + 1))) <= 0)
            return done() ? Wait::kDone : Wait::kNothingLeft;
    }
}

void pause(double seconds) {
    if (seconds > 0) run_until([] { return false; }, seconds);
}

double now_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void keep_log(bool verbose) {
    kept.verbose = verbose;
    const char *level = std::getenv("TAV_LOG_LEVEL");
    if (!verbose)
        error_output_set_level(2);
    else if (!level || !*level)
        error_output_set_level(4);
    error_output_set_sink(keep_line, nullptr);
}

std::string take_reason() {
    const std::string line = std::exchange(kept.newest, {});
    return line.empty() ? line : ": " + line;
}

void may_end_process(const std::function<void()> &call) {
    static const int registered = std::atexit(explain_end);
    static_cast<void>(registered);
    const auto before = std::signal(SIGABRT, on_abort);
    may_end = true;
    call();
    may_end = false;
    std::signal(SIGABRT, before);
}

void watch_departures() { error_output_set_level(4); }

// The library writes a line when it repeats an attempt and when it drops a message. Once it has been silent
// for longer than an attempt and the pause before the next, all messages have left.
void wait_for_departures(const tav_addr_st &destination) {
    const uint64_t retries_before = kept.retries;
    uint64_t seen = kept.retries;
    double since = now_seconds();
    const Wait ended = run_until([&] {
        if (kept.retries != seen) since = now_seconds();
        seen = kept.retries;
        const double silent_s = seen == retries_before ? kAttempt_s : kAttemptAndPause_s;
        return !kept.dropped.empty() || now_seconds() - since > silent_s;
    });
    if (ended == Wait::kInterrupted) throw Problem("interrupted before the message had left");
    if (!kept.dropped.empty()) throw Problem("dropped: " + kept.dropped, silence(destination).remedy());
}

} // namespace tavctl
