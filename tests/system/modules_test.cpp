// Modules as processes: who may open an endpoint and as whom, what two of them send each other, and what a
// peer that stops or dies does to it. Where another build is given, of another word size, beta is its module.
#include <fstream>
#include <set>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

constexpr size_t kChunk = 64'000; // bytes of a file in one datagram

// A module with an endpoint of its name that accepts files; usually with a clock that the test moves.
struct Module : Process {
    Module(const Installation &place, const std::string &name,
           const std::vector<std::string> &environment = {}, const char *program = TAVIPC_ALTERED_MODULE)
        : Process(place.put(name, program), environment), hostid(ask("accept " + name, "opened ")) {}
    const std::string hostid;
};

struct Modules : testing::Test {
    Modules() { place.allow({"alpha", "beta", "gamma"}); }
    ~Modules() override { fs::remove(temporary); }

    static void post(Process &from, const std::string &size, const std::string &count = "1") {
        from.say("post beta bytes " + size + ' ' + count + " 1 0 0");
    }
    std::string write(size_t size, const char *name = "source") const {
        std::ofstream file(place.config() / name, std::ios::binary);
        for (size_t i = 0; i < size; ++i) file.put(static_cast<char>(i * 2654435761u >> 13));
        return place.config() / name;
    }
    // Sends a file of three chunks to beta, which stops itself when it has the first one.
    void send_to_stopping_beta(Process &from, Process &beta) {
        from.say("file beta " + write(3 * kChunk) + " 600");
        temporary = beta.expect("temporary ");
        siginfo_t stopped;
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(beta.pid()), &stopped, WSTOPPED), 0);
    }

    const Installation place{{}};
    fs::path temporary; // beta's
};

TEST_F(Modules, OpenEndpointsIfTheirExecutablesAreListed) {
    Process beta = place.start("beta"), intruder = place.start("intruder");
    Module alpha(place, "alpha");
    EXPECT_EQ(alpha.hostid, "4242");
    intruder.ask("open other", "refused");
    intruder.expect("log 1 ipc_crypt process [intruder] is not white process");
    std::ofstream(place.config() / "linux.json", std::ios::app) << ' '; // no longer what was signed
    beta.ask("open beta", "refused");
    place.allow({"beta"});
    beta.ask("open beta", "opened 4242");
    EXPECT_EQ(alpha.finish(), 0);
    EXPECT_FALSE(fs::exists(place.sockets() / "alpha"));
}

TEST_F(Modules, NameBelongsToOneUntilItDies) {
    Process beta = place.start("beta"), gamma = place.start("gamma");
    Module alpha(place, "alpha");
    for (const char *name : {"../escape", "alpha"}) beta.ask(std::string("open ") + name, "refused");
    EXPECT_EQ(alpha.kill(), -SIGKILL);
    ASSERT_TRUE(fs::is_socket(place.sockets() / "alpha"));
    int opened = 0; // of two that want the dead one's name at once, one gets it
    for (Process *process : {&beta, &gamma}) process->say("open alpha");
    for (Process *process : {&beta, &gamma}) {
        process->ask("descriptors 1024", "done");
        opened += process->heard("opened ");
    }
    EXPECT_EQ(opened, 1);
}

TEST(AgentIds, AreTheSameInAllModulesAndOnDisk) {
    const Installation place({.root = {}, .location = 2, .agent_id = true});
    const fs::path machineid = place.config() / "machineid";
    place.allow({"alpha", "beta"});
    uint32_t stored = 0;
    const std::string id = Module(place, "alpha").hostid;
    std::ifstream(machineid).read(reinterpret_cast<char *>(&stored), sizeof stored);
    EXPECT_EQ(id, std::to_string(stored));
    EXPECT_NE(stored, 0u);
    if (fs::file_size(machineid) > sizeof stored) fs::remove(machineid); // beta makes it again from the MACs
    EXPECT_EQ(Module(place, "beta", {}, TAVIPC_OTHER_MODULE).hostid, id);
    EXPECT_EQ(Module(place, "alpha").hostid, id);
}

TEST_F(Modules, GetMessagesAnswersAndFilesWhole) {
    Module alpha(place, "alpha", {"TAV_LOG_LEVEL=4"}), beta(place, "beta", {}, TAVIPC_OTHER_MODULE);
    for (const bool back : {false, true}) {
        Process &from = back ? beta : alpha, &to = back ? alpha : beta;
        const std::string source = back ? "beta " : "alpha ", dest = back ? "alpha " : "beta ";
        for (const std::string message :
             {"bytes 0 1 1 7 0", "bytes 160 1 1 7 0", "bytes 64000 1 1 7 0", "bytes 64001 1 1 7 0",
              "bytes 30000000 1 1 7 0", "app 65471999 1 1 7 0", "app 500000 1 1 0 0x8"}) {
            const auto sent = words(from.ask("post " + dest + message, "posted 1 ")),
                       got = words(to.expect("msg " + source + "1 "));
            EXPECT_EQ(sent.at(0) + ' ' + sent.at(4), "0 " + got.at(2)) << message; // result, digests
            EXPECT_EQ(got.at(0), words(message).at(1));
        }
        for (const std::string size : {"0", "160", "1000000"}) {
            const auto digest = from.ask("exchange request " + dest + "7 " + size + " 60", "exchanging 7 ");
            EXPECT_EQ(from.expect("exchanged 7 "), "0 " + digest);
            to.expect("asked " + source + "7 " + size + ' ' + digest);
            EXPECT_EQ(from.ask("exchange confirm " + dest + "8 " + size + " 60", "exchanged 8 "), "0 -");
            to.expect("msg " + source + "8 " + size + ' ');
        }
        EXPECT_EQ(from.ask("exchange probe " + dest + "9 0 60", "exchanged 9 "), "0 -");
        for (const size_t size : {size_t{0}, 3 * kChunk, size_t{20'000'017}}) {
            const std::string sent = from.ask("file " + dest + write(size) + " 60", "sending ");
            EXPECT_GE(std::stoi(from.expect("file ")), 0);
            EXPECT_EQ(to.expect("got "), sent);
        }
    }
    EXPECT_TRUE(alpha.heard("compress msg success, old_size=500000, new_size="));
    EXPECT_EQ(beta.finish(), 0);
    EXPECT_FALSE(beta.heard("msg ")) << "nothing comes twice";
}

