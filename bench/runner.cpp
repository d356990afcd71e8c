// tavbench - the library beside other ways to pass messages between processes, on the same works.
//
// Every measurement runs in processes of its own, pinned to cores, from an installation whose list allows
// this program. The systems take turns within each round, so that what else the machine does hits all of
// them.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

#include "installation.h"
#include "report.h"

namespace fs = std::filesystem;

namespace bench {
namespace {

constexpr char kProgram[] = "tavbench";

struct Options {
    unsigned rounds = 5;
    std::vector<std::string> works, systems; // beginnings of names; none: all
    std::string json, svg;
};

double value_of(const Work &work, double seconds) {
    const double ns = seconds * 1e9;
    const auto total = static_cast<double>(work.job.total());
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

Result copy_file(const Work &work, const fs::path &source) {
    const fs::path target = source.string() + ".copy";
    const std::string command = "cp '" + source.string() + "' '" + target.string() + "'";
    const auto begin = std::chrono::steady_clock::now();
    check(std::system(command.c_str()) == 0, "cp");
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    fs::remove(target);
    return {value_of(work, elapsed.count())};
}

Result run_once(const Place &place, const Work &work, const System &system) {
    if (!system.make) return copy_file(work, place.source);
    const Run run = measure(place, work.job, system);
    if (std::isnan(run.seconds)) std::fprintf(stderr, "%s on %s did not finish\n", system.name, work.name);
    return {value_of(work, run.seconds), run};
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
    Place place;
    place.program = dir + "/bin/" + kProgram;
    place.dir = dir + "/run";
    place.name = "bench";
    place.source = dir + "/source";
    fs::copy_file("/proc/self/exe", place.program);

    std::printf("%s\n", machine().c_str());
    for (const WorkResults &results : all)
        if (results.work->job.kind == Kind::kFile) make_source(place.source, results.work->job.size);
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
    if (bench::is_child(argc, argv)) bench::be_child(argv, bench::systems());
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
