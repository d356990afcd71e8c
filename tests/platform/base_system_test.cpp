// Shell, paths and resolver.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tavbase.h"

static long skipped_s = 0; // the monotonic clock is ahead by these
static std::function<void(pollfd &)> on_poll;

// As the C++ library calls it, with a long for the seconds, also where time_t has 64 bits.
struct ShortTime {
    long seconds, nanoseconds;
};
#pragma GCC visibility push(default)
extern "C" int stepped_clock(clockid_t clock, ShortTime *now) noexcept __asm__("clock_gettime");
int stepped_clock(clockid_t clock, ShortTime *now) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (clock == CLOCK_MONOTONIC) now->seconds += skipped_s;
    return static_cast<int>(result);
}
static const auto real_poll = reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"));
extern "C" int poll(pollfd *fds, nfds_t number, int timeout_ms) {
    if (on_poll) on_poll(*fds);
    return real_poll(fds, number, timeout_ms);
}
#pragma GCC visibility pop

std::string run(const std::string &command, size_t size = 64) {
    std::string out(size + 8, '#');
    const int result = shell_execute(command.c_str(), out.data(), static_cast<int>(size));
    EXPECT_EQ(out.substr(size), "########");
    return std::to_string(result) + " " + out.c_str();
}

// Runs a command that closes its output, and goes on and ends after shell_execute has noticed that.
std::string run_on_after_eof(const std::string &rest) {
    int gate[2];
    EXPECT_EQ(pipe2(gate, O_CLOEXEC), 0);
    on_poll = [&](const pollfd &polled) {
        siginfo_t end;
        if (polled.fd < 0 && write(gate[1], "\n", 1) == 1) waitid(P_ALL, 0, &end, WEXITED | WNOWAIT);
    };
    const std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(gate[0]);
    const std::string result = run("printf part; exec >&-; read line <" + path + "; " + rest);
    on_poll = nullptr;
    for (const int fd : gate) close(fd);
    return result;
}

TEST(Shell, ResultAndOutput) {
    std::signal(SIGPIPE, SIG_IGN);
    ASSERT_NE(std::freopen("/dev/zero", "r", stdin), nullptr);
    EXPECT_EQ(run("kill -PIPE $$; echo survived"), "-1 "); // though it is ignored here
    EXPECT_EQ(run("echo yes; exit 3"), "-1 yes\n");
    EXPECT_EQ(run("true"), "-1 ");
    EXPECT_EQ(run("cat; echo done"), "0 done\n"); // standard input is empty
    EXPECT_EQ(run_on_after_eof("exit 0"), "0 part");
    EXPECT_EQ(run_on_after_eof("exit 1"), "-1 part");
    EXPECT_EQ(run("head -c 300000 /dev/zero | tr '\\0' x", 8), "0 xxxxxxx"); // cut, and the rest read
    EXPECT_EQ(run("echo x", 1), "0 ");
    EXPECT_EQ(run("echo x", 0), "-1 ########");
    EXPECT_EQ(kill(std::stoi(run("sleep 60 & echo $!").substr(2)), SIGKILL), 0); // it goes on running
}

TEST(Shell, LostStatusCountsAsSuccess) {
    const auto reap = [](int) {
        const int error = errno;
        while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
        errno = error;
    };
    for (const sighandler_t handler : {SIG_IGN, sighandler_t(reap)}) {
        std::signal(SIGCHLD, handler);
        EXPECT_EQ(run_on_after_eof("exit 3"), "0 part");
        EXPECT_EQ(run("exit 3"), "-1 ");
    }
    std::signal(SIGCHLD, SIG_DFL);
}

TEST(Shell, IsEndedAtTheLimitWithAllItsChildren) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // orphans become children of this process
    on_poll = [](pollfd &polled) {
        if (polled.fd >= 0) real_poll(&polled, 1, -1); // until there is output, or its end
        ++skipped_s;
    };
    for (const auto &[command, output] :
         {std::pair{"exec >&-; sleep 9", "-1 "}, {"sleep 9 & yes", "-1 y\ny\n"}}) { // a flood without an end
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(run(command, 5), output);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    }
    on_poll = nullptr;
    int orphans = 0;
    for (int status; waitpid(-1, &status, 0) > 0; ++orphans) EXPECT_EQ(status, SIGKILL);
    EXPECT_GT(orphans, 0);
}

TEST(Paths, AtSignIsTheExecutablesDirectory) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::string whole = self + "/../config";
    char out[4096];
    for (const int cut : {0, 1}) {
        const int size = static_cast<int>(whole.size()) + 1 - cut;
        EXPECT_EQ(dirutils_path_transform("@/../config", out, size), -cut);
        EXPECT_EQ(out, whole.substr(0, static_cast<size_t>(size) - 1));
    }
    EXPECT_EQ(dirutils_path_transform("/etc/@x", out, sizeof out), 0);
    EXPECT_STREQ(out, "/etc/@x");
}

TEST(Resolver, GivesIpv4TextOrLeavesTheBufferAlone) {
    char ip[16] = "untouched";
    for (const std::string &host : {std::string(), std::string("::1"), std::string(64, 'x')}) // no query
        EXPECT_EQ(get_ipaddr_by_host(host.c_str(), ip), 0) << host;
    EXPECT_STREQ(ip, "untouched");
    EXPECT_EQ(get_ipaddr_by_host("255.255.255.254", ip), 1);
    EXPECT_STREQ(ip, "255.255.255.254");
    EXPECT_EQ(get_ipaddr_by_host("localhost", ip), 1);
    EXPECT_TRUE(std::string_view(ip).starts_with("127.")) << ip;
}
