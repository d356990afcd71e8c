// Measures one job over one system: a server and its clients, each a process of its own.
//
// The processes meet in shared memory. A client greets the server, which is ready when all have; then the job
// begins. The process that sees the end of the job ends itself, and the caller's process ends the others, so
// nothing but the job goes over the link that is measured. Both tavbench and tavctl bench use this.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include <sys/types.h>

#include "measure/link.h"

namespace bench {

enum class Kind {
    kRoundTrip, // a message there and one back, count times
    kOneWay,    // count messages from each client, as fast as the system takes them
    kRequests,  // count requests, `window` of them outstanding
    kFile       // one file of size bytes
};

struct Job {
    Kind kind;
    size_t size; // bytes of a message or file
    unsigned count;
    struct Circumstances {
        bool one_core = false;
        size_t reply = 0; // bytes that come back in a round trip; 0: the same message
        unsigned window = 1;
        unsigned busy_us = 0;  // the server computes this long on each message
        unsigned stall_ms = 0; // and sleeps this long on the first
        int clients = 1;
    } with = {};

    uint64_t total() const { return uint64_t{count} * static_cast<unsigned>(with.clients); }
    bool server_sees_end() const { return kind == Kind::kOneWay; }
};

struct System {
    const char *name;
    std::unique_ptr<Link> (*make)(const Ends &ends);
};

struct Place {
    std::string program; // that calls be_child when is_child says so; the allow-list names it
    std::string dir;     // of the plain sockets and of received files; made and removed for each run
    std::string name;    // of the endpoints, at most 7 characters; a letter and a digit are added
    std::string source;  // path of the file that is sent
    std::function<bool()> gives_up = [] { return false; };
    std::function<void(pid_t process)> before_end = [](pid_t) {}, after_end = before_end;
};

struct Run {
    double seconds = 0; // NaN when not everything arrived
    double lost = 0;    // messages
    double cpu_us = 0;  // of the sender or senders, for each message
    double waits = 0;   // how often they went to sleep, for each message
};
Run measure(const Place &place, const Job &job, const System &system);

bool is_child(int argc, char **argv);
// The life of a process that measure() started. Does not return.
[[noreturn]] void be_child(char **argv, std::span<const System> systems);

} // namespace bench
