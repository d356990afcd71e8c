// module - a module of the agent, driven by lines on its standard input; the demo and the system tests run it
// under many names. Every command is answered by a line, and every message and log line is reported:
//
//   open NAME                                      opened HOSTID | refused
//   accept NAME                                    the same, for an endpoint that accepts files
//   close                                          closed
//   send DEST LOC KIND SIZE COUNT FLAGS ADDRFLAGS  sent ACCEPTED US DIGEST      (cmd counts from 0)
//   ping DEST SIZE COUNT                           pong MEDIAN_US FASTEST_US
//   request DEST CMD SIZE TIMEOUT                  requested DIGEST, answered CODE CMD SIZE DIGEST
//   confirm DEST SIZE TIMEOUT                      confirmed CODE
//   probe DEST                                     probed CODE
//   file DEST PATH TIMEOUT                         sending SIZE DIGEST, file RESULT
//   post DEST KIND SIZE COUNT ID PRIORITY ADDRFLAGS  posted ID RESULT REQID US US DIGEST  (cmd is ID, and
//   counts on;
//                                                  US before and after; priorities are those of KIND "app")
//   exchange WHAT DEST ID SIZE TIMEOUT             exchanging ID DIGEST, exchanged ID CODE DIGEST
//                                                  (WHAT: request, confirm or probe; cmd is ID)
//   descriptors N                                  done          (it may have so many from there on)
//   seed N                                         seeded        (the ids of files are drawn from there on)
//   echo                                           echoing       (messages go back, and are not reported)
//   pause MS                                       pausing       (and then it does nothing for so long)
//   wait MS | conf FILE | level N                  done          (send wait, IPC configuration, log level)
//   (a message)                                    msg SOURCE CMD SIZE US DIGEST
//   (a request)                                    asked SOURCE CMD SIZE DIGEST
//   (a file)                                       got SIZE DIGEST
//   (a log line)                                   log LEVEL SOURCE TEXT
//
// US is the monotonic clock in microseconds, the same in all processes; DIGEST is SHA-256 of the payload.
// KIND is "bytes" or "app", an application message with a body that compresses. The end of the input ends it.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uv.h>

#include "tavbase.h"
#include "tavcl_ev.h"
#include "tavipc/tav_ipc.h"

namespace {

using Words = std::vector<std::string>;

struct Pinging {
    tav_addr_st dest{};
    std::string payload;
    size_t left = 0;
    uint64_t sent_us = 0;
    std::vector<uint64_t> trips_us;
};

struct Module {
    tav_ipc_st *ipc = nullptr;
    bool echo = false;
    Pinging ping;
    std::string input;
    uv_loop_t loop{};
    uv_poll_t commands{};
};
Module module;

uint64_t now_us() {
    const auto since_boot = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(since_boot).count());
}

std::string digest(const void *data, size_t size) {
    unsigned char sum[SHA256_DIGEST_LENGTH];
    SHA256(static_cast<const unsigned char *>(data), size, sum);
    char text[2 * sizeof sum + 1];
    for (size_t i = 0; i < sizeof sum; ++i) std::snprintf(text + 2 * i, 3, "%02x", sum[i]);
    return text;
}

// size bytes that depend on the number and do not compress.
std::string random_bytes(size_t size, uint64_t number) {
    std::string bytes(size, '\0');
    uint64_t state = (number + 1) * 0x9E3779B97F4A7C15u;
    for (size_t at = 0; at < size; at += sizeof state) {
        state ^= state << 13, state ^= state >> 7, state ^= state << 17;
        std::memcpy(&bytes[at], &state, std::min(sizeof state, size - at));
    }
    return bytes;
}

// An application message of size bytes in all, method 0, whose body is text.
std::string application_message(size_t size, char priority = 0) {
    std::string message("3200", 4);
    message.resize(std::max<size_t>(size, TAV_APP_HEADER_SIZE));
    message[15] = priority;
    const size_t body = message.size() - TAV_APP_HEADER_SIZE;
    for (size_t i = 0; i < 4; ++i) message[16 + i] = static_cast<char>(body >> (24 - 8 * i));
    for (size_t at = TAV_APP_HEADER_SIZE, line = 0; at < message.size(); ++line) {
        const std::string text = "event " + std::to_string(line) + ": file opened, nothing found\n";
        at += text.copy(&message[at], message.size() - at);
    }
    return message;
}

