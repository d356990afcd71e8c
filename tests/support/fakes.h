// Stand-ins for the platform and for libc's clock and random functions. A unit test that links them drives
// time, timers, datagrams and log by hand; nothing sleeps and no socket is opened.
#pragma once

#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tavbase.h"
#include "tavcl_loop.h"

namespace fake {

struct LogLine {
    int level;
    std::string source, text;
};
struct Log { // error_output, error_output_check
    int threshold = 4;
    std::vector<LogLine> lines;
    std::function<void()> on_line;                          // runs at each line, but those of its own
    int count(std::string_view part, int level = -1) const; // lines that contain part (at that level)
};
struct Clock { // cl_event_loop_now, timer_get_ticks, time, clock_gettime
    uint64_t loop_ms = 1'000'000, ticks_ms = 1'000'000;
    time_t wall_s = 1'700'000'000;
    std::function<int(clockid_t, timespec *)> gettime; // the real clock_gettime when empty
};
struct Random {                  // rand, srand
    std::deque<int> draws;       // next results of rand; a counter follows when they run out
    std::vector<unsigned> seeds; // arguments of srand
    int counter = 0;
};
struct Timer { // cl_timer_start, cl_timer_stop
    uint64_t due_ms, delay_ms;
    void (*callback)(void *);
    void *argument;
};
struct Socket { // cl_dunix_*
    std::string path;
    cl_dunix_recv_cb recv = nullptr;
    void *recv_context = nullptr;
};
struct Send {
    cl_dunix_t socket;
    std::string path, bytes; // the datagram as it was when it was handed over
    cl_dunix_send_cb callback;
    void *context;
    bool done = false;
};
struct Event {
    std::map<cl_timer_t, Timer> timers;
    std::map<cl_dunix_t, Socket> sockets;
    std::deque<Send> sends; // every accepted send, in order
    uint64_t last_id = 0;
    bool settles = false, watches_io = false; // cl_dunix_settle completes all pending, cl_io_start succeeds
    int fail_timers = 0, fail_create = 0, fail_recv = 0, fail_send = 0; // number of next calls that fail

    size_t pending() const;                  // sends not completed
    void complete(size_t index, int status); // completes sends[index]
    void complete_all(int status = 0);       // completes what is pending now
    void advance(uint64_t ms);               // moves the loop clock and fires what becomes due, in order
    void deliver(cl_dunix_t socket, std::string_view datagram, int status = 0);
    cl_dunix_t socket_at(std::string_view path) const; // 0 when there is none
};
struct Memory {                         // xhash_create, heap_push
    int fail_table = 0, fail_push = 0;  // the call from now that fails, 1 is the next
    uint32_t largest_heap = UINT32_MAX; // entries; heap_push fails from there on
};
struct Deployment { // libtavaux, dirutils_path_transform
    int location = 2;
    const char *deploy_type = nullptr;
    bool cnapp = false;
    uint32_t hostid = 0;
    std::string agent_type = "linux";  // empty: GetAgentType fails
    std::string base = "/nonexistent"; // what "@" stands for
};
struct Identity {               // c_get_process, CreateAgentId (identity_fakes.cpp)
    int32_t process_result = 0; // negative: refused, with this errno
    unsigned agent_id = 4711;
    int agent_id_calls = 0;
};

struct World {
    Log log;
    Clock clock;
    Random random;
    Event event;
    Memory memory;
    Deployment deployment;
    Identity identity;
};
World &world();
inline bool test_runs = false;

} // namespace fake

// Fixture: a fresh world for every test.
struct FakeWorld : ::testing::Test {
    FakeWorld() {
        fake::world() = fake::World{}, fake::test_runs = true;
        static uint64_t days = 0; // rate limits outlive a test: each begins long after the one before
        w.clock.ticks_ms += ++days * 86'400'000;
    }
    ~FakeWorld() override { fake::test_runs = false; }
    fake::World &w = fake::world();
};