TEST_F(Modules, GetAllOfTwoSendersAfterAStop) {
    Module alpha(place, "alpha"), beta(place, "beta"), gamma(place, "gamma");
    beta.signal(SIGSTOP);
    for (Process *sender : {&alpha, &gamma}) {
        post(*sender, "1000", "300");
        EXPECT_EQ(words(sender->expect("posted 300 ")).at(0), "0"); // accepted while beta stands still
    }
    beta.signal(SIGCONT);
    for (const std::string source : {"alpha", "gamma"})
        for (std::set<std::string> codes; codes.size() < 300;)
            ASSERT_TRUE(codes.insert(words(beta.expect("msg " + source + ' ')).at(0)).second);
}

TEST_F(Modules, KilledReceiverCostsALineForEachAndItsSuccessorGetsTheNext) {
    Module alpha(place, "alpha", {"TAV_LOG_LEVEL=2"});
    EXPECT_EQ(Module(place, "beta").kill(), -SIGKILL);
    post(alpha, "1000", "5");
    std::set<std::string> reqids;
    for (int i = 0; i < 5; ++i) reqids.insert(words(alpha.expect("posted ")).at(2));
    while (!reqids.empty()) {
        const std::string line = alpha.expect("log 2 tav_ipc "),
                          reqid = line.substr(line.find("|reqid=") + 7);
        if (line.find("drop it|") != line.npos) reqids.erase(reqid.substr(0, reqid.find('|')));
    }
    Module successor(place, "beta");
    post(alpha, "1001");
    EXPECT_EQ(words(successor.expect("msg alpha 1 ")).at(0), "1001");
    EXPECT_EQ(alpha.finish(), 0);
}

TEST_F(Modules, SecondSenderOfAFileWithTheSameIdIsRefused) {
    Module beta(place, "beta", {"TAVIPC_STOP_AT_FILE=1"});
    Module alpha(place, "alpha", {"TAVIPC_FIXED_ID=1"}), gamma(place, "gamma", {"TAVIPC_FIXED_ID=1"});
    send_to_stopping_beta(alpha, beta);
    gamma.say("file beta " + write(100, "other") + " 600");
    gamma.ask("descriptors 1024", "done"); // now its file waits in beta's socket
    beta.signal(SIGCONT);
    EXPECT_EQ(gamma.expect("file "), "-106");
    EXPECT_GE(std::stoi(alpha.expect("file ")), 0);
    EXPECT_EQ(words(beta.expect("got ")).at(0), std::to_string(3 * kChunk));
}

TEST_F(Modules, DeadReceiverEndsTheTransferAndExchanges) {
    Module alpha(place, "alpha"), beta(place, "beta", {"TAVIPC_STOP_AT_FILE=1"});
    send_to_stopping_beta(alpha, beta);
    EXPECT_EQ(beta.kill(), -SIGKILL);
    for (const char *what : {"request beta 1", "confirm beta 2", "probe beta 3"})
        alpha.ask(std::string("exchange ") + what + " 160 600", "exchanging ");
    alpha.ask("descriptors 1024", "done"); // everything is outstanding
    alpha.signal(SIGUSR1);                 // an hour later
    EXPECT_EQ(alpha.expect("file "), "-102");
    for (const std::string id : {"1", "2", "3"})
        EXPECT_EQ(words(alpha.expect("exchanged " + id)).at(0), "-102");
}

TEST_F(Modules, WhatADeadSenderBeganIsRemoved) {
    Module alpha(place, "alpha"), beta(place, "beta", {"TAVIPC_STOP_AT_FILE=1", "TAVIPC_SHORT_TIMERS=1"});
    send_to_stopping_beta(alpha, beta);
    EXPECT_EQ(alpha.kill(), -SIGKILL);
    beta.signal(SIGCONT);
    beta.ask("exchange confirm beta 1 10 60", "exchanged 1 "); // it has handled the first chunk
    beta.signal(SIGUSR1);
    beta.expect("removed " + temporary.string());
    EXPECT_EQ(beta.finish(), 0);
    EXPECT_FALSE(beta.heard("got"));
}