tav_addr_st address(const std::string &name, unsigned long location, unsigned long flags) {
    tav_addr_st result{};
    name.copy(result.name, TAV_IPC_NAME_MAX);
    result.loc = static_cast<uint8_t>(location);
    result.flags = static_cast<uint8_t>(flags);
    return result;
}

void send_ping() {
    module.ping.sent_us = now_us();
    if (tav_ipc_send(module.ipc, &module.ping.dest, 0, module.ping.payload.data(),
                     static_cast<uint32_t>(module.ping.payload.size())))
        std::puts("pong failed");
}

void on_pong(const void *data, uint32_t size) {
    Pinging &ping = module.ping;
    ping.trips_us.push_back(now_us() - ping.sent_us);
    if (std::string_view(static_cast<const char *>(data), size) != ping.payload) {
        ping.left = 0;
        std::puts("pong changed");
    } else if (--ping.left > 0) {
        send_ping();
    } else {
        std::sort(ping.trips_us.begin(), ping.trips_us.end());
        std::printf("pong %llu %llu\n",
                    static_cast<unsigned long long>(ping.trips_us[ping.trips_us.size() / 2]),
                    static_cast<unsigned long long>(ping.trips_us[0]));
    }
}

int on_message(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t cmd, const void *data, uint32_t size,
               void *) {
    const uint64_t arrived_us = now_us();
    if (module.ping.left > 0)
        on_pong(data, size);
    else if (module.echo)
        tav_ipc_send(ipc, src, cmd, data, size);
    else
        std::printf("msg %.10s %u %u %llu %s\n", src->name, cmd, size,
                    static_cast<unsigned long long>(arrived_us), digest(data, size).c_str());
    return 0;
}

// A request is answered with the next command code and its own payload.
int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
               uint32_t size, void *) {
    std::printf("asked %.10s %u %u %s\n", src->name, cmd, size, digest(data, size).c_str());
    tav_ipc_response(ipc, src, reqid, cmd + 1, data, size);
    return 0;
}

int on_answer(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *) {
    std::printf("answered %d %u %u %s\n", code, cmd, len, digest(data, len).c_str());
    return 0;
}

int on_result(int32_t code, void *event) {
    std::printf("%s %d\n", static_cast<const char *>(event), code);
    return 0;
}

uint32_t number_of(void *user) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(user)); }

int on_exchanged(int32_t code, void *user) {
    std::printf("exchanged %u %d -\n", number_of(user), code);
    return 0;
}

int on_exchanged_answer(int32_t code, uint32_t, const void *data, uint32_t len, void *user) {
    std::printf("exchanged %u %d %s\n", number_of(user), code, digest(data, len).c_str());
    return 0;
}

// Size and digest of a file; of a pipe there is nothing to tell before it has been read.
void report_file(const char *event, const char *path) {
    struct stat status {};
    if (stat(path, &status) != 0 || !S_ISREG(status.st_mode)) return;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const auto size = static_cast<size_t>(status.st_size);
    void *content = size > 0 ? mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0) : nullptr;
    std::printf("%s %zu %s\n", event, size, digest(content, size).c_str());
    if (content) munmap(content, size);
    close(fd);
}

int on_file(tav_ipc_st *, const char *path, void *) {
    report_file("got", path);
    unlink(path); // or the library does, in some minutes
    return 0;
}

void report_log(int level, const char *source, int, const char *text, void *) {
    std::printf("log %d %s %s\n", level, source, text);
}

// --- commands; each gets exactly the words that the table asks for

void close_endpoint(const Words & = {}) {
    tav_ipc_destroy(module.ipc);
    module.ipc = nullptr;
    std::puts("closed");
}

