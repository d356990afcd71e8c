// tavipc-demo - what the library does, shown with real processes, real sockets and a list signed on the spot.
// Everything that it claims it has checked; the first thing that is not as it should be ends it with
// status 1.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include <unistd.h>

#include "installation.h"
#include "tavipc/tav_ipc.h"

using tavipc::stage::Installation;
using tavipc::stage::Process;
using tavipc::stage::words;

namespace {

void require(bool condition, const std::string &what) {
    if (!condition) throw std::runtime_error(what);
}

void show(const char *title, const std::string &text) {
    std::cout << "  " << title << std::string(14 - std::string_view(title).size(), ' ') << text << std::endl;
}

std::string grouped(uint64_t number) {
    std::string text = std::to_string(number);
    for (auto at = static_cast<int>(text.size()) - 3; at > 0; at -= 3)
        text.insert(static_cast<size_t>(at), ",");
    return text;
}

std::string open(Process &module, const std::string &name) {
    std::string id = module.ask("open " + name, "opened ");
    require(id != "0", name + " has no host id");
    return id;
}

// Sends one message, awaits it, checks its size and digest, and returns the time on the road in ms.
double transfer(Process &from, Process &to, const std::string &send, uint32_t size) {
    const auto sent = words(from.ask(send, "sent "));
    require(sent.at(0) == "1", "the message was refused: " + send);
    const auto arrived = words(to.expect("msg "));
    require(arrived.at(2) == std::to_string(size), "a message of another size arrived: " + arrived[2]);
    require(arrived.at(4) == sent.at(2), "the message arrived changed");
    return static_cast<double>(std::stoull(arrived[3]) - std::stoull(sent[1])) / 1000;
}

void show_identity(const Installation &place, Process &alpha, Process &beta) {
    const std::string id = open(alpha, "alpha");
    require(open(beta, "beta") == id, "alpha and beta have different agent ids");
    uint32_t stored = 0;
    std::ifstream file(place.config() / "machineid", std::ios::binary);
    file.read(reinterpret_cast<char *>(&stored), sizeof stored);
    require(file && std::to_string(stored) == id, "machineid does not hold the agent id");
    show("agent id", id + ", the same in alpha, in beta and in the file machineid");
}

void show_echo(Process &alpha, Process &echo) {
    open(echo, "echo");
    echo.ask("echo", "echoing");
    const auto trips = words(alpha.ask("ping echo 160 2000", "pong "));
    require(trips.size() == 2, "the echo failed");
    show("echo", "160 bytes from alpha to echo and back, 2,000 times: median " + trips[0] + " us, fastest " +
                     trips[1] + " us");
}

void show_large(Process &alpha, Process &beta) {
    std::string queue = "unknown";
    std::ifstream("/proc/sys/net/unix/max_dgram_qlen") >> queue;
    const uint32_t size = TAV_IPC_MESSAGE_MAX;
    const uint32_t fragments = (size + TAV_IPC_FRAGMENT_PAYLOAD - 1) / TAV_IPC_FRAGMENT_PAYLOAD;
    const double ms = transfer(alpha, beta, "send beta 0 bytes " + std::to_string(size) + " 1 0x2 0", size);
    char line[160];
    std::snprintf(line, sizeof line, "%s bytes in %s fragments: whole, SHA-256 equal, %.0f ms (%.0f MB/s)",
                  grouped(size).c_str(), grouped(fragments).c_str(), ms, size / ms / 1000);
    show("large", line);
    show("",
         "the kernel queues no more than net.unix.max_dgram_qlen = " + queue + " datagrams for a receiver");
}

void show_compression(Process &gamma, Process &beta) {
    transfer(gamma, beta, "send beta 0 app 100020 1 0 0x8", 100020);
    const std::string sizes = gamma.expect("log 4 tav_ipc compress msg success, ");
    const auto new_size = sizes.find("new_size=");
    require(sizes.find("old_size=100020") == 0 && new_size != std::string::npos,
            "the sizes are wrong: " + sizes);
    show("compression", "an application message of 100,020 bytes travelled as " +
                            grouped(std::stoull(sizes.substr(new_size + 9))) + ", arrived whole");
}

void show_trace(Process &gamma, Process &beta) {
    transfer(gamma, beta, "send beta 0 bytes 160 1 0 0", 160);
    std::string trace;
    do trace = gamma.expect("log 4 tav_ipc [MSG TRACE] [gamma@");
    while (trace.find("size: 160(0), send via dunix:") == std::string::npos);
    show("trace", "[MSG TRACE] [gamma@" + trace);
}

void show_exchanges(Process &alpha, Process &beta) {
    const std::string sent = alpha.ask("request beta 7 100000 10", "requested ");
    require(alpha.expect("answered ") == "0 8 100000 " + sent,
            "the request was not answered as it should be");
    show("request", "100,000 bytes with command 7, answered by beta with command 8 and the same bytes");
    require(alpha.ask("confirm beta 160 10", "confirmed ") == "0", "the message was not confirmed");
    beta.expect("msg alpha 0 160");
    show("confirmed", "a message, with code 0");
    require(alpha.ask("probe beta", "probed ") == "0", "beta does not answer a probe");
}

// Waits for the beginning of a second of the wall clock: an id of a file depends on the second.
void await_full_second() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    usleep(static_cast<useconds_t>((1'000'000'000 - now.tv_nsec) / 1000 + 1000));
}

std::string make_file(const std::filesystem::path &path, size_t size) {
    std::string block(1 << 20, '\0');
    uint64_t state = 0x9E3779B97F4A7C15u;
    std::ofstream file(path, std::ios::binary);
    for (size_t at = 0; at < size; at += block.size()) {
        for (size_t i = 0; i + sizeof state <= block.size(); i += sizeof state) {
            state ^= state << 13, state ^= state >> 7, state ^= state << 17;
            block.replace(i, sizeof state, reinterpret_cast<const char *>(&state), sizeof state);
        }
        file.write(block.data(), static_cast<std::streamsize>(std::min(block.size(), size - at)));
    }
    require(static_cast<bool>(file.flush()), "cannot write " + path.string());
    return path.string();
}

void show_files(const Installation &place, Process &alpha, Process &other, Process &filer) {
    const size_t size = 300'000'000;
    filer.ask("accept filer", "opened ");
    const std::string large = make_file(place.config() / "large", size),
                      small = make_file(place.config() / "small", 1);
    alpha.ask("seed 7", "seeded");
    other.ask("seed 7", "seeded");
    await_full_second();
    const auto begun = std::chrono::steady_clock::now();
    const std::string sent = alpha.ask("file filer " + large + " 10", "sending ");
    const std::string second = other.ask("file filer " + small + " 10", "file ");
    require(std::stoi(alpha.expect("file ")) >= 0, "the file was not sent");
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    require(filer.expect("got ") == sent, "the file arrived changed");
    char line[160];
    std::snprintf(line, sizeof line,
                  "%s bytes from alpha to filer in %.1f s, digests on both sides included: equal",
                  grouped(size).c_str(), took.count());
    show("file", line);
    require(second == "-106", "a second sender with the same file id got " + second);
    show("", "a second sender with the same file id meanwhile: -106, " + std::string(tav_ipc_strerror(-106)));
    const std::string unsupported = alpha.ask("file beta " + small + " 10", "file ");
    require(unsupported == "-109", "an endpoint that accepts no files answered " + unsupported);
    show("", "to beta, which accepts no files: -109, " + std::string(tav_ipc_strerror(-109)));
}

// The probe of an endpoint that is not there was started long before: it takes its five seconds.
void show_probes(Process &echo) {
    require(echo.expect("probed ") == "-102", "the probe of nobody did not run out of time");
    show("probe", "of beta: 0, " + std::string(tav_ipc_strerror(0)) +
                      "; of an endpoint that is not there: -102, " + tav_ipc_strerror(-102));
}

void show_refusal(Process &intruder) {
    intruder.say("open intruder");
    intruder.expect("refused", std::chrono::seconds(10));
    intruder.expect("log 1 ipc_crypt process [intruder] is not white process");
    show("refusal", "the executable \"intruder\" is not in the signed list and got no endpoint");
}

void run() {
    const auto root = std::filesystem::path(TAVIPC_DEMO_DIRECTORY) / std::to_string(getpid());
    const Installation place({root, 2, true});
    place.allow({"alpha", "beta", "gamma", "echo", "filer"});
    std::cout << "tavipc demo: every module is a process of its own\n";
    show("executables", (root / "bin").string());
    show("sockets", place.sockets().string());

    Process alpha = place.start("alpha"), beta = place.start("beta"), echo = place.start("echo");
    Process gamma = place.start("gamma", {"IPC_TEST=1", "TAV_LOG_LEVEL=4"});
    Process filer = place.start("filer"), intruder = place.start("intruder");
    show_identity(place, alpha, beta);
    show_echo(alpha, echo);
    echo.say("probe nobody");
    show_large(alpha, beta);
    open(gamma, "gamma");
    show_compression(gamma, beta);
    show_trace(gamma, beta);
    show_exchanges(alpha, beta);
    show_files(place, alpha, gamma, filer);
    show_probes(echo);
    show_refusal(intruder);
    for (Process *module : {&alpha, &beta, &echo, &gamma, &filer, &intruder})
        require(module->finish() == 0, "a module ended with a failure");
    std::cout << "all as it should be" << std::endl;
}

} // namespace

int main() {
    try {
        run();
        return EXIT_SUCCESS;
    } catch (const std::exception &error) {
        std::cout.flush();
        std::cerr << "tavipc-demo: NOT as it should be: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
