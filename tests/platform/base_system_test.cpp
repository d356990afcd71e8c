// Shell, paths and resolver.
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <signal.h>

#include <gtest/gtest.h>

#include "tavbase.h"
#include "temp_dir.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Shell {
    explicit Shell(const std::string &command, size_t size = 64) {
        const auto start = Clock::now();
        std::string buffer(size + 8, '#');
        result = shell_execute(command.c_str(), buffer.data(), static_cast<int>(size));
        took = Clock::now() - start;
        output = buffer.c_str();
        EXPECT_EQ(buffer.substr(size), "########");
    }
    int result;
    std::string output;
    Clock::duration took;
};

TEST(Shell, ResultAndOutput) {
    const struct {
        const char *command;
        int result;
        const char *output;
    } cases[] = {
        {"echo one; echo two", 0, "one\ntwo\n"},
        {"echo yes; exit 3", -1, "yes\n"},
        {"echo yes; kill -9 $$", -1, "yes\n"},
        {"true", -1, ""},
        {"cat; echo done", 0, "done\n"}, // standard input is empty
        {"printf part; exec >&-; sleep 0.1; exit 0", 0, "part"},
        {"exec >&-; sleep 0.1; exit 1", -1, ""},
        {"kill -PIPE $$; echo survived", -1, ""}, // though it is ignored here
    };
    const auto previous = signal(SIGPIPE, SIG_IGN);
    for (const auto &c : cases) {
        const Shell shell(c.command);
        EXPECT_EQ(shell.result, c.result) << c.command;
        EXPECT_EQ(shell.output, c.output) << c.command;
        EXPECT_LT(shell.took, 5s) << c.command;
    }
    signal(SIGPIPE, previous);
}

TEST(Shell, FullBufferIsCutAndTheRestRead) {
    const Shell shell("head -c 300000 /dev/zero | tr '\\0' x", 8);
    EXPECT_EQ(shell.result, 0);
    EXPECT_EQ(shell.output, "xxxxxxx");
    EXPECT_EQ(Shell("echo x", 1).result, 0);
    char byte = '#';
    EXPECT_EQ(shell_execute("echo x", &byte, 0), -1);
    EXPECT_EQ(byte, '#');
}

TEST(Shell, WhatStaysInTheBackgroundDoesNotHoldTheCall) {
    const Shell shell("sleep 8 & echo $!");
    EXPECT_EQ(shell.result, 0);
    EXPECT_LT(shell.took, 4s);
    EXPECT_EQ(kill(std::stoi(shell.output), SIGKILL), 0) << "it goes on running";
}

TEST(Shell, IsEndedAtTheLimitWithAllItsChildren) {
    const TempDir dir;
    const std::string pid_file = dir / "pid";
    std::jthread silent([] { // waits for its limit at the same time
        const Shell shell("exec >&-; sleep 60");
        EXPECT_EQ(shell.result, -1);
        EXPECT_LT(shell.took, 15s);
    });
    const Shell shell("sleep 60 & echo $! >" + pid_file + "; yes"); // floods without an end
    EXPECT_EQ(shell.result, -1);
    EXPECT_EQ(shell.output.substr(0, 4), "y\ny\n");
    EXPECT_GE(shell.took, 9900ms);
    EXPECT_LT(shell.took, 15s);

    std::string pid;
    ASSERT_TRUE(std::ifstream(pid_file) >> pid);
    const auto runs = [&] { // an orphan may stay a zombie until somebody reaps it
        std::string number, name, state;
        std::ifstream("/proc/" + pid + "/stat") >> number >> name >> state;
        return !state.empty() && state != "Z";
    };
    for (int i = 0; i < 200 && runs(); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(runs());
}

TEST(Paths, AtSignIsTheExecutablesDirectory) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    char out[4096];
    for (const auto &[text, whole] :
         {std::pair{"@/../config", self + "/../config"}, {"/etc/@x", "/etc/@x"}}) {
        const int fits = static_cast<int>(whole.size()) + 1;
        EXPECT_EQ(dirutils_path_transform(text, out, fits), 0);
        EXPECT_EQ(out, whole);
        EXPECT_EQ(dirutils_path_transform(text, out, fits - 1), -1);
        EXPECT_EQ(out, whole.substr(0, whole.size() - 1));
    }
}

TEST(Resolver, GivesIpv4TextOrLeavesTheBufferAlone) {
    char ip[16] = "untouched";
    for (const char *host : {"", "::1", "300.1.1.1.1", "no such host", "bad_host.invalid"}) {
        EXPECT_EQ(get_ipaddr_by_host(host, ip), 0) << host;
        EXPECT_STREQ(ip, "untouched");
    }
    EXPECT_EQ(get_ipaddr_by_host("255.255.255.254", ip), 1);
    EXPECT_STREQ(ip, "255.255.255.254");
    EXPECT_EQ(get_ipaddr_by_host("localhost", ip), 1);
    EXPECT_EQ(std::string(ip).substr(0, 4), "127.");
}

} // namespace
