// tavbridge-load - traffic for the bridge's benchmark and long run. Each mode is a process of its own.
//
//   send DEST COUNT SEED SIZE
//     sends numbered messages (SIZE 0: 160 bytes to 100 KB), and waits until all have left
//   sink SOURCES
//     receives them; with each line of input, and at its end, it prints an account
//   ping DEST COUNT
//     sends requests one after the other; prints the median round trip
//   echo
//     answers them
//   hold PATH COMMAND...
//     keeps the socket PATH, passes it to the command, and starts the command again when it ends
//   native URL CLASS SIZE COUNT
//     nats.c's own publisher and subscriber (native.h); CLASS is core, durable, ids or request
//
// DEST is NAME, NAME@LOCATION or NAME@LOCATION.HOSTID. A message is its number and its seed, then bytes that
// follow from both.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/datagram.h"
#include "native.h"
#include "tavcl_loop.h"
#include "tavipc/tav_ipc.h"
#include "tavipc/tav_ipc_ext.h"

namespace {

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

[[noreturn]] void die(const std::string &what) {
    std::fprintf(stderr, "tavbridge-load: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(EXIT_FAILURE);
}

// --- messages

uint64_t mix(uint64_t x) {
    x = (x ^ (x >> 31)) * 0x9E3779B97F4A7C15u;
    return x ^ (x >> 29);
}

// Most messages of an agent are small: nine of ten have up to 2 KB, one of a hundred up to 100 KB.
size_t size_of(uint64_t number, uint64_t seed, size_t fixed) {
    if (fixed) return fixed;
    const uint64_t draw = mix(number * 977 + seed), kind = draw % 100;
    const size_t most = kind < 90 ? 2048 : kind < 99 ? 20000 : 100000;
    return 160 + (draw >> 32) % (most - 160);
}

void fill(std::vector<char> &bytes, uint64_t number, uint64_t seed) {
    std::memcpy(bytes.data(), &number, sizeof number);
    std::memcpy(bytes.data() + 8, &seed, sizeof seed);
    uint64_t word = mix(number ^ seed << 40);
    for (size_t at = 16; at < bytes.size(); at += 8) {
        word = word * 6364136223846793005u + 1442695040888963407u;
        std::memcpy(bytes.data() + at, &word, std::min<size_t>(8, bytes.size() - at));
    }
}

tav_addr_st address(const std::string &text) {
    const size_t at = text.find('@');
    tav_addr_st result{};
    text.copy(result.name, std::min<size_t>(at, TAV_IPC_NAME_MAX));
    if (at == text.npos) return result;
    result.loc = static_cast<uint8_t>(std::stoi(text.substr(at + 1)));
    const size_t dot = text.find('.', at);
    if (dot != text.npos) result.hostid = static_cast<uint32_t>(std::stoul(text.substr(dot + 1)));
    return result;
}

tav_ipc_st *open_endpoint(const char *name) {
    tav_ipc_st *ipc = tav_ipc_create(name);
    if (!ipc) die(name);
    return ipc;
}

// --- modes

int send_all(const std::string &to, uint64_t count, uint64_t seed, size_t size) {
    // What the bridge does not read waits here for as long as it takes.
    get_ipc_proxy_conf();
    char path[] = "/tmp/tavbridge-XXXXXX";
    const int fd = mkstemp(path);
    dprintf(fd, "[transfer]\neagain_retry_interval_ms = 100\neagain_max_retry_times = 1000000\n");
    load_ipc_proxy_conf(path);
    unlink(path);
    close(fd);
    tav_ipc_st *ipc = open_endpoint(("s" + std::to_string(getpid() % 10000000)).c_str());
    const tav_addr_st dest = address(to);
    std::vector<char> bytes;
    const char *limit = std::getenv("TAVBRIDGE_RATE"); // messages a second
    const double rate = limit ? std::atof(limit) : 1e12;
    const auto begin = Clock::now();
    for (uint64_t number = 0; number < count;) {
        if (static_cast<double>(number) > rate * seconds_since(begin)) {
            cl_event_loop_run_once(1);
            continue;
        }
        bytes.resize(size_of(number, seed, size));
        fill(bytes, number, seed);
        uint64_t waiting = 0;
        tav_ipc_pending(ipc, nullptr, &waiting);
        if (waiting < 8 << 20 &&
            tav_ipc_send(ipc, &dest, 1, bytes.data(), static_cast<uint32_t>(bytes.size())) == IPC_OK)
            ++number;
        else
            cl_event_loop_run_once(10);
        if (number % 16 == 0) cl_event_loop_run_once(0);
    }
    tav_ipc_flush_st result;
    const int flushed = tav_ipc_flush(ipc, -1, &result);
    std::printf("sent %llu in %.3f s, flush %d, dropped %llu\n", static_cast<unsigned long long>(count),
                seconds_since(begin), flushed, static_cast<unsigned long long>(result.dropped));
    tav_ipc_destroy(ipc);
    return result.dropped ? EXIT_FAILURE : EXIT_SUCCESS;
}

struct Sink {
    std::map<uint64_t, std::vector<bool>> seen; // by seed
    uint64_t arrived = 0, distinct = 0, twice = 0, changed = 0;
    Clock::time_point first, last;
    std::vector<char> wanted;

    void take(const char *data, uint32_t size) {
        uint64_t number, seed;
        if (arrived++ == 0) first = Clock::now();
        last = Clock::now();
        if (size < 16) return void(++changed);
        std::memcpy(&number, data, sizeof number);
        std::memcpy(&seed, data + 8, sizeof seed);
        wanted.resize(size);
        fill(wanted, number, seed);
        if (number > 100'000'000 || std::memcmp(wanted.data(), data, size) != 0) return void(++changed);
        auto &bits = seen[seed];
        if (bits.size() <= number) bits.resize(number + 1 + number / 2);
        if (bits[number]) return void(++twice);
        bits[number] = true;
        ++distinct;
    }
    void print() const {
        std::printf("arrived %llu distinct %llu twice %llu changed %llu seconds %.3f\n",
                    static_cast<unsigned long long>(arrived), static_cast<unsigned long long>(distinct),
                    static_cast<unsigned long long>(twice), static_cast<unsigned long long>(changed),
                    std::chrono::duration<double>(last - first).count());
        std::fflush(stdout);
    }
};

int sink() {
    static Sink sink;
    tav_ipc_st *ipc = open_endpoint("sink");
    tav_ipc_msg_recv(
        ipc,
        [](tav_ipc_st *, const tav_addr_st *, uint32_t, const void *data, uint32_t size, void *) {
            sink.take(static_cast<const char *>(data), size);
            return 0;
        },
        nullptr);
    cl_io_start(
        0, CL_IO_READ,
        [](cl_io_t io, int, void *) {
            char line[256];
            const ssize_t got = read(0, line, sizeof line);
            sink.print();
            if (got > 0) return;
            cl_io_stop(io);
            cl_event_loop_stop();
        },
        nullptr);
    cl_event_loop_run();
    tav_ipc_destroy(ipc);
    return EXIT_SUCCESS;
}

int ping(const std::string &to, size_t count) {
    tav_ipc_st *ipc = open_endpoint("ping");
    const tav_addr_st dest = address(to);
    std::vector<double> times;
    static bool answered;
    static int failures;
    const auto done = [](int32_t code, uint32_t, const void *, uint32_t, void *) {
        answered = true;
        failures += code != 0;
        return 0;
    };
    while (times.size() < count) {
        const auto begin = Clock::now();
        answered = false;
        tav_ipc_make_request(ipc, &dest, 1, "ping", 4, done, nullptr, 5);
        while (!answered) cl_event_loop_run_once(1000);
        times.push_back(seconds_since(begin) * 1e6);
    }
    std::sort(times.begin(), times.end());
    std::printf("round trip: median %.0f us, 99 %% %.0f us, failures %d\n", times[count / 2],
                times[count * 99 / 100], failures);
    tav_ipc_destroy(ipc);
    return EXIT_SUCCESS;
}

int echo() {
    tav_ipc_st *ipc = open_endpoint("echo");
    tav_ipc_on_request(
        ipc,
        [](tav_ipc_st *self, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
           uint32_t size, void *) {
            tav_ipc_response(self, src, reqid, cmd, data, size);
            return 0;
        },
        nullptr);
    return cl_event_loop_run();
}

int hold(const char *path, char **command) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sockaddr_un own{};
    own.sun_family = AF_UNIX;
    std::strncpy(own.sun_path, path, sizeof own.sun_path - 1);
    unlink(path);
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&own), sizeof own) != 0) die(path);
    for (;;) {
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (fd != 3) dup2(fd, 3), close(fd);
            setenv("LISTEN_FDS", "1", 1);
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            execv(command[0], command);
            _exit(127);
        }
        std::printf("child %d\n", child);
        std::fflush(stdout);
        waitpid(child, nullptr, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (mode == "send" && argc == 6)
        return send_all(argv[2], std::stoull(argv[3]), std::stoull(argv[4]), std::stoull(argv[5]));
    if (mode == "sink") return sink();
    if (mode == "ping" && argc == 4) return ping(argv[2], std::stoull(argv[3]));
    if (mode == "echo") return echo();
    if (mode == "hold" && argc > 3) return hold(argv[2], argv + 3);
    if (mode == "native" && argc == 6 && std::string_view(argv[3]) == "request")
        return native_requests(argv[2], std::stoull(argv[5]));
    if (mode == "native" && argc == 6)
        return native(argv[2], argv[3], std::stoull(argv[4]), std::stoull(argv[5]));
    std::fputs("usage: see the beginning of bench/bridge/load.cpp\n", stderr);
    return 2;
}
