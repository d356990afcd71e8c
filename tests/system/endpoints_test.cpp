// Who may open an endpoint, under which name, and with which host id.
#include <algorithm>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

TEST(Endpoints, OnlyListedExecutablesOpenThem) {
    const Installation place{{}};
    place.allow({"listed", "other"});
    Process listed = place.start("listed"), intruder = place.start("intruder");
    listed.ask("open alpha", "opened 4242");
    intruder.ask("open beta", "refused");
    intruder.expect("log 1 ipc_crypt process [intruder] is not white process");
    intruder.expect("log 1 tav_ipc process is not valid");
    EXPECT_EQ(intruder.finish(), 0);
    EXPECT_EQ(listed.finish(), 0);
    EXPECT_FALSE(fs::exists(place.sockets() / "alpha")); // closed in good order
}

TEST(Endpoints, ChangedListIsRefused) {
    const Installation place{{}};
    place.allow({"module"});
    std::ofstream(place.config() / "linux.json", std::ios::app) << ' ';
    Process module = place.start("module");
    module.ask("open alpha", "refused");
    // Signed again it holds: nothing is remembered.
    place.allow({"module"});
    module.ask("open alpha", "opened");
}

TEST(Endpoints, LiveNameIsRefusedAndStaleFileReplaced) {
    const Installation place{{}};
    place.allow({"first", "second", "sender"});
    Process first = place.start("first"), second = place.start("second"), sender = place.start("sender");
    first.ask("open name", "opened");
    second.ask("open name", "refused");
    sender.ask("open sender", "opened");
    sender.ask("send name 0 bytes 10 1 0 0", "sent 1");
    first.expect("msg sender 0 10");

    EXPECT_EQ(first.kill(), -SIGKILL);
    ASSERT_TRUE(fs::is_socket(place.sockets() / "name"));
    second.ask("open name", "opened");
    sender.ask("send name 0 bytes 11 1 0 0", "sent 1"); // and the sender finds the new owner
    second.expect("msg sender 0 11");
}

TEST(Endpoints, SendingSocketsOfTheDeadAreRemoved) {
    const Installation place{{}};
    place.allow({"dead", "alive", "next"});
    Process dead = place.start("dead"), alive = place.start("alive"), next = place.start("next");
    for (const auto &[process, other] : {std::pair{&dead, "alive"}, {&alive, "dead"}}) {
        process->ask(process == &dead ? "open dead" : "open alive", "opened");
        process->ask("send " + std::string(other) + " 0 bytes 10 1 0 0", "sent 1");
    }
    const std::string pid = std::to_string(dead.pid()), living = "ipc" + std::to_string(alive.pid()) + '_';
    EXPECT_EQ(dead.kill(), -SIGKILL);
    const auto files_of = [&](const std::string &beginning) {
        return std::count_if(fs::directory_iterator(place.sockets()), {}, [&](const auto &file) {
            return file.path().filename().string().rfind(beginning, 0) == 0;
        });
    };
    const std::string others[] = {"ipc" + pid + "_10001", "ipc" + pid + "_", "ipc" + pid + "_007",
                                  "xipc" + pid + "_1"};
    for (const auto &name : others)
        std::ofstream(place.sockets() / name) << "not a socket, or not one's name";
    ASSERT_EQ(files_of("ipc" + pid + '_'), 4);
    ASSERT_EQ(files_of(living), 1);
    next.ask("open next", "opened");
    EXPECT_EQ(files_of("ipc" + pid + '_'), 3);
    EXPECT_EQ(files_of(living), 1);
    for (const auto &name : others) EXPECT_TRUE(fs::exists(place.sockets() / name)) << name;
}

TEST(Endpoints, BadNamesAreRefused) {
    const Installation place{{}};
    place.allow({"module"});
    Process module = place.start("module");
    module.ask("open ten_letter", "refused");
    module.ask("open ../escape", "refused");
    module.ask("open ninechars", "opened");
}

// The one test with the real agent id: all processes of the machine share its lock.
TEST(Identity, IsTheSameInAllProcessesAndOnDisk) {
    Installation::Setup setup;
    setup.agent_id = true;
    const Installation place(setup);
    place.allow({"alpha", "beta"});
    Process alpha = place.start("alpha"), beta = place.start("beta");
    const std::string id = alpha.ask("open alpha", "opened ");
    EXPECT_NE(id, "0");
    EXPECT_EQ(beta.ask("open beta", "opened "), id);
    uint32_t stored = 0;
    std::ifstream(place.config() / "machineid", std::ios::binary)
        .read(reinterpret_cast<char *>(&stored), sizeof stored);
    EXPECT_EQ(std::to_string(stored), id);
}

} // namespace
