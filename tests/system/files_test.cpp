// Files between real processes: whole, and what happens when a side dies or two senders draw the same id.
#include <csignal>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

constexpr size_t kChunk = 64'000; // bytes of a file in one datagram

// The altered module program with an endpoint that accepts files.
struct Module : Process {
    Module(const Installation &place, const std::string &name,
           const std::vector<std::string> &environment = {})
        : Process(place.put(name, TAVIPC_ALTERED_MODULE), environment) {
        ask("accept " + name, "opened ");
    }
};

class Files : public ::testing::Test {
  protected:
    Files() { place.allow({"alpha", "beta", "gamma"}); }
    ~Files() override { fs::remove(temporary); }

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

    Installation place{{}};
    fs::path temporary; // beta's
};

TEST_F(Files, ArriveWhole) {
    Module alpha(place, "alpha"), beta(place, "beta");
    for (const size_t size : {size_t{0}, 3 * kChunk, size_t{20'000'017}}) {
        const std::string sent = alpha.ask("file beta " + write(size) + " 60", "sending ");
        EXPECT_GE(std::stoi(alpha.expect("file ")), 0);
        EXPECT_EQ(beta.expect("got "), sent);
    }
}

TEST_F(Files, SecondSenderWithTheSameIdIsRefused) {
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

TEST_F(Files, DeadReceiverEndsTheTransferAndExchanges) {
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

TEST_F(Files, WhatADeadSenderBeganIsRemoved) {
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

} // namespace
