// Requests, confirmed messages and probes between real processes, and what becomes of them when the peer
// dies.
#include <gtest/gtest.h>

#include "installation.h"

using namespace tavipc::stage;

namespace {

class Requests : public ::testing::Test {
  protected:
    Requests() {
        place.allow({"alpha", "beta"});
        alpha.ask("open alpha", "opened ");
        beta.ask("open beta", "opened ");
    }
    ~Requests() override { EXPECT_EQ(alpha.finish(), 0); }
    Installation place{{}};
    Process alpha = place.start("alpha"), beta = place.start("beta");
};

TEST_F(Requests, RequestIsAnswered) {
    for (const std::string size : {"0", "160", "1000000"}) {
        const std::string digest = alpha.ask("request beta 7 " + size + " 60", "requested ");
        EXPECT_EQ(alpha.expect("answered "), "0 8 " + size + ' ' + digest);
    }
    EXPECT_EQ(beta.finish(), 0);
}

TEST_F(Requests, MessageIsConfirmed) {
    for (const std::string size : {"0", "1000000"}) {
        EXPECT_EQ(alpha.ask("confirm beta " + size + " 60", "confirmed "), "0");
        beta.expect("msg alpha 0 " + size);
    }
}

TEST_F(Requests, ProbeTellsTheLivingFromTheDead) {
    EXPECT_EQ(alpha.ask("probe beta", "probed "), "0");
    EXPECT_FALSE(beta.heard("msg "));
    beta.kill();
    alpha.say("probe beta");
    alpha.say("confirm beta 160 1");
    alpha.say("request nobody 1 160 0");
    EXPECT_EQ(alpha.expect("confirmed "), "-102");
    EXPECT_EQ(words(alpha.expect("answered ")).at(0), "-102");
    EXPECT_FALSE(alpha.heard("probed ")); // it waits for five seconds
    EXPECT_EQ(alpha.expect("probed "), "-102");
}

TEST_F(Requests, ClosingCompletesWhatIsOutstanding) {
    beta.ask("pause 2000", "pausing");
    for (int i = 0; i < 100; ++i) alpha.say("request beta 1 160 60");
    alpha.say("confirm alpha 0 60"); // to oneself
    EXPECT_EQ(alpha.expect("confirmed "), "0");
    alpha.ask("close", "closed");
    for (int i = 0; i < 100; ++i) EXPECT_EQ(words(alpha.expect("answered ")).at(0), "-103");
    EXPECT_FALSE(alpha.heard("answered"));
}

} // namespace
