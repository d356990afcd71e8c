// soak [MINUTES] - ten modules under random traffic while some of them are killed, stopped, closed and
// started again; ledger.h says what accounts for a message. Exit status 1 when something is not accounted
// for. TAVIPC_SOAK_SEED=N draws the same traffic and faults again (the machine's timing it cannot repeat).
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include <unistd.h>

#include "installation.h"
#include "ledger.h"

using namespace tavipc::stage;
using namespace tavipc::soak;
namespace fs = std::filesystem;

namespace {

constexpr size_t kSteady = 3;           // the first three are never killed: their memory is compared
constexpr size_t kUnanswered = 40;      // commands that a module may have before it
constexpr double kTrafficEvery = 0.004; // seconds, for two commands
constexpr double kFaultEvery = 0.5;

struct Module {
    std::string name;
    std::unique_ptr<Process> process;
    int life = 0, kills = 0, stops = 0, closes = 0;
    size_t unanswered = 0;
    bool stopped = false;
    double due = 0;    // when it goes on or starts again
    uint32_t file = 0; // the entry of the file that it sends
    long rss_kb = 0;
    size_t descriptors = 0;
};

class Soak {
  public:
    Soak(unsigned seed, double seconds);
    ~Soak() {
        for (const auto &path : temporaries_) fs::remove(path);
    }
    bool run();

  private:
    unsigned draw(unsigned below) { return std::uniform_int_distribution<unsigned>(0, below - 1)(random_); }
    uint32_t draw_size();
    void start(size_t index);
    void disturb();
    void go_on();
    void traffic();
    void exchange(Module &module, Entry entry);
    void send_file(Module &module, Entry entry);
    void pump(std::chrono::milliseconds wait);
    void note(size_t index, const std::string &event);
    void settle();
    void measure(bool first);
    void finish();

