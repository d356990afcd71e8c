// tavipc-module - a module of the agent for the demo and the system tests. It reads commands, one per line,
// and writes events, one per line. It ends with its input.
//
//   open NAME, accept NAME (files, too)               opened HOSTID | refused
//   close                                             closed
//   post DEST KIND SIZE COUNT ID PRIORITY ADDRFLAGS   for each message: posted ID RESULT REQID US US DIGEST
//   exchange WHAT DEST ID SIZE TIMEOUT                exchanging ID DIGEST, exchanged ID CODE DIGEST
//   file DEST PATH TIMEOUT                            sending SIZE DIGEST (of a regular file), file RESULT
//   descriptors N (the limit of open descriptors)     done
//   watch PEER EVENT (which closes the endpoint)      for each event: peer PEER EVENT
//   fork                                              child N (inotify descriptors that it has)
//   (a message, a request or a file arrives)          msg SOURCE CMD SIZE US DIGEST,
//                                                     asked SOURCE CMD SIZE DIGEST, got SIZE DIGEST
//   (a line of the log)                               log LEVEL SOURCE TEXT
//
// KIND is "bytes" or "app", an application message whose body compresses. WHAT is request, confirm or probe.
// The command code is ID and counts up. US is the monotonic clock in microseconds. DIGEST is a hash of the
// payload.
#include <algorithm>
#include <cinttypes>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <uv.h>

#include "tavbase.h"
#include "tavcl_ev.h"
#include "tavipc/tav_ipc.h"
#include "tavipc/tav_ipc_watch.h"

namespace {

tav_ipc_st *endpoint;
uv_loop_t loop;

// Returns 0, as the library's callbacks do.
template <typename... More> int say(const char *event, const More &...more) {
    std::cout << event;
    ((std::cout << ' ' << more), ...);
    std::cout << std::endl;
    return 0;
}

std::string digest(const void *data, size_t size) { // FNV-1a
    uint64_t sum = 0xCBF29CE484222325u;
    char text[17];
    for (const char byte : std::string_view(static_cast<const char *>(data), size))
        sum = (sum ^ static_cast<unsigned char>(byte)) * 0x100000001B3u;
    std::snprintf(text, sizeof text, "%016" PRIx64, sum);
    return text;
}

// Bytes that depend on the number and do not compress.
std::string random_bytes(size_t size, uint64_t number) {
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>((number = number * 6364136223846793005u + 1442695040888963407u) >> 56);
    return bytes;
}

// An application message of method 0 whose body is text. The size includes the header.
std::string application_message(size_t size, uint32_t priority) {
    std::string message("3200\0\0\0\0\0\0\0\0\0\0\0", TAV_APP_HEADER_SIZE - 5);
    message += static_cast<char>(priority);
    for (int shift = 24; shift >= 0; shift -= 8)
        message += static_cast<char>((size - TAV_APP_HEADER_SIZE) >> shift);
    while (message.size() < size) message += "a line of text, " + std::to_string(message.size()) + '\n';
    message.resize(size);
    return message;
}

tav_addr_st address(const std::string &name, uint32_t flags = 0) {
    tav_addr_st result{};
    name.copy(result.name, TAV_IPC_NAME_MAX);
    result.flags = static_cast<uint8_t>(flags);
    return result;
}

void report_file(const char *event, const std::string &path) {
    std::ostringstream content;
    if (!std::filesystem::is_regular_file(path)) return;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    say(event, content.view().size(), digest(content.view().data(), content.view().size()));
}

int on_message(tav_ipc_st *, const tav_addr_st *src, uint32_t cmd, const void *data, uint32_t size, void *) {
    const uint64_t arrived_us = uv_hrtime() / 1000;
    return say("msg", tav_addr_get_name(src), cmd, size, arrived_us, digest(data, size));
}

// The answer has the next command code and the same payload.
int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
               uint32_t size, void *) {
    say("asked", tav_addr_get_name(src), cmd, size, digest(data, size));
    tav_ipc_response(ipc, src, reqid, cmd + 1, data, size);
    return 0;
}

int on_file(tav_ipc_st *, const char *path, void *) {
    report_file("got", path);
    std::filesystem::remove(path);
    return 0;
}

int on_answer(int32_t code, uint32_t, const void *data, uint32_t size, void *id) {
    return say("exchanged", reinterpret_cast<uintptr_t>(id), code, digest(data, size));
}

int on_result(int32_t code, void *id) { return say("exchanged", reinterpret_cast<uintptr_t>(id), code, '-'); }

int open_endpoint(tav_ipc_st *opened) {
    if (!(endpoint = opened)) return say("refused");
    tav_ipc_msg_recv(opened, on_message, nullptr);
    tav_ipc_on_request(opened, on_request, nullptr);
    tav_ipc_file_recv(opened, on_file, nullptr);
    return say("opened", tav_addr_get_hostid(tav_ipc_get_local_addr(opened)));
}

int close_endpoint() {
    tav_ipc_destroy(std::exchange(endpoint, nullptr));
    return say("closed");
}

