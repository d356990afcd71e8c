// Shell, paths and resolver.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tavbase.h"

static int haste = 1; // of the monotonic clock

// As the C++ library calls it, with a long for the seconds, also where time_t has 64 bits.
struct ShortTime {
    long seconds, nanoseconds;
};
extern "C" [[gnu::visibility("default")]] int hasty_clock(clockid_t clock, ShortTime *now) noexcept
    __asm__("clock_gettime");
int hasty_clock(clockid_t clock, ShortTime *now) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (clock == CLOCK_MONOTONIC) now->seconds *= haste;
    return static_cast<int>(result);
}

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string run(const std::string &command, size_t size = 64) {
    std::string out(size + 8, '#');
    const auto start = Clock::now();
    const int result = shell_execute(command.c_str(), out.data(), static_cast<int>(size));
    EXPECT_LT(Clock::now() - start, 4s * haste) << command;
    EXPECT_EQ(out.substr(size), "########");
    return std::to_string(result) + " " + out.c_str();
}

TEST(Shell, ResultAndOutput) {
    std::signal(SIGPIPE, SIG_IGN);
    ASSERT_NE(std::freopen("/dev/zero", "r", stdin), nullptr);
    EXPECT_EQ(run("kill -PIPE $$; echo survived"), "-1 "); // though it is ignored here
    EXPECT_EQ(run("echo yes; exit 3"), "-1 yes\n");
    EXPECT_EQ(run("echo yes; kill -9 $$"), "-1 yes\n");
    EXPECT_EQ(run("true"), "-1 ");
    EXPECT_EQ(run("cat; echo done"), "0 done\n"); // standard input is empty
    EXPECT_EQ(run("printf part; exec >&-; sleep 0.1; exit 0"), "0 part");
    EXPECT_EQ(run("printf part; exec >&-; sleep 0.1; exit 1"), "-1 part");
    EXPECT_EQ(run("head -c 300000 /dev/zero | tr '\\0' x", 8), "0 xxxxxxx"); // cut, and the rest read
    EXPECT_EQ(run("echo x", 1), "0 ");
    EXPECT_EQ(run("echo x", 0), "-1 ########");
    EXPECT_EQ(kill(std::stoi(run("sleep 8 & echo $!").substr(2)), SIGKILL), 0); // it goes on running
}

TEST(Shell, LostStatusCountsAsSuccess) {
    struct sigaction before {
    }, action{};
    sigaction(SIGCHLD, nullptr, &before);
    const auto reap = [](int) {
        while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
    };
    for (const auto &[handler, flags] :
         {std::pair<void (*)(int), int>{SIG_IGN, 0}, {[](int) {}, SA_NOCLDWAIT}, {reap, 0}}) {
        action.sa_handler = handler;
        action.sa_flags = flags;
        sigaction(SIGCHLD, &action, nullptr);
        EXPECT_EQ(run("printf whole; exec >&-; sleep 0.05; exit 3"), "0 whole");
        EXPECT_EQ(run("exit 3"), "-1 ");
    }
    sigaction(SIGCHLD, &before, nullptr);
}

TEST(Shell, IsEndedAtTheLimitWithAllItsChildren) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // orphans become children of this process
    haste = 5;
    std::jthread silent([] { run("exec >&-; sleep 9"); });
    const auto start = Clock::now();
    EXPECT_EQ(run("sleep 9 & yes", 5), "-1 y\ny\n"); // a flood without an end
    EXPECT_GE(Clock::now() - start, 10s);
    silent.join();
    haste = 1;
    int orphans = 0;
    for (int status; waitpid(-1, &status, 0) > 0; ++orphans) EXPECT_EQ(status, SIGKILL);
    EXPECT_GT(orphans, 0);
}

TEST(Paths, AtSignIsTheExecutablesDirectory) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    char out[4096];
    for (const auto &[text, whole] : {std::pair{"@/../config", self + "/../config"}, {"/etc/@x", "/etc/@x"}})
        for (const int cut : {0, 1}) {
            EXPECT_EQ(dirutils_path_transform(text, out, static_cast<int>(whole.size()) + 1 - cut), -cut);
            EXPECT_EQ(out, whole.substr(0, whole.size() - static_cast<size_t>(cut)));
        }
}

TEST(Resolver, GivesIpv4TextOrLeavesTheBufferAlone) {
    const auto resolve = [](const char *host) {
        char ip[16] = "untouched";
        return std::to_string(get_ipaddr_by_host(host, ip)) + " " + ip;
    };
    for (const char *host : {"", "::1", "300.1.1.1.1", "bad_host.invalid"})
        EXPECT_EQ(resolve(host), "0 untouched") << host;
    EXPECT_EQ(resolve("255.255.255.254"), "1 255.255.255.254");
    EXPECT_EQ(resolve("localhost").substr(0, 6), "1 127.");
}

} // namespace
