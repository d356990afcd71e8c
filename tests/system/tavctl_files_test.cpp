// Files through the tool, and its measurements: what arrives, what is refused, and what is left behind.
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "installation.h"

namespace {

using namespace tavipc::stage;
namespace fs = std::filesystem;
using testing::HasSubstr;
using Words = std::vector<std::string>;

std::string content(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// What stands behind "name": in a line of JSON.
std::string field(const std::string &line, const std::string &name) {
    const size_t at = line.find("\"" + name + "\":") + name.size() + 3;
    const bool text = line[at] == '"';
    return line.substr(at + text, line.find_first_of(text ? "\"" : ",}", at + text) - at - text);
}

class TavctlFiles : public ::testing::Test {
  protected:
    TavctlFiles() { place_.allow({"tavctl", "alpha"}); }
    Outcome tavctl(const Words &words) const {
        Words command{tool_};
        command.insert(command.end(), words.begin(), words.end());
        return run(command);
    }
    std::string write(size_t size) const {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
        std::ofstream(root_ / "source", std::ios::binary) << bytes;
        return root_ / "source";
    }
    std::set<std::string> sockets() const {
        std::set<std::string> names;
        for (const auto &entry : fs::directory_iterator(place_.sockets()))
            names.insert(entry.path().filename());
        return names;
    }
    void arrive_in(const fs::path &directory);

    const Installation place_{Installation::Setup{}};
    const fs::path root_ = place_.config().parent_path();
    const std::string tool_ = place_.tool();
};

// Every name that a file could get has been taken.
void take_names(const fs::path &directory) {
    const time_t now = time(nullptr);
    for (time_t at = now - 1; at < now + 60; ++at) {
        tm local{};
        localtime_r(&at, &local);
        char name[64];
        strftime(name, sizeof name, "file-%Y%m%d-%H%M%S", &local);
        std::ofstream(directory / name) << "kept";
    }
}

void TavctlFiles::arrive_in(const fs::path &directory) {
    take_names(directory);
    Process receiver(tool_, {}, {"recvfile", directory, "--as", "in", "-c", "4", "--json"});
    receiver.expect("{\"type\":\"ready\"");
    for (const size_t size : {0, 128'000, 200'017}) {
        const std::string path = write(size);
        const Outcome sent = tavctl({"--json", "sendfile", "in", path});
        ASSERT_EQ(sent.status, 0) << sent.errors;
        const std::string told = receiver.expect("{\"type\":\"file\"");
        EXPECT_EQ(field(sent.output, "sha256"), field(told, "sha256"));
        EXPECT_EQ(field(sent.output, "bytes"), std::to_string(size));
        EXPECT_EQ(content(field(told, "path")), content(path));
    }
    Process alpha = place_.start("alpha");
    alpha.ask("open alpha", "opened ");
    alpha.say("file in " + write(70'000) + " 20");
    EXPECT_GE(std::stoi(alpha.expect("file ")), 0);
    EXPECT_EQ(field(receiver.expect("{\"type\":\"file\""), "bytes"), "70000");
    EXPECT_EQ(receiver.finish(), 0);
    size_t kept = 0, arrived = 0;
    for (const auto &entry : fs::directory_iterator(directory))
        ++(content(entry.path()) == "kept" ? kept : arrived);
    EXPECT_EQ(kept, 61u) << "nothing is overwritten";
    EXPECT_EQ(arrived, 4u) << "and no temporary file is left";
}

TEST_F(TavctlFiles, ArriveWholeAndReplaceNone) {
    fs::create_directory(root_ / "drop");
    arrive_in(root_ / "drop");
}

TEST_F(TavctlFiles, ArriveInAnotherFileSystem) {
    std::string directory = "/dev/shm/tavipc-XXXXXX";
    struct stat here {
    }, there{};
    if (stat("/tmp", &here) || stat("/dev/shm", &there) || here.st_dev == there.st_dev ||
        !mkdtemp(directory.data()))
        GTEST_SKIP() << "/dev/shm is no other file system than /tmp, or may not be written";
    arrive_in(directory);
    fs::remove_all(directory);
}

TEST_F(TavctlFiles, AreRefusedWithTheReason) {
    Process alpha = place_.start("alpha");
    alpha.ask("open alpha", "opened ");
    const fs::path pipe = root_ / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string file = write(10);
    const struct {
        Words words;
        int status;
        const char *reason;
    } cases[] = {{{"sendfile", "alpha", file}, 1, "alpha accepts no files"},
                 {{"sendfile", "nobody", file, "-t", "1"}, 3, "there is no socket"},
                 {{"sendfile", "alpha", root_}, 1, "no regular file but a directory"},
                 {{"sendfile", "alpha", pipe}, 1, "no regular file but a pipe"},
                 {{"sendfile", "alpha", file + "2"}, 1, "No such file"},
                 {{"recvfile", root_ / "none"}, 1, "there is no directory"},
                 {{"recvfile", file}, 1, "is no directory"},
                 {{"recvfile", "/proc"}, 1, "cannot write to /proc"}};
    for (const auto &[words, status, reason] : cases) {
        const Outcome outcome = tavctl(words);
        EXPECT_EQ(outcome.status, status) << words[0] << ' ' << words.back();
        EXPECT_THAT(outcome.errors, HasSubstr(reason));
    }
}

TEST_F(TavctlFiles, UnfinishedOnesGoWithTheReceiver) {
    const fs::path pipe = root_ / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int feed = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    Process receiver(tool_, {}, {"recvfile", root_, "--as", "in"}), alpha = place_.start("alpha");
    receiver.expect("receiving files as in@2");
    alpha.ask("open alpha", "opened ");
    alpha.say("file in " + pipe.string() + " 20");
    std::thread feeder([&] { // one chunk to send, and one that the library reads ahead
        const std::string bytes(128'000, 'x');
        EXPECT_EQ(::write(feed, bytes.data(), bytes.size()), 128'000);
    });
    fs::path temporary;
    for (int i = 0; i < 3000 && temporary.empty(); ++i) {
        std::this_thread::sleep_for(10ms);
        std::error_code gone;
        for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(receiver.pid()) + "/fd"))
            if (const auto target = fs::read_symlink(entry.path(), gone);
                target.string().starts_with("/tmp/ipc_"))
                temporary = target;
    }
    feeder.join();
    EXPECT_TRUE(fs::exists(temporary));
    receiver.signal(SIGINT);
    EXPECT_EQ(receiver.expect("0 files received"), ", 1 file unfinished and removed");
    EXPECT_EQ(receiver.finish(), 0);
    EXPECT_FALSE(fs::exists(temporary));
    close(feed); // ends the pipe, which alpha reads
}

TEST_F(TavctlFiles, MeasurementsLeaveNothing) {
    const Outcome whole = tavctl({"--json", "bench", "--seconds", "0.05"});
    EXPECT_EQ(whole.status, 0) << whole.errors;
    for (const char *work : {"trip-160", "way-160", "way-64000", "large", "request-64", "file"})
        EXPECT_THAT(whole.output, HasSubstr("\"work\":\"" + std::string(work) + "\""));
    EXPECT_THAT(sockets(), testing::IsEmpty());
    for (const bool interrupt : {true, false}) {
        Process bench(tool_, {}, {"--json", "bench", "--seconds", "60"});
        bench.expect("{\"type\":\"machine\"");
        const std::string id = std::to_string(bench.pid());
        const pid_t other = std::stoi(content("/proc/" + id + "/task/" + id + "/children"));
        interrupt ? bench.signal(SIGINT) : static_cast<void>(::kill(other, SIGKILL));
        EXPECT_EQ(bench.finish(), 1);
        EXPECT_NE(::kill(other, 0), 0);
        EXPECT_THAT(sockets(), testing::IsEmpty());
    }
}

} // namespace
