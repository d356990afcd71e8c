// Who may open an endpoint, under which name, and with which host id.
#include <csignal>
#include <fstream>

#include <gtest/gtest.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

struct Endpoints : testing::Test {
    explicit Endpoints(const Installation::Setup &setup = {}) : place(setup) {
        place.allow({"alpha", "beta"});
    }
    const Installation place;
    Process alpha = place.start("alpha"), beta = place.start("beta");
};

TEST_F(Endpoints, OnlyListedExecutablesOpenThem) {
    Process intruder = place.start("intruder");
    alpha.ask("open alpha", "opened 4242");
    intruder.ask("open other", "refused");
    intruder.expect("log 1 ipc_crypt process [intruder] is not white process");
    std::ofstream(place.config() / "linux.json", std::ios::app) << ' '; // no longer what was signed
    beta.ask("open beta", "refused");
    place.allow({"beta"});
    beta.ask("open beta", "opened 4242");
    EXPECT_EQ(alpha.finish(), 0);
    EXPECT_FALSE(fs::exists(place.sockets() / "alpha"));
}

TEST_F(Endpoints, NameBelongsToOneUntilItDies) {
    alpha.ask("open ../escape", "refused");
    alpha.ask("open name", "opened ");
    beta.ask("open name", "refused");
    EXPECT_EQ(alpha.kill(), -SIGKILL);
    ASSERT_TRUE(fs::is_socket(place.sockets() / "name"));
    // Of two that want the dead one's name at once, one gets it.
    Process rival = place.start("alpha");
    rival.say("open name"), beta.say("open name");
    int opened = 0;
    for (Process *process : {&rival, &beta}) {
        process->ask("descriptors 1024", "done");
        opened += process->heard("opened ");
    }
    EXPECT_EQ(opened, 1);
}

struct AgentIds : Endpoints {
    AgentIds() : Endpoints({.root = {}, .location = 2, .agent_id = true}) {}
};

TEST_F(AgentIds, AreTheSameInAllProcessesAndOnDisk) {
    const std::string id = alpha.ask("open alpha", "opened ");
    uint32_t stored = 0;
    EXPECT_NE(id, "0");
    EXPECT_EQ(beta.ask("open beta", "opened "), id);
    std::ifstream(place.config() / "machineid").read(reinterpret_cast<char *>(&stored), sizeof stored);
    EXPECT_EQ(std::to_string(stored), id);
}

} // namespace