void open_endpoint(tav_ipc_st *ipc) {
    module.ipc = ipc;
    tav_ipc_msg_recv(ipc, on_message, nullptr);
    tav_ipc_on_request(ipc, on_request, nullptr);
    tav_ipc_file_recv(ipc, on_file, nullptr);
    if (ipc)
        std::printf("opened %u\n", tav_addr_get_hostid(tav_ipc_get_local_addr(ipc)));
    else
        std::puts("refused");
}

void send(const Words &w) {
    const tav_addr_st dest = address(w[1], std::stoul(w[2]), std::stoul(w[7], nullptr, 0));
    const size_t size = std::stoul(w[4]), count = std::stoul(w[5]);
    const auto flags = static_cast<uint16_t>(std::stoul(w[6], nullptr, 0));
    size_t accepted = 0;
    std::string payload;
    uint64_t begun_us = 0;
    for (size_t i = 0; i < count; ++i) {
        payload = w[3] == "app" ? application_message(size) : random_bytes(size, i);
        begun_us = now_us();
        accepted += tav_ipc_send_with_flags(module.ipc, &dest, static_cast<uint32_t>(i), payload.data(),
                                            static_cast<uint32_t>(payload.size()), flags, nullptr) == 0;
    }
    std::printf("sent %zu %llu %s\n", accepted, static_cast<unsigned long long>(begun_us),
                digest(payload.data(), payload.size()).c_str());
}

void post(const Words &w) {
    const tav_addr_st dest = address(w[1], 0, std::stoul(w[7], nullptr, 0));
    const size_t size = std::stoul(w[3]), first = std::stoul(w[5]), count = std::stoul(w[4]);
    for (size_t id = first; id < first + count; ++id) {
        const std::string payload = w[2] == "app"
                                        ? application_message(size, static_cast<char>(std::stoi(w[6])))
                                        : random_bytes(size, id);
        uint32_t reqid = 0x80000000u + static_cast<uint32_t>(id); // for log lines; the library counts from 1
        const uint64_t begun_us = now_us();
        const int result =
            tav_ipc_send_with_flags(module.ipc, &dest, static_cast<uint32_t>(id), payload.data(),
                                    static_cast<uint32_t>(payload.size()), 0, &reqid);
        const uint64_t ended_us = now_us();
        std::printf("posted %zu %d %u %llu %llu %s\n", id, result, reqid,
                    static_cast<unsigned long long>(begun_us), static_cast<unsigned long long>(ended_us),
                    digest(payload.data(), payload.size()).c_str());
    }
}

void exchange(const Words &w) {
    const tav_addr_st dest = address(w[2], 0, 0);
    const auto id = static_cast<uint32_t>(std::stoul(w[3]));
    const std::string payload = random_bytes(std::stoul(w[4]), id);
    const auto size = static_cast<uint32_t>(payload.size());
    void *user = reinterpret_cast<void *>(uintptr_t{id});
    std::printf("exchanging %u %s\n", id, digest(payload.data(), size).c_str());
    if (w[1] == "request")
        tav_ipc_make_request(module.ipc, &dest, id, payload.data(), size, on_exchanged_answer, user,
                             std::stoi(w[5]));
    else if (w[1] == "confirm")
        tav_ipc_send2(module.ipc, &dest, id, payload.data(), size, on_exchanged, user, std::stoi(w[5]));
    else
        tav_ipc_probe(module.ipc, &dest, on_exchanged, user);
}

void limit_descriptors(const Words &w) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::stoul(w[1]);
    std::puts(setrlimit(RLIMIT_NOFILE, &limit) == 0 ? "done" : "refused");
}

void *event(const char *name) { return const_cast<char *>(name); }

void request(const Words &w) {
    const tav_addr_st dest = address(w[1], 0, 0);
    const std::string payload = random_bytes(std::stoul(w[3]), 0);
    const auto size = static_cast<uint32_t>(payload.size());
    std::printf("requested %s\n", digest(payload.data(), size).c_str());
    tav_ipc_make_request(module.ipc, &dest, static_cast<uint32_t>(std::stoul(w[2])), payload.data(), size,
                         on_answer, nullptr, std::stoi(w[4]));
}

