// tav-bridge - joins locations and machines through NATS; tav-bridge(8).
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <openssl/crypto.h>

#include "bridge.h"
#include "tavbase.h"

namespace {

using namespace tavbridge;

int usage(FILE *out, int status) {
    std::fputs(
        "usage: tav-bridge [-c FILE] [--check]\n"
        "  -c, --config FILE  the settings; default: config/tav-bridge.ini of the agent\n"
        "  --check            tests every setting, the engine, the streams and the consumers, and ends\n"
        "  --version, --help\n",
        out);
    return status;
}

// A stopped process's last lines end with what to do.
int fail(const std::string &reason) {
    std::fprintf(stderr, "tav-bridge: %s\n  what to do: tav-bridge --check\n", reason.c_str());
    return EXIT_FAILURE;
}

int check(const Settings &settings, const Problems &problems) {
    for (const std::string &problem : problems) say(false, problem);
    if (!problems.empty()) return EXIT_FAILURE;
    std::string reason;
    const Options options = make_options(settings, reason);
    natsConnection *made = nullptr;
    const natsStatus status = options ? natsConnection_Connect(&made, options.get()) : NATS_ERR;
    const Connection connection(made);
    char url[256] = "";
    if (status == NATS_OK) natsConnection_GetConnectedUrl(made, url, sizeof url);
    if (options && status != NATS_OK) reason = std::string(natsStatus_GetText(status)) + ": " + error_text();
    if (!say(made, made ? "connected to " : "no connection: ", made ? url : reason)) return EXIT_FAILURE;
    const int64_t most = natsConnection_GetMaxPayload(made);
    bool good = most >= kLeastPayload || say(false, "the engine's max_payload is less than ", kLeastPayload);
    if (settings.home.durable) good &= Provision(made, settings).check();
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}

int serve(const Settings &settings) {
    if (!std::getenv("TAV_LOG_LEVEL")) error_output_set_level(3); // drops and connections
    Bridge bridge(settings);
    std::string reason;
    if (!bridge.start(reason)) return fail(reason);
    const auto stop = [](cl_signal_t, int, void *argument) {
        tavipc::notify("STOPPING=1");
        static_cast<Bridge *>(argument)->stop();
    };
    cl_signal_start(SIGTERM, stop, &bridge);
    cl_signal_start(SIGINT, stop, &bridge);
    tavipc::notify("READY=1");
    cl_event_loop_run();
    return EXIT_SUCCESS;
}

int run(const std::vector<std::string> &words) {
    bool only_check = false;
    char path[PATH_MAX] = "";
    dirutils_path_transform("@/../config/tav-bridge.ini", path, sizeof path);
    std::string file = path;
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i] == "--help") return usage(stdout, EXIT_SUCCESS);
        if (words[i] == "--version") return std::puts("tav-bridge " TAVIPC_VERSION), EXIT_SUCCESS;
        if (words[i] == "--check")
            only_check = true;
        else if ((words[i] == "-c" || words[i] == "--config") && i + 1 < words.size())
            file = words[++i];
        else
            return usage(stderr, 2);
    }
    Problems problems;
    Settings settings = load_settings(file, problems);
    settings.home.place = {static_cast<uint8_t>(tav_get_location()), tav_get_hostid()};
    if (settings.home.place.location == 0 || settings.home.place.hostid == 0)
        problems.push_back("this installation has no location or no host id");
    if (only_check) return check(settings, problems);
    if (!problems.empty()) return fail(problems.front());
    return serve(settings);
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    // At exit nats.c frees a table that OpenSSL's own handler would free again.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    try {
        const int status = run({argv, argv + argc});
        cl_event_loop_release();
        return status;
    } catch (const std::exception &error) {
        return fail(error.what());
    }
}
