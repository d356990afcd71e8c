// The example programs do what their first lines promise, in an installation of their own.

#include <gtest/gtest.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

struct Examples : testing::Test {
    Examples() {
        std::vector<std::string> names;
        for (const auto &program : fs::directory_iterator(TAVIPC_EXAMPLES))
            place.put(names.emplace_back(program.path().filename()), program);
        place.allow(names);
    }
    const Installation place{{}};
};

TEST_F(Examples, PublishSubscribe) {
    Process publisher = place.start("publish_subscribe", {}, {"publish"});
    publisher.expect("ready");
    Process subscriber = place.start("publish_subscribe", {}, {"subscribe", "one", "2"});
    publisher.expect("welcome one");
    const int first = std::stoi(subscriber.expect("number "));
    EXPECT_EQ(std::stoi(subscriber.expect("number ")), first + 1);
    EXPECT_EQ(subscriber.finish(), 0);
}

TEST_F(Examples, RequestServer) {
    Process server = place.start("request_server", {}, {"serve"});
    server.expect("ready");
    Process client = place.start("request_server", {}, {"ask", "hello, world"});
    client.expect("answer: HELLO, WORLD");
    EXPECT_EQ(client.finish(), 0);
}

TEST_F(Examples, Files) {
    for (const char *name : {"file_drop", "file_transfer"}) {
        const fs::path program = place.config().parent_path() / "bin" / name;
        Process receiver = place.start(name, {}, {"receive", place.config()});
        receiver.expect("ready");
        Process sender = place.start(name, {}, {"send", program});
        sender.expect("sent");
        EXPECT_EQ(sender.finish(), 0);
        const fs::path kept = receiver.expect("kept ");
        EXPECT_EQ(fs::file_size(kept), fs::file_size(program));
    }
    EXPECT_TRUE(fs::exists(place.config() / "file_transfer")) << "it is sent with its name";
}

TEST_F(Examples, Coroutines) {
    Process program = place.start("coroutines");
    for (const char *line : {"request: Success hello", "confirmed: Success", "probe: No such endpoint"})
        program.expect(line);
    program.expect("kept 1, done 1");
    EXPECT_EQ(program.finish(), 0);
    place.start("request_pool").expect("answered 10, sum of the squares 28500, cancelled 90");
}

struct OtherLoops : Examples, testing::WithParamInterface<const char *> {};

TEST_P(OtherLoops, AnswersARequest) {
    if (!fs::exists(fs::path(TAVIPC_EXAMPLES) / GetParam()))
        GTEST_SKIP() << "left out: the library of this loop is not installed";
    Process server = place.start(GetParam());
    server.expect("ready");
    place.start("request_server", {}, {"ask", "hello"}).expect("answer: HELLO");
    EXPECT_EQ(server.finish(), 0);
}

INSTANTIATE_TEST_SUITE_P(, OtherLoops, testing::Values("epoll_loop", "glib_loop", "asio_loop"));

} // namespace