void confirm(const Words &w) {
    const tav_addr_st dest = address(w[1], 0, 0);
    const std::string payload = random_bytes(std::stoul(w[2]), 0);
    tav_ipc_send2(module.ipc, &dest, 0, payload.data(), static_cast<uint32_t>(payload.size()), on_result,
                  event("confirmed"), std::stoi(w[3]));
}

void probe(const Words &w) {
    const tav_addr_st dest = address(w[1], 0, 0);
    tav_ipc_probe(module.ipc, &dest, on_result, event("probed"));
}

void send_file(const Words &w) {
    const tav_addr_st dest = address(w[1], 0, 0);
    report_file("sending", w[2].c_str());
    tav_ipc_send_file(module.ipc, &dest, w[2].c_str(), on_result, event("file"), std::stoi(w[3]));
}

void seed(const Words &w) {
    tav_ipc_get_random_file_id(0); // the first one seeds by itself
    std::srand(static_cast<unsigned>(std::stoul(w[1])));
    std::puts("seeded");
}

void start_ping(const Words &w) {
    module.ping = {address(w[1], 0, 0), random_bytes(std::stoul(w[2]), 0), std::stoul(w[3]), 0, {}};
    send_ping();
}

void pause(const Words &w) {
    std::puts("pausing");
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoul(w[1])));
}

struct Command {
    size_t words;
    void (*run)(const Words &);
};
const std::map<std::string, Command> kCommands = {
    {"open", {2, [](const Words &w) { open_endpoint(tav_ipc_create(w[1].c_str())); }}},
    {"accept", {2, [](const Words &w) { open_endpoint(tav_ipc_create_temp(w[1].c_str(), 1)); }}},
    {"close", {1, close_endpoint}},
    {"send", {8, send}},
    {"request", {5, request}},
    {"confirm", {4, confirm}},
    {"probe", {2, probe}},
    {"file", {4, send_file}},
    {"post", {8, post}},
    {"exchange", {6, exchange}},
    {"descriptors", {2, limit_descriptors}},
    {"seed", {2, seed}},
    {"ping", {4, start_ping}},
    {"echo", {1, [](const Words &) { module.echo = true, std::puts("echoing"); }}},
    {"pause", {2, pause}},
    {"wait", {2, [](const Words &w) { cl_dunix_set_send_wait(std::stoul(w[1])), std::puts("done"); }}},
    {"conf", {2, [](const Words &w) { load_ipc_proxy_conf(w[1].c_str()), std::puts("done"); }}},
    {"level", {2, [](const Words &w) { error_output_set_level(std::stoi(w[1])), std::puts("done"); }}},
};

void execute(const std::string &line) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) words.push_back(word);
    const auto command = words.empty() ? kCommands.end() : kCommands.find(words[0]);
    if (command == kCommands.end() || command->second.words != words.size())
        std::printf("cannot: %s\n", line.c_str());
    else
        command->second.run(words);
}

void read_commands(uv_poll_t *poll, int, int) {
    char buffer[4096];
    const ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
    if (got <= 0) {
        uv_poll_stop(poll);
        uv_stop(&module.loop);
        return;
    }
    module.input.append(buffer, static_cast<size_t>(got));
    for (size_t end; (end = module.input.find('\n')) != std::string::npos;) {
        const std::string line = module.input.substr(0, end);
        module.input.erase(0, end + 1);
        execute(line);
    }
}

} // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    error_output_set_sink(report_log, nullptr);
    // The commands share a loop with the endpoint: the module sleeps in one place.
    if (uv_loop_init(&module.loop) || cl_event_loop_attach(&module.loop)) return EXIT_FAILURE;
    uv_poll_init(&module.loop, &module.commands, STDIN_FILENO);
    uv_poll_start(&module.commands, UV_READABLE, read_commands);
    uv_run(&module.loop, UV_RUN_DEFAULT);
    close_endpoint();
    cl_event_loop_release();
    uv_close(reinterpret_cast<uv_handle_t *>(&module.commands), nullptr);
    uv_run(&module.loop, UV_RUN_DEFAULT);
    return uv_loop_close(&module.loop) ? EXIT_FAILURE : EXIT_SUCCESS;
}
