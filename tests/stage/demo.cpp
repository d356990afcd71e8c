// tavipc-demo - shows what the library does, with real processes, real sockets and an allow-list signed on
// the spot. It checks what it shows, and ends with status 1 at the first check that fails.
#include <algorithm>
#include <chrono>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <unistd.h>

#include "installation.h"
#include "tavipc/tav_ipc.h"

using namespace tavipc::stage;

namespace {

void require(bool condition, const std::string &what) {
    if (!condition) throw std::runtime_error(what);
}

template <typename... Text> void show(const char *title, const Text &...text) {
    std::cout << "  " << std::left << std::setw(13) << title << std::setprecision(3);
    (std::cout << ... << text) << std::endl;
}

// Sends one message, checks that it arrives unchanged, and returns its time from the call to the callback in
// ms.
double transfer(Process &from, Process &to, const std::string &kind, uint32_t size,
                const std::string &options) {
    const auto sent =
        words(from.ask("post beta " + kind + ' ' + std::to_string(size) + " 1 1 " + options, "posted 1 "));
    require(sent.at(0) == "0", "the library refused a message");
    const auto arrived = words(to.expect("msg "));
    require(arrived.at(2) == std::to_string(size) && arrived.at(4) == sent.at(4),
            "a message arrived changed");
    return std::stod(arrived[3]) / 1000 - std::stod(sent[2]) / 1000;
}

void show_messages(Process &alpha, Process &beta) {
    std::vector<double> times_ms;
    for (int i = 0; i < 1000; ++i) times_ms.push_back(transfer(alpha, beta, "bytes", 160, "0 0"));
    std::sort(times_ms.begin(), times_ms.end());
    show("messages", "1,000 of 160 bytes, one by one: median ", times_ms[500] * 1000,
         " us from send to callback");
    const double ms = transfer(alpha, beta, "app", TAV_IPC_MESSAGE_MAX, "7 0");
    show("large", "65,471,999 bytes in 1,023 fragments, unchanged: ", ms, " ms");
    transfer(alpha, beta, "app", 100'020, "0 0x8");
    const std::string sizes = alpha.expect("log 4 tav_ipc compress msg success, old_size=100020, new_size=");
    show("compressed", "an application message of 100,020 bytes travels as ",
         sizes.substr(0, sizes.find(',')));
}

void show_exchanges(Process &alpha) {
    const std::string sent = alpha.ask("exchange request beta 7 100000 60", "exchanging 7 ");
    require(alpha.expect("exchanged 7 ") == "0 " + sent, "the answer is wrong");
    show("request", "100,000 bytes, answered with the same bytes");
    require(alpha.ask("exchange confirm beta 8 160 60", "exchanged 8 ") == "0 -", "no confirmation");
    show("confirmed", "160 bytes, acknowledged by the receiving library");
    require(alpha.ask("exchange confirm nobody 10 160 1", "exchanged 10 ") == "-102 -", "nobody confirmed");
    show("nobody", "a message to an endpoint that does not exist: -102, ", tav_ipc_strerror(-102));
}

void show_files(const Installation &place, Process &alpha, Process &filer) {
    const std::string path = place.config() / "file";
    std::ofstream(path, std::ios::binary) << std::string(100'000'000, 'f') << std::flush;
    const auto begun = std::chrono::steady_clock::now();
    const std::string sent = alpha.ask("file filer " + path + " 60", "sending ");
    require(std::stoi(alpha.expect("file ")) >= 0 && filer.expect("got ") == sent, "the file was not sent");
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    show("file", "100,000,000 bytes, unchanged: ", took.count(), " s, with a digest on both sides");
    require(alpha.ask("file beta " + path + " 60", "file ") == "-109", "beta accepted a file");
    show("", "to beta, which accepts no files: -109, ", tav_ipc_strerror(-109));
}

void run() {
    const auto root = std::filesystem::path(TAVIPC_DEMO_DIRECTORY) / std::to_string(getpid());
    const Installation place({root, 2, true});
    place.allow({"alpha", "beta", "filer"});
    std::cout << "tavipc demo: every module is a process of its own\n";
    show("programs", (root / "bin").string(), ", sockets in ", place.sockets().string());
    Process alpha = place.start("alpha", {"TAV_LOG_LEVEL=4"}), beta = place.start("beta");
    Process filer = place.start("filer"), intruder = place.start("intruder");
    const std::string id = alpha.ask("open alpha", "opened ");
    require(id != "0" && beta.ask("open beta", "opened ") == id, "the agent ids differ");
    show("agent id", id, ", the same in alpha and in beta");
    filer.ask("accept filer", "opened ");
    show_messages(alpha, beta);
    show_exchanges(alpha);
    show_files(place, alpha, filer);
    intruder.ask("open intruder", "refused");
    intruder.expect("log 1 ipc_crypt process [intruder] is not white process");
    show("refused", "the program \"intruder\" is not in the signed list and gets no endpoint");
    for (Process *module : {&alpha, &beta, &filer, &intruder})
        require(module->finish() == 0, "a module failed");
    std::cout << "all checks passed" << std::endl;
}

} // namespace

int main() {
    try {
        run();
        return EXIT_SUCCESS;
    } catch (const std::exception &error) {
        std::cerr << "tavipc-demo: FAILED: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
