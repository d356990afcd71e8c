// tav-bridge - joins locations and machines through NATS; tav-bridge(8).
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <getopt.h>

#include "bridge.h"
#include "check.h"
#include "common/log.h"
#include "notify.h"
#include "tavaux.h"
#include "tavbase.h"

namespace {

using namespace tavbridge;

constexpr int kMisuse = 2;
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
    Bridge bridge(settings);
    std::string reason;
    if (!bridge.start(reason)) return fail(reason);
    const auto stop = [](cl_signal_t, int, void *argument) {
        notify("STOPPING=1");
        static_cast<Bridge *>(argument)->stop();
    };
    cl_signal_start(SIGTERM, stop, &bridge);
    cl_signal_start(SIGINT, stop, &bridge);
    notify("READY=1");
    cl_event_loop_run();
    return EXIT_SUCCESS;
}

int run(int argc, char **argv) {
    enum { kCheck = 256, kVersion, kHelp };
    static constexpr option options[] = {{"config", required_argument, nullptr, 'c'},
                                         {"check", no_argument, nullptr, kCheck},
                                         {"version", no_argument, nullptr, kVersion},
                                         {"help", no_argument, nullptr, kHelp},
                                         {nullptr, 0, nullptr, 0}};
    std::string path;
    int what = 0;
    for (int found; (found = getopt_long(argc, argv, "c:", options, nullptr)) != -1;) {
        if (found == '?') return usage(stderr), kMisuse;
        if (found == 'c')
            path = optarg;
        else
            what = found;
    }
    if (optind < argc) return usage(stderr), kMisuse;
    if (what == kHelp) return usage(stdout), EXIT_SUCCESS;
    if (what == kVersion) return std::puts("tav-bridge " TAVIPC_VERSION), EXIT_SUCCESS;
    Problems problems;
    const Settings settings = load_settings(path.empty() ? default_path() : path, problems);
    if (what == 0) return serve(settings, problems);
    const Place home{static_cast<uint8_t>(tav_get_location()), tav_get_hostid()};
    return check(settings, problems, home);
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const int status = run(argc, argv);
        cl_event_loop_release();
        return status;
    } catch (const std::exception &error) {
        return fail(error.what());
    }
}
