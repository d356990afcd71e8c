// The works of tavctl bench over plain datagram sockets, by calls that wait: what the kernel itself takes.
#include <algorithm>
#include <memory>

#include <sys/socket.h>
#include <unistd.h>

#include "bench_ends.h"

namespace tavctl::benching {
namespace {

void send_parts(RawEnd &end, const std::vector<char> &message) {
    for (size_t at = 0; at < message.size(); at += kPart)
        end.send(&message[at], std::min(kPart, message.size() - at));
}

double make_trips(RawEnd &end, const Run &run) {
    const std::vector<char> message(run.size, 'x');
    std::vector<char> answer(kPart);
    std::vector<double> times;
    const double until = now_seconds() + run.seconds;
    for (double begin = now_seconds(); begin < until || times.empty();) {
        send_parts(end, message);
        end.receive(answer.data(), answer.size());
        const double now = now_seconds();
        times.push_back(now - begin);
        begin = now;
    }
    return median(std::move(times));
}

void send_one_way(RawEnd &end, const Run &run) {
    const std::vector<char> message(run.size, 'x');
    for (const double until = now_seconds() + run.seconds; now_seconds() < until;)
        end.send(message.data(), message.size());
}

// The receiver answers whatever it is sent, so waiting for an answer ends while one is outstanding.
double make_requests(RawEnd &end, const Run &run) {
    std::vector<char> request(run.size, 'x'), answer(kPart);
    const double begin = now_seconds(), until = begin + run.seconds;
    uint64_t done = 0;
    for (unsigned outstanding = 0; now_seconds() < until || outstanding > 0;) {
        while (outstanding < kWindow && now_seconds() < until &&
               end.send(request.data(), request.size(), outstanding > 0 ? MSG_DONTWAIT : 0))
            ++outstanding;
        if (outstanding == 0) continue;
        end.receive(answer.data(), answer.size());
        --outstanding;
        ++done;
    }
    return static_cast<double>(done) / (now_seconds() - begin);
}

double send_file(RawEnd &end, const Run &run, int source) {
    std::vector<char> part(kPart);
    const double begin = now_seconds();
    for (off_t at = 0;;) {
        const ssize_t got = pread(source, part.data(), part.size(), at);
        if (got < 0) throw system_problem("cannot read a temporary file");
        if (got == 0) break;
        end.send(part.data(), static_cast<size_t>(got));
        end.receive(part.data(), part.size());
        at += got;
    }
    return static_cast<double>(run.size) / (now_seconds() - begin);
}

// Puts the parts of large messages together, each in memory of its own.
void serve_large(RawEnd &end, size_t size) {
    for (;;) {
        const std::unique_ptr<char[]> message(new char[size]);
        for (size_t at = 0; at < size;) {
            const size_t got = end.receive(&message[at], size - at);
            if (got == kEndMark) return;
            at += got;
        }
        end.send(message.get(), kAnswer);
    }
}

} // namespace

double run_raw(RawEnd &end, Channel &channel, const Run &run, int source) {
    channel.put(run);
    double result = 0;
    switch (run.kind) {
    case Kind::kTrips:
    case Kind::kLarge:
        result = make_trips(end, run);
        break;
    case Kind::kOneWay:
        send_one_way(end, run);
        break;
    case Kind::kRequests:
        result = make_requests(end, run);
        break;
    case Kind::kFile:
        result = send_file(end, run, source);
        break;
    }
    end.send("", kEndMark);
    const auto told = channel.get<Told>();
    return run.kind == Kind::kOneWay ? static_cast<double>(told.count) / told.seconds : result;
}

Told serve_raw(RawEnd &end, const Run &run) {
    Told told;
    if (run.kind == Kind::kLarge) return serve_large(end, run.size), told;
    Descriptor file;
    if (run.kind == Kind::kFile) file = scratch_file(false);
    std::vector<char> buffer(kPart);
    double begin = 0;
    for (size_t got; (got = end.receive(buffer.data(), buffer.size())) != kEndMark;) {
        if (told.count++ == 0) begin = now_seconds();
        if (run.kind == Kind::kOneWay) continue;
        if (file && write(file.get(), buffer.data(), got) != static_cast<ssize_t>(got))
            throw system_problem("cannot write to /tmp", "make room there");
        end.send(buffer.data(), file ? kAnswer : got);
    }
    told.seconds = now_seconds() - begin;
    return told;
}

} // namespace tavctl::benching
