// tavctl monitor and tavctl log, with running modules.
#include <regex>

#include <gmock/gmock.h>

#include "installation.h"

using namespace tavipc::stage;
using testing::HasSubstr;

namespace {

struct Monitor : testing::Test {
    Monitor() {
        place.allow({"alpha"});
        alpha.ask("open alpha", "opened ");
    }
    const Installation place{{}};
    const std::string tool = place.tool();
    Process alpha = place.start("alpha");
};

TEST_F(Monitor, ShowsWhatBecomesOfMessages) {
    Process monitor(tool, {}, {"monitor", "--json", "--payload", "4"});
    monitor.expect("{\"type\":\"module\"");
    alpha.say("post alpha bytes 160 1 7 0 0");
    alpha.say("post alpha bytes 200000 1 8 0 0");
    alpha.say("post nobody bytes 10 1 9 0 0");
    std::vector<std::string> facts{
        "cmd\":7,.*\"sent\".*\"hex\":\"[0-9a-f]{8}\"", "cmd\":7,.*\"received\".*\"hex\":\"[0-9a-f]{8}\"",
        "cmd\":8,.*000,\"fragments\":4,\"fragments_seen\":4,\"outcome\":\"sent\"",
        "cmd\":8,.*000,\"fragments\":4,\"fragments_seen\":4,\"outcome\":\"received\"",
        "to\":\"nobody\",.*\"outcome\":\"dropped\",\"reason\":\"no_peer\""};
    while (!facts.empty()) { // in any order; a missing one is waited for in vain
        const std::string line = monitor.expect("{\"type\":\"message\"");
        std::erase_if(facts, [&](const auto &fact) { return std::regex_search(line, std::regex(fact)); });
    }
    monitor.signal(SIGINT);
    EXPECT_THAT(monitor.expect("{\"type\":\"end\""), HasSubstr("\"missed\":0,\"ignored\":0"));
}

TEST_F(Monitor, WiresharkReadsItsFile) {
    if (run({"/bin/sh", "-c", "command -v tshark"}).status != 0)
        GTEST_SKIP() << "left out: tshark is not installed";
    const std::string file = place.config() / "capture";
    Process monitor(tool, {}, {"monitor", "--pcap", file, "--outcome", "sent", "-c", "3"});
    monitor.expect("-- alpha");
    alpha.ask("post alpha bytes 64003 1 7 0 0", "posted 7 0");
    alpha.ask("exchange request alpha 8 10 5", "exchanged 8 0");
    EXPECT_EQ(monitor.finish(), 0);
    const std::string read =
        "tshark -X lua_script:" TAVIPC_DISSECTOR " -T fields -e tavipc.src -e tavipc.kind "
        "-e tavipc.size -e tavipc.frag.number -e tavipc.check.right -e frame.comment -r ";
    EXPECT_EQ(
        run({"/bin/sh", "-c", read + file}).output,
        "alpha\tmessage\t64000\t0\t1\tsent\nalpha\tmessage\t3\t1\t1\tsent\nalpha\trequest\t10\t\t1\tsent\n");
}

TEST_F(Monitor, FourAreServedAndOneTakesThePlaceOfAKilledOne) {
    Process killed(tool, {}, {"monitor"}),
        others[] = {{tool, {}, {"monitor"}}, {tool, {}, {"monitor"}}, {tool, {}, {"monitor"}}};
    for (Process *monitor : {&killed, others, others + 1, others + 2}) monitor->expect("TIME");
    EXPECT_THAT(run({tool, "log", "alpha", "4"}).errors, HasSubstr("serve no further monitor"));
    killed.kill();
    EXPECT_THAT(run({tool, "log", "alpha", "4"}).output, HasSubstr("alpha: log level 4 in process "));
    alpha.expect("log 3 tav_ipc a monitor has set the log level to 4");
    for (Process &monitor : others) {
        monitor.signal(SIGTERM);
        EXPECT_EQ(monitor.finish(), 0);
    }
    for (const char *name : {"ipc.monitor0", "ipc.monitor1", "ipc.monitor2", "ipc.monitor3"})
        EXPECT_FALSE(std::filesystem::exists(place.sockets() / name)) << name;
    alpha.kill();
    EXPECT_THAT(run({tool, "log", "alpha", "3"}).errors, HasSubstr("is stale, its process is gone"));
}

} // namespace
