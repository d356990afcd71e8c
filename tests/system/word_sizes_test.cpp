// Modules of two builds, of 32 and of 64 bits, on one machine: what one sends the other gets, and the
// identity that one stores the other has.
#include <array>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

std::string contents(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The fifth byte of a program: 1 for 32 bits, 2 for 64.
int word_size(const fs::path &program) { return contents(program).at(4); }

struct TwoBuilds : ::testing::Test {
    explicit TwoBuilds(const Installation::Setup &setup = {}) : place(setup) {
        place.allow({"ours", "theirs"});
        fs::copy_file(TAVIPC_OTHER_MODULE, place.config() / "../bin/theirs");
    }
    Installation place;
};

TEST_F(TwoBuilds, ExchangeMessagesRequestsAndFiles) {
    Process ours = place.start("ours"), theirs = place.start("theirs");
    ASSERT_NE(word_size(place.config() / "../bin/ours"), word_size(place.config() / "../bin/theirs"));
    ours.ask("accept ours", "opened");
    theirs.ask("accept theirs", "opened");
    const fs::path file = place.config() / "file";
    std::ofstream(file) << std::string(300'001, 'f');
    for (const bool back : {false, true}) {
        Process &from = back ? theirs : ours, &to = back ? ours : theirs;
        const std::string source = back ? "theirs" : "ours", dest = back ? "ours" : "theirs";
        // Messages: of one datagram, in fragments, the longest, compressed; size and digest arrive.
        for (const std::string kind :
             {"bytes 160 1 0 0", "bytes 64001 1 0 0", "bytes 65471999 1 0x2 0", "app 500000 1 0 0x8"}) {
            from.ask(kind.front() == 'a' ? "level 4" : "level 1", "done");
            const auto sent = words(from.ask("send " + dest + " 0 " + kind, "sent 1 "));
            const auto got = words(to.expect("msg " + source + " 0 "));
            EXPECT_EQ(got.at(0), words(kind).at(1));
            EXPECT_EQ(got.at(2), sent.at(1)) << kind;
        }
        from.expect("log 4 tav_ipc compress msg success");
        const std::string digest = from.ask("request " + dest + " 7 1000000 60", "requested ");
        EXPECT_EQ(from.expect("answered "), "0 8 1000000 " + digest);
        EXPECT_EQ(from.ask("confirm " + dest + " 160 60", "confirmed "), "0");
        const std::string sending = from.ask("file " + dest + ' ' + file.string() + " 60", "sending ");
        EXPECT_EQ(to.expect("got "), sending);
        EXPECT_GE(std::stoi(from.expect("file ")), 0);
        to.take();
        from.take();
    }
    EXPECT_EQ(ours.finish(), 0);
    EXPECT_EQ(theirs.finish(), 0);
}

struct TwoBuildsWithAgentId : TwoBuilds {
    TwoBuildsWithAgentId() : TwoBuilds({.root = {}, .location = 2, .agent_id = true}) {}
};

// Each makes an identity of its own accord, from the same hardware, and finds the other's.
TEST_F(TwoBuildsWithAgentId, MakeAndReadTheSame) {
    const fs::path machineid = place.config() / "machineid";
    const std::string given = contents(machineid); // where there is no hardware to make one from
    std::array<std::string, 2> made;
    for (const bool back : {false, true}) {
        if (given.empty()) fs::remove(machineid);
        Process first = place.start(back ? "theirs" : "ours"), second = place.start(back ? "ours" : "theirs");
        const std::string id = first.ask("open first", "opened ");
        made[back] = contents(machineid);
        EXPECT_EQ(second.ask("open second", "opened "), id);
        EXPECT_EQ(contents(machineid), made[back]);
    }
    EXPECT_GE(made[0].size(), 4u);
    EXPECT_EQ(made[0], made[1]);
}

} // namespace
