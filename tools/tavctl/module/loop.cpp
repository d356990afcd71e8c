// The event loop of a command, and the library's log.
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "module/module.h"
#include "tavbase.h"

namespace tavctl {
namespace {

constexpr double kSlice_ms = 100; // a signal does not end a turn of the loop

volatile std::sig_atomic_t interrupts = 0;
void (*before_death)() = nullptr;
void on_interrupt(int signal) {
    if (interrupts == 0) return void(interrupts = 1);
    if (before_death) before_death();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

struct Log {
    std::string newest; // line of level 2 or less
    bool verbose = false;
};
Log kept;

void keep_line(int level, const char *source, int, const char *text, void *) {
    std::string line(text);
    while (line.ends_with('\n')) line.pop_back();
    if (kept.verbose) std::cerr << "[" << level << " " << source << "] " << harmless(line) << std::endl;
    if (level <= 2) kept.newest = line;
}

} // namespace

void catch_interrupts(void (*last_act)()) {
    before_death = last_act;
    struct sigaction action = {}, before = {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, &before);
    if (before.sa_handler == SIG_IGN) std::signal(SIGHUP, SIG_IGN); // as nohup sets it
}
bool interrupted() { return interrupts > 0; }

bool run_until(const std::function<bool()> &done, double limit_s) {
    const double end = now_seconds() + limit_s;
    while (!done()) {
        const double left_ms = (end - now_seconds()) * 1000;
        if (!std::cout || interrupted() || left_ms <= 0)
            return false; // without a reader output would be lost
        if (cl_event_loop_run_once(static_cast<int>(std::min(kSlice_ms, left_ms + 1))) <= 0) return done();
    }
    return true;
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

} // namespace tavctl
