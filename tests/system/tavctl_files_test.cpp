// Files through the tool: what arrives, what is refused, and what is left behind.
#include <csignal>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tavctl_fixture.h"

namespace {

using namespace tavipc::stage;

class TavctlFiles : public TavctlTest {
  protected:
    std::string write(size_t size) const {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
        std::ofstream(root_ / "source", std::ios::binary) << bytes;
        return root_ / "source";
    }
};

// The text in quotes after "name": in a line of JSON.
std::string field(const std::string &line, const std::string &name) {
    const size_t at = line.find("\"" + name + "\":\"") + name.size() + 4;
    return line.substr(at, line.find('"', at) - at);
}

// Makes a file of each name that a received one could get.
constexpr char kTakeNames[] = "now=$(date +%s); for ((i = -1; i < 60; i++)); do printf -v name "
                              "'%(file-%Y%m%d-%H%M%S)T' $((now + i)); : >\"$0/$name\"; done";

// In this file system, and in another one where there is one.
TEST_F(TavctlFiles, ArriveWholeAndReplaceNone) {
    std::string other = "/dev/shm/tavipc-XXXXXX";
    ASSERT_TRUE(mkdtemp(other.data()));
    fs::create_directory(root_ / "drop");
    for (const fs::path &directory : {fs::path(other), root_ / "drop"}) {
        run({"/bin/bash", "-c", kTakeNames, directory});
        Process receiver(tool_, {}, {"recvfile", directory, "--as", "in", "-c", "2", "--json"});
        receiver.expect("{\"type\":\"ready\"");
        for (const size_t size : {0, 200'017}) {
            const std::string path = write(size), sent = expect(0, {"--json", "sendfile", "in", path});
            const std::string told = receiver.expect("{\"type\":\"file\"");
            EXPECT_EQ(field(sent, "sha256"), field(told, "sha256"));
            EXPECT_EQ(run({"/usr/bin/cmp", path, field(told, "path")}).status, 0);
        }
        EXPECT_EQ(receiver.finish(), 0);
        const auto files = std::distance(fs::directory_iterator(directory), fs::directory_iterator());
        EXPECT_EQ(files, 61 + 2) << "nothing is replaced, and no temporary file is left";
    }
    fs::remove_all(other);
}

TEST_F(TavctlFiles, AreRefusedWithTheReason) {
    const auto alpha = start("alpha");
    const std::string file = write(10), pipe = root_ / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_THAT(expect(1, {"sendfile", "alpha", file}), HasSubstr("alpha accepts no files"));
    EXPECT_THAT(expect(1, {"sendfile", "alpha", pipe}), HasSubstr("not a regular file but a pipe"));
    EXPECT_THAT(expect(1, {"sendfile", "alpha", file + "2"}), HasSubstr("No such file"));
    EXPECT_THAT(expect(1, {"recvfile", file}), HasSubstr("is not a directory"));
    EXPECT_THAT(expect(1, {"recvfile", "/proc"}), HasSubstr("cannot write to /proc"));
}

// The temporary file that the process is receiving, as soon as there is one.
fs::path wait_for_temporary(int watch, pid_t process) {
    for (alignas(inotify_event) char events[4096]; ::read(watch, events, sizeof events) > 0;) {
        std::error_code gone;
        for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd"))
            if (const auto target = fs::read_symlink(entry.path(), gone);
                target.string().starts_with("/tmp/ipc_"))
                return target;
    }
    return {};
}

TEST_F(TavctlFiles, UnfinishedOnesGoWithTheReceiver) {
    const std::string file = write(1);
    fs::resize_file(file, 2'000'000'000); // takes seconds
    Process receiver(tool_, {}, {"recvfile", root_, "--as", "in"});
    receiver.expect("receiving files as in@2");
    const int watch = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(watch, "/tmp", IN_CREATE), 0);
    Process sender(tool_, {}, {"sendfile", "in", file});
    const fs::path temporary = wait_for_temporary(watch, receiver.pid());
    EXPECT_TRUE(fs::exists(temporary));
    receiver.signal(SIGINT);
    EXPECT_EQ(receiver.expect("0 files received"), ", 1 file unfinished and removed");
    EXPECT_EQ(receiver.finish(), 0);
    EXPECT_FALSE(fs::exists(temporary));
    close(watch);
}

} // namespace
