#include "measure/measure.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <utility>
#include <vector>

#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/unique_fd.h"
#include "measure/job.h"

namespace fs = std::filesystem;

namespace bench {
namespace {

constexpr char kChildWord[] = "--measure-child";
constexpr int kChildWords = 9;
constexpr int kPatience_s = 4; // without anything arriving
constexpr int kSlice_ms = 100;

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

// One of a measurement's processes. It ends with the object.
class Child {
  public:
    Child(const Place &place, std::vector<std::string> words) : place_(place) {
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
            place_.before_end(pid_);
            kill(pid_, SIGKILL);
            wait4(pid_, &status_, 0, &usage);
            close(fd_);
            place_.after_end(std::exchange(pid_, -1));
        }
        return usage_of(usage);
    }

  private:
    const Place &place_;
    pid_t pid_ = -1;
    int fd_ = -1;
    int status_ = -1;
};

// Waits for the process that sees the end of the job, as long as something arrives.
bool await_end(const Child &child, const Place &place, const Job &job, const Shared &shared) {
    const int patience_s = job.kind == Kind::kFile ? 60 : kPatience_s;
    uint64_t before = 0;
    for (int idle_ms = 0; !child.ended(kSlice_ms); idle_ms += kSlice_ms) {
        if (const uint64_t now = shared.arrived; now != before) before = now, idle_ms = 0;
        if (idle_ms >= patience_s * 1000 || place.gives_up()) return false;
    }
    return true;
}

// argv: PROGRAM --measure-child MEMORY SYSTEM CLIENT DIR NAME SOURCE PARENT; client -1 is the server.
std::vector<std::string> child_words(const Place &place, int memory, const System &system, int client) {
    return {
        place.program, kChildWord,   std::to_string(memory),  system.name, std::to_string(client), place.dir,
        place.name,    place.source, std::to_string(getpid())};
}

} // namespace

bool is_child(int argc, char **argv) { return argc == kChildWords && std::strcmp(argv[1], kChildWord) == 0; }

void be_child(char **argv, std::span<const System> systems) {
    std::signal(SIGINT, SIG_IGN); // of a terminal: the first process ends this one
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (std::to_string(getppid()) != argv[8]) std::_Exit(1);
    Shared &shared = *map(std::atoi(argv[2]));
    const Job &job = shared.job;
    const int client = std::atoi(argv[4]);
    const bool server = client < 0, file = job.kind == Kind::kFile;
    pin(!server || job.with.one_core);
    const Ends ends{argv[5], argv[6], server, client, job.with.clients, file ? kChunk : job.size, file};
    for (const System &system : systems) {
        if (std::strcmp(system.name, argv[3]) != 0) continue;
        if (server) be_server(system, job, ends, shared);
        be_client(system, job, ends, argv[7], shared);
    }
    std::_Exit(1);
}

Run measure(const Place &place, const Job &job, const System &system) {
    const tavipc::UniqueFd memory(memfd_create("measure", 0)); // inherited
    check(memory && ftruncate(memory.get(), sizeof(Shared)) == 0, "memfd_create");
    Shared &shared = *new (map(memory.get())) Shared{};
    shared.job = job;
    fs::create_directory(place.dir);
    Child server(place, child_words(place, memory.get(), system, -1));
    while (!shared.server_up && !server.ended(1)) continue;
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < job.with.clients; ++i)
        clients.push_back(std::make_unique<Child>(place, child_words(place, memory.get(), system, i)));

    Child &last = job.server_sees_end() ? server : *clients[0];
    const bool complete = await_end(last, place, job, shared);
    const auto total = static_cast<double>(job.total());
    Run run;
    for (size_t i = 0; i < clients.size(); ++i) {
        const Shared::Usage used = clients[i]->end(), before = shared.before[i];
        run.cpu_us += static_cast<double>(used.cpu_us - before.cpu_us) / total;
        run.waits += static_cast<double>(used.waits - before.waits) / total;
    }
    server.end();
    fs::remove_all(place.dir);
    run.seconds = static_cast<double>(shared.end_ns - shared.begin_ns) / 1e9;
    if (!complete || !last.well() || shared.end_ns == 0) {
        run.seconds = NAN;
        run.lost = total - static_cast<double>(std::min(job.total(), shared.arrived.load()));
    }
    munmap(&shared, sizeof shared);
    return run;
}

} // namespace bench
