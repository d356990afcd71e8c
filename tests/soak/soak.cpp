// soak [MINUTES] - ten modules under random traffic and faults, with an account of every message. Traffic
// runs in rounds. In each, one module is killed and started repeatedly, one stopped, and one closes and opens
// its endpoint. A round ends when all run again and nothing is outstanding. Whatever the timing was, nothing
// is delivered twice or changed, nothing that was refused is delivered, and
// - a message is delivered, or a log line says that it was dropped, or its sender or receiver was killed or
//   closed (modules are stopped for less than the ten seconds after which fragments expire);
// - an exchange or file completes once, unless its sender was killed: with the right answer, or refused (a
//   file also because another sender drew its id), or with a log line of a drop between its modules, or
//   because one of them was disturbed.
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>

#include "../support/stats_reader.h"
#include "entry.h"
#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::to_string;

namespace {

constexpr size_t kModules = 10, kSurvivors = 3; // the first ones are never killed: their memory is compared
constexpr int kUnanswered = 40;                 // commands that a module may have before it
constexpr std::chrono::milliseconds kRound = 8s, kFaultPeriod = 300ms, kQuiet = 3s, kLongestDrain = 90s;
constexpr std::chrono::milliseconds kSparesKept = 12s; // a receiver keeps buffers for ten seconds
constexpr long kGrowth_kib = 32 * 1024, kGrowth_descriptors = kModules; // heap; a socket for each destination
constexpr uint32_t kOurIds = 0x80000000; // message ids that modules give; the library's count from 1

const std::string kIdTaken = "refused, -106, another sender drew its id";

struct Module {
    std::string name;
    std::unique_ptr<Process> process;
    bool stopped = false;
    int unanswered = 0;
    uint32_t file = 0; // the entry of the file that it sends
    long resident_kib = 0, descriptors = 0;
};

class Soak {
  public:
    explicit Soak(unsigned seed) : random_(seed) {
        std::vector<std::string> names;
        for (Module &module : modules_) names.push_back(module.name = "m" + to_string(index(module)));
        place_.allow(names);
        for (Module &module : modules_) start(module);
    }
    ~Soak() {
        std::ranges::for_each(temporaries_, [](auto &path) { fs::remove(path); });
    }

    bool run(double minutes) {
        const auto end = Clock::now() + std::chrono::duration<double>(minutes * 60);
        do {
            play_round();
            std::printf("round %zu: %zu entries\n", faults_.size(), entries_.size() - 1);
            if (faults_.size() == 1) measure(true);
        } while (Clock::now() < end);
        measure(false);
        for (Module &module : modules_) {
            if (module.process->finish() != 0) fail(module.name + " did not end well");
            take_events(module);
        }
        std::for_each(entries_.begin() + 1, entries_.end(),
                      [this](const Entry &entry) { account_for(entry); });
        if (verdicts_["file: " + kIdTaken] > 1 + verdicts_["file: succeeded"] / 100)
            fail("files are refused for their ids too often");
        for (const auto &[what, count] : verdicts_) std::printf("%8d  %s\n", count, what.c_str());
        return failures_ == 0;
    }