void post(const std::string &to, bool app, size_t size, uint32_t count, uint32_t id, int priority,
          int flags) {
    const tav_addr_st dest = address(to, flags);
    for (const uint32_t end = id + count; id != end; ++id) {
        const std::string payload = app ? application_message(size, priority) : random_bytes(size, id);
        uint32_t reqid = 0x80000000u + id; // the library's own ids count from 1
        const uint64_t begun_us = uv_hrtime() / 1000;
        const int result = tav_ipc_send_with_flags(endpoint, &dest, id, payload.data(),
                                                   static_cast<uint32_t>(payload.size()), 0, &reqid);
        const uint64_t ended_us = uv_hrtime() / 1000;
        say("posted", id, result, reqid, begun_us, ended_us, digest(payload.data(), payload.size()));
    }
}

void exchange(const std::string &what, const std::string &to, uint32_t id, uint32_t size, int timeout_s) {
    const tav_addr_st dest = address(to);
    const std::string payload = random_bytes(size, id);
    void *user = reinterpret_cast<void *>(uintptr_t{id});
    say("exchanging", id, digest(payload.data(), size));
    if (what == "request")
        tav_ipc_make_request(endpoint, &dest, id, payload.data(), size, on_answer, user, timeout_s);
    else if (what == "confirm")
        tav_ipc_send2(endpoint, &dest, id, payload.data(), size, on_result, user, timeout_s);
    else
        tav_ipc_probe(endpoint, &dest, on_result, user);
}

void send_file(const std::string &to, const std::string &path, int timeout_s) {
    const tav_addr_st dest = address(to);
    report_file("sending", path);
    const auto report = [](int32_t code, void *) { return say("file", code); };
    tav_ipc_send_file(endpoint, &dest, path.c_str(), report, nullptr, timeout_s);
}

void on_peer(uint64_t id, int event, const char *name, void *last) {
    say("peer", name, event);
    if (event == static_cast<int>(reinterpret_cast<intptr_t>(last))) close_endpoint();
    if (reinterpret_cast<intptr_t>(last) == -2 && tav_ipc_unwatch(endpoint, id) == 0)
        tav_ipc_watch(endpoint, name, on_peer, last);
}

void fork_child() {
    if (fork() != 0) return static_cast<void>(wait(nullptr));
    const auto is_inotify = [](const auto &fd) {
        std::error_code gone;
        return std::filesystem::read_symlink(fd, gone) == "anon_inode:inotify";
    };
    std::filesystem::directory_iterator all("/proc/self/fd");
    say("child", std::count_if(begin(all), end(all), is_inotify));
    _exit(0);
}

bool limit_descriptors(rlim_t number) {
    const rlimit limit{number, number};
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

void execute(const std::string &line) {
    std::istringstream stream(line);
    const std::vector<std::string> w{std::istream_iterator<std::string>(stream), {}};
    const auto is = [&](const char *command, size_t size) { return w.size() == size && w[0] == command; };
    const auto number = [&](size_t word) { return static_cast<uint32_t>(std::stoul(w[word], nullptr, 0)); };
    if (is("open", 2) || is("accept", 2))
        open_endpoint(tav_ipc_create_temp(w[1].c_str(), w[0] == "accept"));
    else if (is("close", 1))
        close_endpoint();
    else if (is("post", 8))
        post(w[1], w[2] == "app", number(3), number(4), number(5), number(6), number(7));
    else if (is("exchange", 6))
        exchange(w[1], w[2], number(3), number(4), std::stoi(w[5]));
    else if (is("file", 4))
        send_file(w[1], w[2], std::stoi(w[3]));
    else if (is("descriptors", 2))
        say(limit_descriptors(number(1)) ? "done" : "refused");
    else if (is("watch", 3))
        tav_ipc_watch(endpoint, w[1].c_str(), on_peer, reinterpret_cast<void *>(intptr_t{std::stoi(w[2])}));
    else if (is("fork", 1))
        fork_child();
    else
        say("cannot:", line);
}

void read_commands(uv_poll_t *, int, int) {
    std::string line;
    do {
        if (!std::getline(std::cin, line)) return uv_stop(&loop);
        execute(line);
    } while (std::cin.rdbuf()->in_avail() > 0);
}

} // namespace

// The commands and the endpoint share one libuv loop.
int main() {
    uv_poll_t commands;
    std::ios::sync_with_stdio(false);
    error_output_set_sink(
        [](int level, const char *source, int, const char *text, void *) { say("log", level, source, text); },
        nullptr);
    if (uv_loop_init(&loop) || cl_event_loop_attach(&loop)) return EXIT_FAILURE;
    uv_poll_init(&loop, &commands, 0);
    uv_poll_start(&commands, UV_READABLE, read_commands);
    uv_run(&loop, UV_RUN_DEFAULT);
    close_endpoint();
    cl_event_loop_release();
    uv_close(reinterpret_cast<uv_handle_t *>(&commands), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    return uv_loop_close(&loop) ? EXIT_FAILURE : EXIT_SUCCESS;
}
