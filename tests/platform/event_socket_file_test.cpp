// The file of a socket: made, replaced, refused, removed.
#include <atomic>
#include <cerrno>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

#include "event_fixture.h"

namespace {

using SocketFileTest = EventTest;

TEST_F(SocketFileTest, AddressesAreCheckedAndLeftEmptyWhenWrong) {
    for (const std::string &wrong : {std::string(), std::string(108, 'x')}) {
        cl_sockaddr_t address;
        memset(&address, 0xAA, sizeof address);
        EXPECT_EQ(cl_sockaddr_un_init(&address, wrong.c_str()), -1);
        EXPECT_EQ(address.len, 0);
        EXPECT_EQ(cl_dunix_create(&address, nullptr, nullptr), 0u);
    }
    cl_sockaddr_t address;
    EXPECT_EQ(cl_sockaddr_un_init(nullptr, "x"), -1);
    EXPECT_EQ(cl_sockaddr_un_init(&address, nullptr), -1);
    EXPECT_EQ(cl_sockaddr_un_init(&address, std::string(107, 'x').c_str()), 0);
    EXPECT_EQ(create("directory/"), 0u);
}

TEST_F(SocketFileTest, MissingDirectoriesAreMadeAndTheFileIsRemoved) {
    const mode_t before = umask(022);
    const cl_dunix_t socket = create("one/two/s");
    umask(before);
    ASSERT_NE(socket, 0u);
    struct stat made {};
    ASSERT_EQ(stat(path("one/two").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0755u);
    close(socket);
    EXPECT_FALSE(std::filesystem::exists(path("one/two/s")));
    EXPECT_TRUE(std::filesystem::exists(path("one/two")));
    cl_sockaddr_t address;
    cl_sockaddr_un_init(&address, "/sys/no_such_directory/s"); // nobody may make it
    EXPECT_EQ(cl_dunix_create(&address, nullptr, nullptr), 0u);
    EXPECT_NE(errno, ENOENT) << "it says why the directory is missing";
}

TEST_F(SocketFileTest, AStaleFileIsReplaced) {
    RawPeer(path("s")).die();
    ASSERT_TRUE(std::filesystem::exists(path("s")));
    const cl_dunix_t socket = create("s");
    ASSERT_NE(socket, 0u);
    EXPECT_TRUE(RawPeer().send(path("s"), "x"));
}

TEST_F(SocketFileTest, ALiveSocketAndAPlainFileAreLeftAlone) {
    const RawPeer live(path("live"));
    const RawPeer full(path("full"));
    while (RawPeer().send(path("full"), "x")) {
    }
    std::ofstream(path("plain")) << "text";
    std::filesystem::create_symlink(path("nowhere"), path("link"));
    for (const char *name : {"live", "full", "plain", "link"}) {
        EXPECT_EQ(create(name), 0u) << name;
        EXPECT_EQ(errno, EADDRINUSE) << name;
    }
    EXPECT_TRUE(RawPeer().send(path("live"), "x"));
    EXPECT_EQ(live.read().size(), 1u);
    EXPECT_EQ(std::filesystem::file_size(path("plain")), 4u);
}

TEST_F(SocketFileTest, ClosingLeavesTheFileOfAnother) {
    const cl_dunix_t socket = create("s");
    std::filesystem::remove(path("s"));
    const RawPeer other(path("s"));
    close(socket);
    close(socket); // stale
    EXPECT_TRUE(RawPeer().send(path("s"), "x"));
}

TEST_F(SocketFileTest, AForkedChildLeavesItsParentsFiles) {
    const cl_dunix_t socket = create("s");
    ASSERT_NE(socket, 0u);
    const pid_t child = fork();
    if (child == 0) exit(0); // runs the destructors of the thread
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(std::filesystem::exists(path("s")));
}

TEST_F(SocketFileTest, OneOfManyReplacesAStaleFile) {
    for (int round = 0; round < 20; ++round) {
        RawPeer(path("s")).die();
        std::atomic<int> made{0}, reached{0}, ready{0}, done{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                for (++ready; ready < 4;) {
                }
                const cl_dunix_t socket = create("s");
                made += socket != 0;
                for (++done; done < 4;) std::this_thread::yield();
                OnDatagram count = [&](cl_dunix_t, const void *, uint32_t, const cl_sockaddr_t *, int) {
                    ++reached;
                };
                if (!socket) return;
                EXPECT_TRUE(RawPeer().send(path("s"), "x"));
                receive(socket, count);
                cl_event_loop_run_once(0);
            });
        for (auto &thread : threads) thread.join();
        ASSERT_EQ(made, 1);
        ASSERT_EQ(reached, 1) << "the file belongs to the one that made it";
    }
}

} // namespace