    std::mt19937 random_;
    const double seconds_, begun_ = now();
    Installation place_{{}};
    const fs::path root_ = place_.config().parent_path();
    Module modules_[kModules];
    Ledger ledger_;
    std::vector<std::string> temporaries_;
    bool good_ = true;
};

Soak::Soak(unsigned seed, double seconds) : random_(seed), seconds_(seconds) {
    std::vector<std::string> names;
    for (size_t i = 0; i < kModules; ++i) names.push_back("m" + std::to_string(i));
    place_.allow(names);
    fs::create_directories(root_ / "bin");
    for (size_t i = 0; i < kModules; ++i) {
        fs::copy_file(TAVIPC_ALTERED_MODULE, root_ / "bin" / names[i]);
        modules_[i].name = names[i];
        start(i);
    }
}

// --- traffic and faults

uint32_t Soak::draw_size() {
    const unsigned kind = draw(1000);
    if (kind < 700) return 5 + draw(1000);
    if (kind < 920) return 1000 + draw(kLargestDatagram - 1000 + 1);
    if (kind < 990) return kLargestDatagram + 1 + draw(400'000);
    return 500'000 + draw(3'500'000);
}

void Soak::start(size_t index) {
    Module &module = modules_[index];
    module.process =
        std::make_unique<Process>(root_ / "bin" / module.name, std::vector<std::string>{"TAV_LOG_LEVEL=2"});
    module.process->ask("accept " + module.name, "opened ");
    ++module.life;
    module.unanswered = 0;
    auto &gaps = ledger_.gaps[index];
    if (!gaps.empty()) gaps.back().end = std::min(gaps.back().end, now());
}

// Kills, stops or closes a module that runs; none of the steady ones is killed.
void Soak::disturb() {
    const size_t index = draw(kModules);
    const unsigned what = draw(10);
    Module &module = modules_[index];
    if (!module.process || module.stopped) return;
    const double begin = now();
    if (what < 4 && index >= kSteady) {
        module.process->kill();
        for (const auto &event : module.process->take()) note(index, event);
        module.process.reset();
        module.file = 0;
        ledger_.gaps[index].push_back({Gap::kKilled, begin, now()});
        module.due = now() + draw(3000) / 1000.0;
        ++module.kills;
    } else if (what < 8) {
        module.process->signal(SIGSTOP);
        module.stopped = true;
        ledger_.gaps[index].push_back({Gap::kStopped, begin});
        module.due = begin + (draw(20) == 0 ? 14 : 0.05 + draw(3000) / 1000.0);
        ++module.stops;
    } else if (module.unanswered < kUnanswered) {
        module.process->say("close");
        module.process->ask("accept " + module.name, "opened ");
        ledger_.gaps[index].push_back({Gap::kClosed, begin, now(), now()});
        ++module.closes;
    }
}

void Soak::go_on() {
    for (size_t i = 0; i < kModules; ++i) {
        Module &module = modules_[i];
        if (!module.process && module.due <= now()) start(i);
        if (!module.stopped || module.due > now()) continue;
        module.process->signal(SIGCONT);
        module.stopped = false;
        ledger_.gaps[i].back().gone = ledger_.gaps[i].back().end = now();
    }
}

void Soak::traffic() {
    const size_t from = draw(kModules);
    const unsigned what = draw(100);
    Entry entry;
    entry.from = static_cast<uint8_t>(from);
    entry.to = static_cast<uint8_t>(draw(kModules));
    Module &module = modules_[from];
    if (!module.process || module.stopped || module.unanswered >= kUnanswered) return;
    entry.life = module.life;
    entry.begun = entry.ended = now();
    if (what >= 98) return send_file(module, entry);
    if (what >= 75) return exchange(module, entry);
    const bool app = draw(3) == 0;
    entry.size = draw_size();
    if (app) entry.size = std::max(entry.size, 20u);
    const unsigned count = entry.size < 2000 && draw(10) == 0 ? 1 + draw(20) : 1;
    entry.compressed = app && draw(2) == 0;
    std::ostringstream command;
    command << "post " << modules_[entry.to].name << (app ? " app " : " bytes ") << entry.size << ' ' << count
            << ' ' << ledger_.entries.size() << ' ' << draw(10) << (entry.compressed ? " 0x8" : " 0");
    ledger_.entries.insert(ledger_.entries.end(), count, entry);
    module.unanswered += count;
    module.process->say(command.str());
}

void Soak::exchange(Module &module, Entry entry) {
    const unsigned what = draw(10);
    entry.kind = what < 5 ? kRequest : what < 9 ? kConfirm : kProbe;
    entry.size = 5 + draw(draw(4) == 0 ? 50'000 : 500);
    entry.patience = entry.kind == kProbe ? 5 : draw(2) ? 8 : 20;
    std::ostringstream command;
    command << "exchange " << kKindNames[entry.kind] << ' ' << modules_[entry.to].name << ' '
            << ledger_.entries.size() << ' ' << entry.size << ' ' << entry.patience;
    ledger_.entries.push_back(entry);
    ++module.unanswered;
    module.process->say(command.str());
}

// One at a time for each module. The size, unlike that of all others, tells which file it is.
void Soak::send_file(Module &module, Entry entry) {
    if (module.file) return;
    module.file = static_cast<uint32_t>(ledger_.entries.size());
    entry.kind = kFile;
    entry.size = draw(40) * 65'536 + static_cast<uint32_t>(ledger_.files.size() + 1);
    ledger_.files.emplace(entry.size, module.file);
    entry.patience = 1e6;
    const fs::path path = root_ / (module.name + ".file");
    std::string bytes(entry.size, '\0');
    std::mt19937 content(module.file);
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        const auto word = static_cast<uint32_t>(content());
        std::memcpy(&bytes[i], &word, 4);
    }
    std::ofstream(path, std::ios::binary) << bytes;
    ledger_.entries.push_back(entry);
    ++module.unanswered;
    module.process->say("file " + modules_[entry.to].name + ' ' + path.string() + " 8");
}

// --- what the modules say

void Soak::pump(std::chrono::milliseconds wait) {
    Process::read_all(wait);
    for (size_t i = 0; i < kModules; ++i)
        if (modules_[i].process)
            for (const auto &event : modules_[i].process->take()) note(i, event);
}

void Soak::note(size_t index, const std::string &event) {
    Module &module = modules_[index];
    const auto w = words(event);
    if (w.empty()) return;
    if (w[0] == "posted" || w[0] == "exchanging" || w[0] == "sending") --module.unanswered;
    if (w[0] == "sending") {
        ledger_.note_file_began(module.file, w.at(2));
    } else if (w[0] == "file") {
        ledger_.note_completion(ledger_.entries.at(module.file), std::stoi(w.at(1)), "");
        module.file = 0;
    } else if (w[0] == "got") {
        ledger_.note_file_got(index, static_cast<uint32_t>(std::stoul(w.at(1))), w.at(2));
    } else if (w[0] == "temporary") {
        temporaries_.push_back(w.at(1));
    } else {
        ledger_.note(index, event);
    }
}

// --- the end

void Soak::measure(bool first) {
    if (!first)
        std::puts(
            "memory and descriptors of the modules that were never killed, after a fifth and at the end:");
    for (size_t i = 0; i < kSteady; ++i) {
        Module &module = modules_[i];
        const fs::path proc = "/proc/" + std::to_string(module.process->pid());
        long pages = 0, resident = 0;
        std::ifstream(proc / "statm") >> pages >> resident;
        const long kb = resident * (sysconf(_SC_PAGESIZE) / 1024);
        const auto count =
            static_cast<size_t>(std::distance(fs::directory_iterator(proc / "fd"), fs::directory_iterator()));
        if (first) {
            module.rss_kb = kb;
            module.descriptors = count;
            continue;
        }
        std::printf("    %s: %ld to %ld KiB, %zu to %zu descriptors\n", module.name.c_str(), module.rss_kb,
                    kb, module.descriptors, count);
        good_ &= kb <= 2 * module.rss_kb + 32'768 && count <= module.descriptors + 16;
    }
}

// Lets all run and waits until nothing happens any more.
void Soak::settle() {
    for (Module &module : modules_) module.due = 0;
    go_on();
    for (double quiet = now(), end = now() + 90; now() < end && now() < quiet + 25;) {
        if (Process::read_all(1s)) quiet = now();
        pump(0ms);
    }
}

// Ends the modules in good order; one more start sweeps up behind those that were killed.
void Soak::finish() {
    for (size_t i = 0; i < kModules; ++i) {
        const int status = modules_[i].process->finish();
        for (const auto &event : modules_[i].process->take()) note(i, event);
        if (status == 0) continue;
        good_ = false;
        std::printf("FAULT: %s ended with %d\n", modules_[i].name.c_str(), status);
    }
    std::puts("modules: lives, killed, stopped, closed and opened again");
    for (const Module &module : modules_)
        std::printf("    %s: %d, %d, %d, %d\n", module.name.c_str(), module.life, module.kills, module.stops,
                    module.closes);
    start(0);
    good_ &= modules_[0].process->finish() == 0;
    const auto left = std::distance(fs::directory_iterator(place_.sockets()), fs::directory_iterator());
    std::printf("socket files left: %td, temporary files: %zu\n", left, temporaries_.size());
    good_ &= left == 0;
}

bool Soak::run() {
    double next_traffic = now(), next_fault = now(), next_measure = begun_ + seconds_ / 5;
    // Behind its time it goes on from now: what it could not do is not made up for.
    const auto due = [](double &next, double step) {
        if (now() < next) return false;
        next = std::max(next + step, now());
        return true;
    };
    while (now() < begun_ + seconds_) {
        go_on();
        if (due(next_traffic, kTrafficEvery)) traffic(), traffic();
        if (due(next_fault, kFaultEvery)) disturb();
        if (due(next_measure, 1e9)) measure(true);
        pump(2ms);
    }
    settle();
    measure(false);
    finish();
    good_ &= ledger_.report(begun_);
    return good_;
}

} // namespace

int main(int argc, char **argv) {
    const char *given = std::getenv("TAVIPC_SOAK_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
    const double minutes = argc > 1 ? std::stod(argv[1]) : 5;
    std::printf("seed %u, %g minutes\n", seed, minutes);
    std::fflush(stdout);
    try {
        const bool good = Soak(seed, minutes * 60).run();
        std::puts(good ? "everything is accounted for" : "NOT everything is accounted for");
        return good ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "soak: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
