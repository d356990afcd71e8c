// The example programs do what their first lines promise, in an installation of their own.
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

class Examples : public ::testing::Test {
  protected:
    Examples() {
        place.allow({"publish_subscribe", "request_server", "file_drop"});
        for (const auto &program : fs::directory_iterator(TAVIPC_EXAMPLES))
            fs::copy_file(program, bin / program.path().filename());
    }
    Process start(const std::string &program, const std::vector<std::string> &arguments) const {
        return Process(bin / program, {}, arguments);
    }
    Installation place{{}};
    const fs::path bin = place.config().parent_path() / "bin";
};

TEST_F(Examples, PublishSubscribe) {
    Process publisher = start("publish_subscribe", {"publish"});
    publisher.expect("ready");
    Process one = start("publish_subscribe", {"subscribe", "one", "3"});
    Process two = start("publish_subscribe", {"subscribe", "two", "5"});
    publisher.expect("welcome one");
    publisher.expect("welcome two");
    for (Process *subscriber : {&one, &two}) {
        const int first = std::stoi(subscriber->expect("number "));
        EXPECT_EQ(std::stoi(subscriber->expect("number ")), first + 1);
        EXPECT_EQ(subscriber->finish(), 0);
    }
    publisher.expect("goodbye one");
    publisher.expect("goodbye two");
}

TEST_F(Examples, RequestServer) {
    Process lonely = start("request_server", {"ask", "anybody"});
    lonely.expect("no answer: Request timeout");
    EXPECT_EQ(lonely.finish(), 1);
    Process server = start("request_server", {"serve"});
    server.expect("ready");
    Process client = start("request_server", {"ask", "hello, world"});
    client.expect("answer: HELLO, WORLD");
    EXPECT_EQ(client.finish(), 0);
}

TEST_F(Examples, FileDrop) {
    const fs::path directory = place.config().parent_path() / "kept", file = bin / "file_drop";
    fs::create_directory(directory);
    Process receiver = start("file_drop", {"receive", directory});
    receiver.expect("ready");
    Process sender = start("file_drop", {"send", file});
    sender.expect("sent");
    EXPECT_EQ(sender.finish(), 0);
    EXPECT_EQ(receiver.expect("kept "), directory / "drop-1");
    const auto content = [](const fs::path &path) {
        std::ifstream stream(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(stream), {});
    };
    EXPECT_EQ(content(directory / "drop-1"), content(file));
    Process other = start("file_drop", {"send", "/no/such/file"});
    other.expect("Can not open file");
    EXPECT_EQ(other.finish(), 1);
}

} // namespace
