// Modules of two builds, of 32 and of 64 bits: what one sends the other gets, and both make the same
// identity.
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

TEST(TwoWordSizes, MakeTheSameIdentityAndUnderstandEachOther) {
    const Installation place({.root = {}, .location = 2, .agent_id = true});
    const fs::path machineid = place.config() / "machineid", file = place.config() / "file";
    const bool made = !fs::exists(machineid); // or there is no hardware to make it from
    place.allow({"ours", "theirs"});
    const fs::path their_program = place.put("theirs", TAVIPC_OTHER_MODULE);
    Process ours = place.start("ours"), theirs = place.start("theirs");
    // The fifth byte of a program is 1 for 32 bits and 2 for 64.
    ASSERT_NE(contents(their_program).at(4), contents(their_program.parent_path() / "ours").at(4));
    const std::string id = ours.ask("accept ours", "opened "), stored = contents(machineid);
    if (made) fs::remove(machineid);
    EXPECT_EQ(theirs.ask("accept theirs", "opened "), id);
    EXPECT_EQ(contents(machineid), stored);

    std::ofstream(file) << std::string(300'001, 'f');
    for (const bool back : {false, true}) {
        Process &from = back ? theirs : ours, &to = back ? ours : theirs;
        const std::string source = back ? "theirs" : "ours", dest = back ? "ours" : "theirs";
        for (const std::string message :
             {"bytes 160 1 1 0 0", "app 65471999 1 1 7 0", "app 500000 1 1 0 0x8"}) {
            const auto sent = words(from.ask("post " + dest + ' ' + message, "posted 1 "));
            EXPECT_EQ(words(to.expect("msg " + source + " 1 ")).at(2), sent.at(4)) << message;
        }
        const std::string digest = from.ask("exchange request " + dest + " 7 1000000 60", "exchanging 7 ");
        EXPECT_EQ(from.expect("exchanged 7 "), "0 " + digest);
        const std::string sending = from.ask("file " + dest + ' ' + file.string() + " 60", "sending ");
        EXPECT_EQ(to.expect("got "), sending);
        EXPECT_GE(std::stoi(from.expect("file ")), 0);
    }
}

} // namespace
