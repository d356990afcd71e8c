// tavctl bench: measures the library on this machine, beside plain sockets that do the same. Both take turns,
// so that what else the machine does affects both; each figure is the median of the runs.
#include <algorithm>
#include <cmath>
#include <thread>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "agent/allowlist.h"
#include "cli/files.h"
#include "cli/text.h"
#include "commands.h"
#include "common/unique_fd.h"
#include "look/sockets.h"
#include "measure/measure.h"
#include "module/library_state.h"
#include "module/module.h"
#include "tavaux.h"

namespace tavctl {
namespace {

using ::bench::Job;
using ::bench::Kind;

constexpr size_t kFileSize = 256'000'000, kFileSpace = 640'000'000; // bytes: two copies, and some to spare

struct Work {
    const char *name, *title;
    Job job; // the count is that of a trial, which tells how many fill the time
    bool time() const { return job.kind == Kind::kRoundTrip; } // less is better
    bool file() const { return job.kind == Kind::kFile; }
    const char *unit() const { return time() ? "s" : file() ? "B/s" : "1/s"; }
    std::string text(double value) const {
        if (time()) return time_text(value);
        return file() ? bytes_text(value) + "/s" : grouped(static_cast<uint64_t>(value)) + "/s";
    }
};
constexpr Work kWorks[] = {
    {"trip-160", "round trip, 160 B", {Kind::kRoundTrip, 160, 200}},
    {"way-160", "one way, 160 B", {Kind::kOneWay, 160, 2000}},
    {"way-64000", "one way, 64,000 B", {Kind::kOneWay, 64'000, 200}},
    {"large", "a message of 65,471,999 B", {Kind::kRoundTrip, TAV_IPC_MESSAGE_MAX, 1, {.reply = 1}}},
    {"request-64", "requests, 64 outstanding", {Kind::kRequests, 160, 500, {.window = 64}}},
    {"file", "a file of 256 MB", {Kind::kFile, kFileSize, 1}},
};

// A file without a name, which goes with its descriptor.
tavipc::UniqueFd make_source() {
    tavipc::UniqueFd file(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    const std::string block(1u << 20, 'x');
    for (size_t size = 0; size < kFileSize;) {
        const ssize_t put = write(file.get(), block.data(), std::min(block.size(), kFileSize - size));
        if (put <= 0) throw system_problem("cannot make a file of 256 MB in /tmp");
        size += static_cast<size_t>(put);
    }
    return file;
}

// Processes that were killed leave the files of their sockets.
void remove_sockets(pid_t process, const std::string &name) {
    for (const SocketDirectory &directory : scan_known({}).directories)
        for (const SocketFile &file : directory.sockets)
            if (directory.own && (file.sender == process || file.name.starts_with(name)))
                if (file.state == SocketState::kStale) remove_stale(directory.path, file);
}

double measure(const ::bench::Place &place, const Work &work, const Job &job, const ::bench::System &system) {
    const double seconds = ::bench::measure(place, job, system).seconds;
    if (interrupted()) throw Problem("interrupted");
    if (std::isnan(seconds))
        throw Problem(std::string("the processes that measure ended early: ") + work.name);
    if (work.time()) return seconds / job.count;
    return (work.file() ? static_cast<double>(job.size) : job.count) / seconds;
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

void say_machine(Console &out) {
    const unsigned cpus = std::max(1u, std::thread::hardware_concurrency());
    const int queue = std::atoi(read_file("/proc/sys/net/unix/max_dgram_qlen", 64).c_str());
    Record record("type", "machine", "cpus", cpus, "max_dgram_qlen", queue);
    if (queue <= 10) record.add("remedy", "sysctl -w net.unix.max_dgram_qlen=512");
    out.say(record, "{cpus,CPU}, net.unix.max_dgram_qlen = {max_dgram_qlen}",
            queue <= 10
                ? "\n  what to do: only that many datagrams wait for a receiver; with more, senders run\n"
                  "  ahead: sysctl -w net.unix.max_dgram_qlen=512, for endpoints opened after it"
                : "");
    out.tell("\n" + padded("", 26) + padded("tavipc", 14) + padded("plain socket", 14) + "speed");
}

} // namespace

std::span<const ::bench::System> measured_systems() {
    static const ::bench::System systems[] = {{"tavipc", ::bench::make_tavipc},
                                              {"raw", ::bench::make_raw_pair}};
    return systems;
}

int bench(Console &out, const Args &args) {
    ::bench::Place place;
    place.name = unique_name();
    check_may_open(place.name + "s");
    catch_interrupts();
    place.program = own_executable();
    place.dir = "/tmp/tavctl-bench-" + std::to_string(getpid());
    place.gives_up = interrupted;
    place.before_end = drop_unfinished_files;
    place.after_end = [&](pid_t process) { remove_sockets(process, place.name); };
    say_machine(out);
    const auto systems = measured_systems();
    const double seconds = args.seconds("seconds");
    for (const Work &work : kWorks) {
        struct statvfs space {};
        statvfs("/tmp", &space);
        if (work.file() && space.f_bavail * space.f_frsize < kFileSpace) {
            out.say(Record("type", "skipped", "work", work.name, "reason", "/tmp has less than 640 MB free"),
                    padded(work.title, 26) + "not measured: {reason}");
            continue;
        }
        const tavipc::UniqueFd source = work.file() ? make_source() : tavipc::UniqueFd();
        place.source = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(source.get());
        const int runs = seconds < 1 ? 1 : work.file() ? 3 : 5;
        Job job = work.job;
        if (!work.file()) {
            const double trial = measure(place, work, job, systems[0]);
            const double count = seconds / 2 / runs * (work.time() ? 1 / trial : trial);
            job.count = static_cast<unsigned>(std::max<double>(job.count, count));
        }
        std::vector<double> tavipc, raw;
        for (int i = 0; i < runs; ++i) {
            out.progress(padded(work.title, 26) + std::to_string(i + 1) + " of " + std::to_string(runs));
            raw.push_back(measure(place, work, job, systems[1]));
            tavipc.push_back(measure(place, work, job, systems[0]));
        }
        const double own = median(tavipc), other = median(raw),
                     speed = work.time() ? other / own : own / other;
        char ratio[32];
        snprintf(ratio, sizeof ratio, "%.2f", speed);
        Record record("type", "bench", "work", work.name, "unit", work.unit());
        out.say(record.add("tavipc", own, "raw", other, "speed", speed), "",
                padded(work.title, 26) + padded(work.text(own), 14) + padded(work.text(other), 14) + ratio);
    }
    out.tell("\nspeed: 1.00 is as fast as plain datagram sockets, less is slower");
    return kSuccess;
}

} // namespace tavctl
