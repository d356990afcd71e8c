// What the processes of a measurement do.
#include "measure/job.h"

#include <cstdlib>
#include <ctime>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace bench {

using enum Kind;

namespace {

std::string payload(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7);
    return bytes;
}

void count(Shared &shared) {
    shared.arrived.store(shared.arrived.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

[[noreturn]] void end_job(Shared &shared) {
    shared.end_ns = now_ns();
    std::_Exit(0);
}

void work_on(const Job &job, const Shared &shared) {
    if (job.with.stall_ms && shared.arrived == 0) usleep(job.with.stall_ms * 1000);
    if (job.with.busy_us)
        for (const int64_t until = now_ns() + job.with.busy_us * 1000; now_ns() < until;) continue;
}

void check_file(const std::string &path, size_t size) {
    struct stat info {};
    check(stat(path.c_str(), &info) == 0 && static_cast<size_t>(info.st_size) == size, path.c_str());
    unlink(path.c_str());
}

void serve(Link &link, const Job &job, const Ends &ends, Shared &shared) {
    static const std::string reply = payload(job.with.reply);
    switch (job.kind) {
    case kRoundTrip:
        link.on_message = [&](const char *data, size_t size) {
            check(size == job.size, "size of a message");
            reply.empty() ? link.send(data, size) : link.send(reply.data(), reply.size());
        };
        break;
    case kOneWay:
        link.on_message = [&](const char *, size_t size) {
            check(size == job.size, "size of a message");
            work_on(job, shared);
            count(shared);
            if (shared.arrived == job.total()) end_job(shared);
        };
        break;
    case kRequests:
        link.answer_requests();
        break;
    case kFile:
        link.on_file = [&](const std::string &path) { check_file(path, job.size); };
        link.receive_file(ends.dir + "/received", job.size);
        break;
    }
}

void make_trips(Link &link, const std::string &message, unsigned trips, Shared &shared) {
    unsigned left = trips;
    const bool in_handler =
        message.size() <= kChunk; // a large one might have to be kept, at the cost of a copy
    link.on_message = [&](const char *, size_t) {
        count(shared);
        --left > 0 && in_handler ? link.send(message.data(), message.size()) : link.stop();
    };
    do {
        link.send(message.data(), message.size());
        link.run();
    } while (left > 0);
}

void make_requests(Link &link, const Job &job, const std::string &message, Shared &shared) {
    unsigned begun = 0, done = 0;
    link.on_reply = [&] {
        count(shared);
        if (++done == job.count) end_job(shared);
        if (begun < job.count) ++begun, link.request(message.data(), message.size());
    };
    while (begun < job.with.window) ++begun, link.request(message.data(), message.size());
    link.run();
}

void begin_job(const Ends &ends, Shared &shared) {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    shared.before[ends.client] = usage_of(usage);
    int64_t nobody = 0;
    shared.begin_ns.compare_exchange_strong(nobody, now_ns());
}

} // namespace

Shared::Usage usage_of(const rusage &usage) {
    const auto us = [](const timeval &time) { return int64_t{time.tv_sec} * 1'000'000 + time.tv_usec; };
    return {us(usage.ru_utime) + us(usage.ru_stime), usage.ru_nvcsw};
}

int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void be_server(const System &system, const Job &job, const Ends &ends, Shared &shared) {
    const std::unique_ptr<Link> link = system.make(ends);
    int greetings = 0;
    link->on_message = [&](const char *, size_t) {
        if (++greetings == ends.clients) link->stop();
    };
    shared.server_up = true;
    link->run();
    serve(*link, job, ends, shared);
    shared.ready = true;
    link->run();
    std::_Exit(1);
}

void be_client(const System &system, const Job &job, const Ends &ends, const char *source, Shared &shared) {
    const std::unique_ptr<Link> link = system.make(ends);
    const std::string message = payload(job.kind == kFile ? 0 : job.size);
    link->on_message = [](const char *, size_t) {};
    link->send("h", 1);
    while (!shared.ready) link->turn(1);
    if (job.kind == kRoundTrip && job.count > 100) make_trips(*link, message, job.count / 10, shared);

    begin_job(ends, shared);
    switch (job.kind) {
    case kRoundTrip:
        make_trips(*link, message, job.count, shared);
        break;
    case kRequests:
        make_requests(*link, job, message, shared);
        break;
    case kOneWay:
        for (unsigned i = 0; i < job.count; ++i) link->send(message.data(), message.size());
        link->run(); // until the runner ends it
        break;
    case kFile:
        link->on_reply = [&] { end_job(shared); };
        link->send_file(source);
        link->run();
    }
    end_job(shared);
}

} // namespace bench