  private:
    void start(Module &module) {
        place_.put(module.name, TAVIPC_ALTERED_MODULE);
        module.process.reset(new Process(place_.start(module.name, {"TAV_LOG_LEVEL=2"})));
        module.process->ask("accept " + module.name, "opened ");
        module.unanswered = 0, module.file = 0;
    }
    void disturb(Module &module, Fault fault) {
        if ((module.stopped = fault == kStopped)) return module.process->signal(SIGSTOP);
        if (fault == kClosed) {
            module.process->say("close");
            module.process->ask("accept " + module.name, "opened ");
        } else {
            module.process->kill();
            take_events(module);
            module.process.reset();
        }
    }
    void go_on(Module &module) {
        if (!module.process) start(module);
        if (std::exchange(module.stopped, false)) module.process->signal(SIGCONT);
    }
    void play_round() {
        std::array<size_t, kModules> order{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
        do std::shuffle(order.begin(), order.end(), random_);
        while (order[kKilled] < kSurvivors);
        auto &faults = faults_.emplace_back();
        for (const Fault fault : {kKilled, kStopped, kClosed}) faults[order[fault]] = fault;
        const auto end = Clock::now() + kRound;
        for (auto next = Clock::now(); Clock::now() < end; read_events(2ms)) {
            command();
            if (Clock::now() < next) continue;
            next += kFaultPeriod;
            const auto fault = static_cast<Fault>(kKilled + draw(3));
            Module &module = modules_[order[fault]];
            !module.process || module.stopped ? go_on(module) : disturb(module, fault);
        }
        for (Module &module : modules_) go_on(module);
        drain();
        for (const Module &module : modules_)
            for (const auto &record : StatsFile(place_.sockets(), module.process->pid()).records)
                if (++verdicts_["records of counters"], imbalance(record.values) != 0)
                    fail(module.name + ": the counters of " + record.name + " do not balance");
    }
    // Waits until every exchange and file has completed and nothing more arrives.
    void drain() {
        const auto is_outstanding = [this](const Entry &entry) {
            return !entry.completed && fault_of(entry, entry.from) != kKilled;
        };
        for (auto quiet = Clock::now(), limit = quiet + kLongestDrain; Clock::now() < limit;) {
            if (read_events(500ms)) quiet = Clock::now();
            if (Clock::now() < quiet + kQuiet) continue;
            if (std::none_of(entries_.begin() + 1, entries_.end(), is_outstanding)) return;
        }
    }

    unsigned draw(unsigned below) { return std::uniform_int_distribution<unsigned>(0, below - 1)(random_); }
    void command() {
        const size_t from = draw(kModules), to = draw(kModules);
        const unsigned what = draw(100);
        Module &module = modules_[from];
        if (!module.process || module.stopped || module.unanswered >= kUnanswered) return;
        Entry entry{kMessage, from, to, faults_.size() - 1, 20 + draw(64u << std::min(draw(17), draw(17)))};
        const std::string dest = ' ' + modules_[to].name + ' ', id = ' ' + to_string(entries_.size()) + ' ';
        std::string line, count = "1";
        if (what >= 98) {
            if (module.file) return;
            entry.kind = kFile;
            entry.size = draw(40) * 65'536 + static_cast<uint32_t>(files_.size() + 1); // unique
            module.file = files_[entry.size] = static_cast<uint32_t>(entries_.size());
            const std::string path = place_.config() / (module.name + ".file");
            std::string bytes(entry.size, '\0');
            std::generate(bytes.begin(), bytes.end(), std::ref(random_));
            std::ofstream(path, std::ios::binary) << bytes;
            line = "file" + dest + path + " 10";
        } else if (what >= 75) {
            entry.kind = what < 87 ? kRequest : what < 96 ? kConfirm : kProbe;
            entry.size = 5 + draw(draw(4) == 0 ? 50'000 : 500);
            line = "exchange " + kKindNames[entry.kind] + dest + id + to_string(entry.size) + " 10";
        } else {
            if (entry.size < 2000 && draw(10) == 0) count = to_string(1 + draw(20));
            line = "post" + dest + (draw(3) == 0 ? "app " : "bytes ") + to_string(entry.size) + ' ' + count +
                   id + to_string(draw(10)) + (draw(2) ? " 0x8" : " 0"); // 0x8: may be compressed
        }
        entries_.insert(entries_.end(), std::stoul(count), entry);
        module.unanswered += std::stoi(count);
        module.process->say(line);
    }

    bool read_events(std::chrono::milliseconds limit) {
        const bool came = Process::read_all(limit);
        for (Module &module : modules_)
            if (module.process) take_events(module);
        return came;
    }
    void take_events(Module &module) {
        for (const auto &event : module.process->take()) note(module, words(event), event);
    }
    void note(Module &module, const std::vector<std::string> &w, const std::string &event) {
        const auto is = [&](const char *name) { return w.at(0) == name; };
        const auto number = [&](size_t i) { return static_cast<uint32_t>(std::stoul(w.at(i))); };
        if (is("posted") || is("exchanged") || is("file")) {
            Entry &entry = entries_.at(is("file") ? std::exchange(module.file, 0) : number(1));
            entry.code = std::stoi(w.at(is("file") ? 1 : 2));
            if (is("exchanged")) entry.answer = w.at(3);
            ++entry.completed;
        }
        if (is("posted") || is("exchanging") || is("sending")) {
            entries_.at(is("sending") ? module.file : number(1)).compare(w.back());
            --module.unanswered;
        } else if (is("msg") || is("asked")) {
            note_delivery(module, w.at(1), number(2), w.back());
        } else if (is("got")) {
            const auto file = files_.find(number(1));
            const Fault fault = faults_.back()[index(module)]; // a new receiver gets the rest of a file
            if (file != files_.end())
                note_delivery(module, modules_[entries_[file->second].from].name, file->second, w.back());
            else if (fault != kKilled && fault != kClosed)
                fail(module.name + " wrote: " + event);
        } else if (is("temporary")) {
            temporaries_.push_back(w.at(1));
        } else if (is("log")) {
            note_log(module, event);
        } else if (!is("exchanged") && !is("file") && !is("closed") && !is("removed")) {
            fail(module.name + " wrote: " + event);
        }
    }
    void note_delivery(Module &module, const std::string &from, uint32_t id, const std::string &digest) {
        if (id == 0 || id >= entries_.size()) return fail(module.name + " got a message that nobody sent");
        Entry &entry = entries_[id];
        ++entry.delivered;
        entry.compare(digest);
        entry.changed |= entry.to != index(module) || from != modules_[entry.from].name;
    }
    // "... drop it|...|src=[4242:m1:2]|dest=[0:m2:0]|reqid=7|frag_seq=0|frag_id=0|size=100|frag_orig=0"
    void note_log(const Module &module, const std::string &event) {
        const size_t dest = event.find("|dest=[");
        ++verdicts_[event.substr(0, event.find_first_of(":,[%|", 6))];
        if (event.find("drop it|") == std::string::npos || dest == std::string::npos) return;
        const auto reqid = static_cast<uint32_t>(std::stoul(event.substr(event.find("|reqid=") + 7)));
        const auto to = static_cast<size_t>(event.at(event.find(":m", dest) + 2) - '0');
        if (reqid >= kOurIds)
            entries_.at(reqid - kOurIds).dropped = true;
        else
            ++drops_[{faults_.size() - 1, index(module), to}];
    }

    size_t index(const Module &module) const { return static_cast<size_t>(&module - modules_.data()); }
    Fault fault_of(const Entry &entry, size_t side) const { return faults_[entry.round][side]; }
    void fail(const std::string &what) {
        if (++failures_ <= 20) std::printf("FAILURE: %s\n", what.c_str());
    }
    void account_for(const Entry &entry) {
        std::string excuse;
        for (const size_t side : {entry.from, entry.to}) {
            const Fault fault = fault_of(entry, side);
            if (fault && !(fault == kStopped && entry.kind == kMessage))
                excuse += (side == entry.from ? ", sender" : ", receiver") + kFaultNames[fault];
        }
        const std::string verdict = judge(entry, excuse), kind = kKindNames[entry.kind];
        ++verdicts_[kind + ": " + verdict];
        if (!verdict.starts_with("FAILURE")) return;
        fail(kind + ' ' + to_string(&entry - entries_.data()) + " of " + to_string(entry.size) + " bytes, m" +
             to_string(entry.from) + " to m" + to_string(entry.to) + ", round " + to_string(entry.round + 1) +
             excuse + ", code " + to_string(entry.code) + ", arrived " + to_string(entry.delivered) +
             " times: " + verdict);
    }
    // Fragments seed the generator with the clock, so two senders can draw the same file id in a second. The
    // receiver then refuses the later file.
    bool has_rival(const Entry &file) const {
        return std::any_of(entries_.begin() + 1, entries_.end(), [&file](const Entry &other) {
            return other.kind == kFile && other.round == file.round && other.to == file.to &&
                   other.from != file.from;
        });
    }
    std::string judge(const Entry &entry, const std::string &excuse) {
        const bool message = entry.kind == kMessage, success = entry.code >= 0;
        const bool killed = fault_of(entry, entry.from) == kKilled;
        const std::string code = to_string(entry.code);
        if (entry.delivered > 1) return "FAILURE: delivered twice";
        if (entry.changed) return "FAILURE: changed or misdirected";
        if (entry.completed == 0 && killed) return "did not complete" + excuse;
        if (entry.completed != 1) return "FAILURE: completed " + to_string(entry.completed) + " times";
        if (message && entry.delivered && (!success || entry.dropped)) return "FAILURE: must not arrive";
        if (message && entry.dropped) return "dropped, with a log line";
        // The ids of a killed module's requests count from 1 again: an answer to its predecessor may be late.
        if (entry.kind == kRequest && success && entry.answer != entry.digest && !killed)
            return "FAILURE: wrong answer";
        if (success && (entry.delivered || entry.kind == kProbe)) return "succeeded";
        if (entry.code == -101 || (message && !success)) return "refused, " + code;
        if (entry.code == -106 && has_rival(entry)) return kIdTaken;
        if (!excuse.empty()) return (success ? "not delivered" : code) + excuse;
        for (const auto &[from, to] : {std::pair{entry.from, entry.to}, {entry.to, entry.from}})
            if (!success && drops_[{entry.round, from, to}]-- > 0) return code + ", with a log line";
        return success ? "FAILURE: lost" : "FAILURE: " + code;
    }
    void measure(bool first) {
        for (const auto rested = Clock::now() + kSparesKept; Clock::now() < rested;) read_events(500ms);
        for (size_t i = 0; i < kSurvivors; ++i) {
            Module &module = modules_[i];
            const fs::path proc = "/proc/" + to_string(module.process->pid());
            long pages = 0;
            std::ifstream(proc / "statm") >> pages >> pages; // the second number: resident
            const long kib = pages * 4, descriptors = std::distance(fs::directory_iterator(proc / "fd"), {});
            if (first) module.resident_kib = kib, module.descriptors = descriptors;
            std::printf("%s: %ld KiB resident, %ld descriptors\n", module.name.c_str(), kib, descriptors);
            if (kib > module.resident_kib + kGrowth_kib ||
                descriptors > module.descriptors + kGrowth_descriptors)
                fail(module.name + " holds more than after the first round");
        }
    }

    std::mt19937 random_;
    Installation place_{{}};
    std::array<Module, kModules> modules_;
    std::vector<Entry> entries_{1};                   // by id; 0 is none
    std::vector<std::array<Fault, kModules>> faults_; // of each round
    std::map<std::array<size_t, 3>, int> drops_;      // of exchanges: round, sender, receiver
    std::map<uint32_t, uint32_t> files_;              // size to id
    std::map<std::string, int> verdicts_;             // and kinds of log lines
    std::vector<std::string> temporaries_;
    int failures_ = 0;
};

} // namespace

int main(int argc, char **argv) {
    const char *given = std::getenv("TAVIPC_SOAK_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::stoul(given)) : 1;
    const double minutes = argc > 1 ? std::stod(argv[1]) : 5;
    setlinebuf(stdout);
    std::printf("seed %u, %g minutes\n", seed, minutes);
    if (Soak(seed).run(minutes)) return std::puts("everything is accounted for") < 0;
    return std::puts("NOT everything is accounted for"), EXIT_FAILURE;
}
