// tav-bridge - joins locations and machines through NATS; tav-bridge(8).
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

#include "bridge.h"
#include "check.h"
#include "common/log.h"
#include "common/service.h"
#include "tavaux.h"
#include "tavbase.h"

namespace {

using namespace tavbridge;

constexpr int kMisuse = 2; // exit status
constexpr const char *kSettingsFile = "@/../config/tav-bridge.ini";

void usage(FILE *out) {
    std::fputs(
        "usage: tav-bridge [-c FILE] [--check]\n"
        "  -c, --config FILE  the settings; default: config/tav-bridge.ini beside the directory of the "
        "executable\n"
        "  --check            tests every setting, the engine, the streams and the consumers, and ends\n"
        "  --version, --help\n",
        out);
}

std::string default_path() {
    char path[PATH_MAX];
    return dirutils_path_transform(kSettingsFile, path, sizeof path) == 0 ? path : "";
}

// Makes a stopped process's error lines end with what to do.
int fail(const std::string &reason) {
    std::fprintf(stderr, "tav-bridge: %s\n  what to do: tav-bridge --check\n", reason.c_str());
    return EXIT_FAILURE;
}

int serve(const Settings &settings, const Problems &problems) {
    if (!problems.empty()) return fail(problems.front());
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
    std::string path;
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i] == "--help") return usage(stdout), EXIT_SUCCESS;
        if (words[i] == "--version") return std::puts("tav-bridge " TAVIPC_VERSION), EXIT_SUCCESS;
        if (words[i] == "--check")
            only_check = true;
        else if ((words[i] == "-c" || words[i] == "--config") && i + 1 < words.size())
            path = words[++i];
        else
            return usage(stderr), kMisuse;
    }
    Problems problems;
    const Settings settings = load_settings(path.empty() ? default_path() : path, problems);
    if (!only_check) return serve(settings, problems);
    return check(settings, problems, {static_cast<uint8_t>(tav_get_location()), tav_get_hostid()});
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
