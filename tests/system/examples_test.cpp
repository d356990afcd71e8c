// The example programs do what their first lines promise, in an installation of their own.
#include <gtest/gtest.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

struct Examples : testing::Test {
    Examples() {
        Texts names;
        for (const auto &program : fs::directory_iterator(TAVIPC_EXAMPLES))
            place.put(names.emplace_back(program.path().filename()), program);
        place.allow(names);
    }
    // Runs a program to its end. It must write these.
    void run(const std::string &name, const Texts &arguments, const Texts &expected) const {
        Process program = place.start(name, {}, arguments);
        for (const std::string &text : expected) program.expect(text);
        EXPECT_EQ(program.finish(), 0) << name;
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

TEST_F(Examples, RequestServersOnAnyLoop) {
    std::string left_out;
    for (const std::string server : {"request_server", "epoll_loop", "glib_loop", "asio_loop"}) {
        if (!fs::exists(fs::path(TAVIPC_EXAMPLES) / server)) {
            left_out += " " + server;
            continue;
        }
        Process running = place.start(server, {}, server == "request_server" ? Texts{"serve"} : Texts{});
        running.expect("ready");
        run("request_server", {"ask", "hello, world"}, {"answer: HELLO, WORLD"});
        EXPECT_EQ(server == "request_server" ? 0 : running.finish(), 0) << server;
    }
    if (!left_out.empty()) GTEST_SKIP() << "left out, the library of its loop is not installed:" << left_out;
}

TEST_F(Examples, Files) {
    const fs::path program = place.config().parent_path() / "bin/file_drop";
    for (const char *name : {"file_drop", "file_transfer"}) {
        Process receiver = place.start(name, {}, {"receive", place.config()});
        receiver.expect("ready");
        run(name, {"send", program}, {"sent"});
        EXPECT_EQ(fs::file_size(receiver.expect("kept ")), fs::file_size(program));
    }
    EXPECT_TRUE(fs::exists(place.config() / "file_drop")) << "it is sent with its name";
}

TEST_F(Examples, Coroutines) {
    run("coroutines", {},
        {"request: Success hello", "confirmed: Success", "probe: No such endpoint",
         "patient probe: Request timeout", "kept 1, done 1"});
    run("request_pool", {}, {"answered 10, sum of the squares 28500, cancelled 90"});
}
