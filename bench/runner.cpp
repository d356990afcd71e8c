// tavbench - the library beside other ways to pass messages between processes, on the same works.
//
// Every measurement runs in processes of its own, pinned to cores, from an installation whose list allows
// this program. The systems take turns within each round, so that what else the machine does hits all of
// them.
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>

#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "installation.h"
#include "report.h"

namespace fs = std::filesystem;

namespace bench {
namespace {

constexpr char kProgram[] = "tavbench";
constexpr int kPatience_s = 4; // without anything arriving

struct Options {
    unsigned rounds = 5;
    std::vector<std::string> works, systems; // beginnings of names; none: all
    std::string json, svg;
};

struct Place {
    fs::path program;
    fs::path dir;
    int memory;
    Shared *shared;
};

Shared *map(int memory) {
    void *at = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    check(at != MAP_FAILED, "mmap");
    return static_cast<Shared *>(at);
}

void pin(bool first) {
    cpu_set_t allowed, chosen;
    CPU_ZERO(&chosen);
    check(sched_getaffinity(0, sizeof allowed, &allowed) == 0, "sched_getaffinity");
    int cpu = 0;
    while (!CPU_ISSET(cpu, &allowed)) ++cpu;
    if (!first && CPU_COUNT(&allowed) > 1) do
            ++cpu;
        while (!CPU_ISSET(cpu, &allowed));
    CPU_SET(cpu, &chosen);
    check(sched_setaffinity(0, sizeof chosen, &chosen) == 0, "sched_setaffinity");
}

// One of a measurement's processes. Ends with the object.
class Child {
  public:
    explicit Child(std::vector<std::string> words) {
        std::vector<char *> arguments;
        for (std::string &word : words) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        errno = posix_spawnp(&pid_, arguments[0], nullptr, nullptr, arguments.data(), environ);
        check(errno == 0, arguments[0]);
        fd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        check(fd_ >= 0, "pidfd_open");
    }
    ~Child() { end(); }
    Child(const Child &) = delete;

    bool ended(int timeout_ms) const {
        pollfd end{fd_, POLLIN, 0};
        return poll(&end, 1, timeout_ms) > 0;
    }
    bool well() const { return status_ == 0; } // after its end
    Shared::Usage end() {
        rusage usage{};
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            wait4(pid_, &status_, 0, &usage);
            close(fd_);
            pid_ = -1;
        }
        return usage_of(usage);
    }

  private:
    pid_t pid_ = -1;
    int fd_ = -1;
    int status_ = -1;
};

std::vector<std::string> child_words(const Place &place, const Work &work, const System &system, int client) {
    return {place.program,
            "--child",
            std::to_string(place.memory),
            std::to_string(&work - works().data()),
            std::to_string(&system - systems().data()),
            std::to_string(client),
            place.dir / "run"};
}

// argv: --child MEMORY WORK SYSTEM CLIENT DIR; client -1 is the server.
void be_child(char **argv) {
    Shared *shared = map(std::atoi(argv[2]));
    const Work &work = works()[std::strtoul(argv[3], nullptr, 10)];
    const System &system = systems()[std::strtoul(argv[4], nullptr, 10)];
    const int client = std::atoi(argv[5]);
    const bool server = client < 0;
    pin(!server || work.with.one_core);
    const Ends ends{argv[6],
                    server,
                    client,
                    work.with.clients,
                    work.kind == Kind::kFile ? kChunk : work.size,
                    work.kind == Kind::kFile};
    (server ? be_server : be_client)(system, work, ends, *shared);
}

double value_of(const Work &work, int64_t elapsed_ns) {
    const auto ns = static_cast<double>(elapsed_ns);
    const auto total = static_cast<double>(work.total());
    switch (work.unit) {
    case Unit::kMicrosecondsEach:
        return ns / total / 1e3;
    case Unit::kMillisecondsEach:
        return ns / total / 1e6;
    case Unit::kThousandsPerSecond:
        return total / ns * 1e6;
    case Unit::kMilliseconds:
        return ns / 1e6;
    case Unit::kSeconds:
        return ns / 1e9;
    }
    return NAN;
}

// Waits for the process that sees the end of the work, as long as something arrives.
bool await_end(const Child &child, const Work &work, const Shared &shared) {
    uint64_t before = 0;
    for (int idle_s = 0; !child.ended(1000); ++idle_s) {
        if (const uint64_t now = shared.arrived; now != before) before = now, idle_s = 0;
        if (idle_s >= (work.kind == Kind::kFile ? 60 : kPatience_s)) return false;
    }
    return true;
}

Run run_copy(const Place &place, const Work &work) {
    const int64_t begin = now_ns();
    Child copy({"cp", place.dir / "source", place.dir / "copy"});
    while (!copy.ended(-1)) continue;
    const int64_t elapsed = now_ns() - begin;
    fs::remove(place.dir / "copy");
    return {value_of(work, elapsed)};
}

Run run_once(const Place &place, const Work &work, const System &system) {
    if (!system.make) return run_copy(place, work);
    fs::create_directory(place.dir / "run");
    Shared &shared = *new (place.shared) Shared{};
    Child server(child_words(place, work, system, -1));
    while (!shared.server_up && !server.ended(1)) continue;
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < work.with.clients; ++i)
        clients.push_back(std::make_unique<Child>(child_words(place, work, system, i)));

