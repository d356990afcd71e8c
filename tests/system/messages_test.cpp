// Messages, requests and confirmed messages between real processes, and what a peer that stops or dies does
// to them.
#include <csignal>
#include <set>

#include <gtest/gtest.h>

#include "installation.h"

using namespace tavipc::stage;

namespace {

class Messages : public ::testing::Test {
  protected:
    Messages() {
        place.allow({"alpha", "beta", "gamma"});
        alpha.ask("open alpha", "opened ");
        beta.ask("open beta", "opened ");
    }
    ~Messages() override { EXPECT_EQ(alpha.finish(), 0); }

    static void post(Process &from, const std::string &message, int count = 1,
                     const std::string &options = "0 0") {
        from.say("post beta " + message + ' ' + std::to_string(count) + " 1 " + options);
    }
    // Takes messages of a source until "count" command codes have arrived, none of them twice.
    void expect_each_once(const std::string &source, size_t count) {
        std::set<std::string> arrived;
        while (arrived.size() < count)
            ASSERT_TRUE(arrived.insert(words(beta.expect("msg " + source + ' ')).at(0)).second);
    }

    Installation place{{}};
    Process alpha = place.start("alpha", {"TAV_LOG_LEVEL=4"}), beta = place.start("beta");
};

TEST_F(Messages, ArriveWhole) {
    for (const std::string message : {"bytes 0", "bytes 160", "bytes 64000", "bytes 64001", "bytes 30000000",
                                      "app 65471999", "app 500000"}) {
        SCOPED_TRACE(message);
        post(alpha, message, 1, message == "app 500000" ? "0 0x8" : "7 0");
        const auto sent = words(alpha.expect("posted 1 ")), got = words(beta.expect("msg alpha 1 "));
        EXPECT_EQ(sent.at(0), "0");
        EXPECT_EQ(got.at(0), words(message).at(1));
        EXPECT_EQ(got.at(2), sent.at(4)); // digests
    }
    EXPECT_TRUE(alpha.heard("compress msg success, old_size=500000, new_size="));
}

TEST_F(Messages, StoppedReceiverGetsAllOfTwoSendersLater) {
    Process gamma = place.start("gamma");
    gamma.ask("open gamma", "opened ");
    beta.signal(SIGSTOP);
    for (Process *sender : {&alpha, &gamma}) {
        post(*sender, "bytes 1000", 300);
        EXPECT_EQ(words(sender->expect("posted 300 ")).at(0), "0"); // accepted while beta stands still
    }
    beta.signal(SIGCONT);
    expect_each_once("alpha", 300);
    expect_each_once("gamma", 300);
}

TEST_F(Messages, KilledReceiverCostsALineForEachAndItsSuccessorGetsTheNext) {
    EXPECT_EQ(beta.kill(), -SIGKILL);
    post(alpha, "bytes 1000", 5);
    std::set<std::string> reqids;
    for (int i = 0; i < 5; ++i) reqids.insert(words(alpha.expect("posted ")).at(2));
    while (!reqids.empty()) {
        const std::string line = alpha.expect("log 2 tav_ipc "),
                          reqid = line.substr(line.find("|reqid=") + 7);
        if (line.find("drop it|") != line.npos) reqids.erase(reqid.substr(0, reqid.find('|')));
    }
    Process successor = place.start("beta");
    successor.ask("open beta", "opened ");
    post(alpha, "bytes 1001");
    EXPECT_EQ(words(successor.expect("msg alpha 1 ")).at(0), "1001");
}

TEST_F(Messages, RequestsAreAnsweredAndMessagesConfirmed) {
    for (const std::string size : {"0", "160", "1000000"}) {
        const std::string digest = alpha.ask("exchange request beta 7 " + size + " 60", "exchanging 7 ");
        EXPECT_EQ(alpha.expect("exchanged 7 "), "0 " + digest);
        beta.expect("asked alpha 7 " + size + ' ' + digest);
        EXPECT_EQ(alpha.ask("exchange confirm beta 8 " + size + " 60", "exchanged 8 "), "0 -");
        beta.expect("msg alpha 8 " + size + ' ');
    }
    EXPECT_EQ(alpha.ask("exchange probe beta 9 0 60", "exchanged 9 "), "0 -");
    EXPECT_EQ(beta.finish(), 0);
    EXPECT_FALSE(beta.heard("msg "));
}

} // namespace
