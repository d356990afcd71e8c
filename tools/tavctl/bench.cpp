// tavctl bench: what the library does on this machine, beside plain sockets that do the same.
//
// Both take turns, so that what else the machine does hits both; each figure is the median of the runs.
#include <thread>

#include <sys/statvfs.h>
#include <unistd.h>

#include "bench_ends.h"
#include "commands.h"
#include "tavaux.h"

namespace tavctl {
namespace {

using namespace benching;

constexpr unsigned kRuns = 5, kFileRuns = 3; // of each of the two
constexpr size_t kFileSize = 256'000'000;
constexpr size_t kTitleWidth = 26, kValueWidth = 14;

struct Work {
    const char *name, *title;
    Kind kind;
    size_t size;
    bool time() const { return kind == Kind::kTrips || kind == Kind::kLarge; } // less is better
    const char *unit() const { return time() ? "s" : kind == Kind::kFile ? "B/s" : "1/s"; }
    std::string text(double value) const {
        if (time()) return time_text(value);
        return kind == Kind::kFile ? bytes_text(value) + "/s" : grouped(static_cast<uint64_t>(value)) + "/s";
    }
};

constexpr Work kWorks[] = {
    {"trip-160", "round trip, 160 B", Kind::kTrips, 160},
    {"way-160", "one way, 160 B", Kind::kOneWay, 160},
    {"way-64000", "one way, 64,000 B", Kind::kOneWay, 64'000},
    {"large", "a message of 65,471,999 B", Kind::kLarge, TAV_IPC_MESSAGE_MAX},
    {"request-64", "requests, 64 outstanding", Kind::kRequests, 160},
    {"file", "a file of 256 MB", Kind::kFile, kFileSize},
};

// A file in TMPDIR and its copy in /tmp; an empty descriptor and the reason when there is no room.
Descriptor make_source(std::string &reason) {
    struct statvfs space {};
    if (statvfs("/tmp", &space) == 0 &&
        static_cast<double>(space.f_bavail) * static_cast<double>(space.f_frsize) < 2.5 * kFileSize) {
        reason = "/tmp has less than 640 MB free";
        return Descriptor();
    }
    Descriptor file = scratch_file(true);
    std::string block(1u << 20, '\0');
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 2654435761u >> 13);
    for (size_t size = 0; size < kFileSize;) {
        const ssize_t put = write(file.get(), block.data(), std::min(block.size(), kFileSize - size));
        if (put <= 0) throw system_problem("cannot fill a file of 256 MB", "name another directory: TMPDIR");
        size += static_cast<size_t>(put);
    }
    return file;
}

void say_machine(Console &out) {
    const unsigned cpus = std::max(1u, std::thread::hardware_concurrency());
    const int queue = std::atoi(read_file("/proc/sys/net/unix/max_dgram_qlen", 64).c_str());
    Record record;
    record.add("type", "machine").add("cpus", cpus).add("max_dgram_qlen", queue);
    std::string text = std::to_string(cpus) + (cpus == 1 ? " CPU" : " CPUs") +
                       ", net.unix.max_dgram_qlen = " + std::to_string(queue);
    if (queue <= 10) {
        record.add("remedy", "sysctl -w net.unix.max_dgram_qlen=512");
        text += "\n  what to do: only so many datagrams wait for a receiver; more let senders run\n"
                "  ahead: sysctl -w net.unix.max_dgram_qlen=512, for endpoints opened after it";
    }
    out.say(record, text);
    out.tell("\n" + padded("", kTitleWidth) + padded("tavipc", kValueWidth) +
             padded("plain socket", kValueWidth) + "speed");
}

void say_work(Console &out, const Work &work, double tavipc, double raw) {
    const double speed = work.time() ? raw / tavipc : tavipc / raw;
    char ratio[32];
    snprintf(ratio, sizeof ratio, "%.2f", speed);
    Record record;
    record.add("type", "bench").add("work", work.name).add("unit", work.unit());
    record.add("tavipc", tavipc).add("raw", raw).add("speed", speed);
    out.say(record, padded(work.title, kTitleWidth) + padded(work.text(tavipc), kValueWidth) +
                        padded(work.text(raw), kValueWidth) + ratio);
}

} // namespace

int bench(Console &out, const BenchOptions &options) {
    catch_interrupts();
    Peer peer; // first: a process with an event loop must not be split
    TavipcRunner runner;
    const Module module(Module::kReceiving);
    RawEnd raw(socket_directory(tav_get_location()), peer.channel());
    peer.meet(raw);
    say_machine(out);
    for (const Work &work : kWorks) {
        const bool file = work.kind == Kind::kFile;
        std::string reason;
        const Descriptor source = file ? make_source(reason) : Descriptor();
        if (file && !source) {
            out.say(Record().add("type", "skipped").add("work", work.name).add("reason", reason),
                    padded(work.title, kTitleWidth) + "not measured: " + reason);
            continue;
        }
        const unsigned runs = !file ? kRuns : options.seconds < 1 ? 1 : kFileRuns;
        const auto measure = [&](bool over_sockets) {
            const Run run{work.kind, over_sockets, work.size, options.seconds / (2 * runs)};
            return over_sockets ? run_raw(raw, peer.channel(), run, source.get())
                                : runner.run(module, peer, run, source.get());
        };
        std::vector<double> tavipc, plain;
        for (unsigned i = 0; i < runs; ++i) {
            out.progress(padded(work.title, kTitleWidth) + std::to_string(i + 1) + " of " +
                         std::to_string(runs));
            plain.push_back(measure(true));
            tavipc.push_back(measure(false));
        }
        say_work(out, work, median(tavipc), median(plain));
    }
    out.tell("\nspeed: 1.00 is as fast as plain datagram sockets, less is slower");
    return kSuccess;
}

} // namespace tavctl