    Child &last = work.server_sees_end() ? server : *clients[0];
    const bool complete = await_end(last, work, shared);
    Run run;
    for (size_t i = 0; i < clients.size(); ++i) {
        const Shared::Usage used = clients[i]->end(), before = shared.before[i];
        run.cpu_us += static_cast<double>(used.cpu_us - before.cpu_us) / static_cast<double>(work.total());
        run.waits += static_cast<double>(used.waits - before.waits) / static_cast<double>(work.total());
    }
    server.end();
    fs::remove_all(place.dir / "run");
    if (complete && last.well() && shared.end_ns > 0) {
        run.value = value_of(work, shared.end_ns - shared.begin_ns);
        return run;
    }
    std::fprintf(stderr, "%s on %s did not come to its end\n", system.name, work.name);
    run.value = NAN;
    run.lost = static_cast<double>(work.total() - std::min(work.total(), shared.arrived.load()));
    return run;
}

bool chosen(const std::vector<std::string> &beginnings, const std::string &name) {
    for (const std::string &beginning : beginnings)
        if (name.starts_with(beginning)) return true;
    return beginnings.empty();
}

std::vector<WorkResults> plan(const Options &options) {
    std::vector<WorkResults> all;
    for (const Work &work : works()) {
        if (!chosen(options.works, work.name)) continue;
        WorkResults results{&work, {}};
        const std::string list = std::string(" ") + work.systems + " ";
        for (const System &system : systems())
            if (list.find(std::string(" ") + system.name + " ") != list.npos &&
                chosen(options.systems, system.name))
                results.series.push_back({&system, {}});
        if (!results.series.empty()) all.push_back(std::move(results));
    }
    return all;
}

void make_source(const fs::path &path, size_t size) {
    std::string block(1 << 20, '\0');
    uint64_t state = 1;
    for (char &byte : block) byte = static_cast<char>((state = state * 6364136223846793005u + 1) >> 56);
    std::ofstream file(path, std::ios::binary);
    for (size_t done = 0; done < size; done += block.size()) file.write(block.data(), 1 << 20);
    check(static_cast<bool>(file.flush()), "source of the file work");
}

void run_all(const Options &options) {
    std::vector<WorkResults> all = plan(options);
    if (all.empty()) throw std::runtime_error("no such work");
    std::string dir = "/tmp/tavbench-XXXXXX";
    check(mkdtemp(dir.data()) != nullptr, "mkdtemp");
    const tavipc::stage::Installation installation({dir, 2, false}); // removes the directory too
    installation.allow({kProgram});
    Place place{fs::path(dir) / "bin" / kProgram, dir, memfd_create("shared", 0), nullptr};
    fs::copy_file("/proc/self/exe", place.program);
    check(ftruncate(place.memory, sizeof(Shared)) == 0, "memfd");
    place.shared = map(place.memory);

    std::printf("%s\n", machine().c_str());
    for (const WorkResults &results : all)
        if (results.work->kind == Kind::kFile) make_source(place.dir / "source", results.work->size);
    for (unsigned round = 1; round <= options.rounds; ++round) {
        if (isatty(STDERR_FILENO)) std::fprintf(stderr, "round %u of %u\n", round, options.rounds);
        for (WorkResults &results : all)
            for (Series &series : results.series)
                series.runs.push_back(run_once(place, *results.work, *series.system));
    }
    for (const WorkResults &results : all) print_table(results);
    if (!options.json.empty()) write_json(options.json, all, options.rounds);
    if (!options.svg.empty()) write_svg(options.svg, all);
}

int usage() {
    std::fputs("usage: tavbench [--rounds N] [--work NAME]... [--system NAME]... [--json FILE] [--svg FILE]\n"
               "A NAME also stands for all that begin with it.\n",
               stderr);
    return 2;
}

} // namespace
} // namespace bench

int main(int argc, char **argv) try {
    if (argc == 7 && std::strcmp(argv[1], "--child") == 0) {
        bench::be_child(argv);
        return EXIT_FAILURE;
    }
    bench::Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (i + 1 == argc) return bench::usage();
        const std::string value = argv[i + 1];
        if (name == "--rounds" && std::atoi(value.c_str()) > 0)
            options.rounds = static_cast<unsigned>(std::atoi(value.c_str()));
        else if (name == "--work")
            options.works.push_back(value);
        else if (name == "--system")
            options.systems.push_back(value);
        else if (name == "--json")
            options.json = value;
        else if (name == "--svg")
            options.svg = value;
        else
            return bench::usage();
    }
    bench::run_all(options);
    return EXIT_SUCCESS;
} catch (const std::exception &error) {
    std::fprintf(stderr, "tavbench: %s\n", error.what());
    return EXIT_FAILURE;
}
