// The file of a socket: created, replaced, refused, removed.
#include <atomic>
#include <sys/stat.h>
#include <thread>

#include "event_fixture.h"

namespace {

using SocketFileTest = EventTest;

TEST_F(SocketFileTest, DirectoriesAreCreatedAndTheFileIsRemovedUnlessItIsAnothers) {
    const mode_t before = umask(022);
    const cl_dunix_t socket = create("one/two/s"), replaced = create("t");
    umask(before);
    struct stat made {};
    ASSERT_EQ(stat(path("one/two").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0755u);
    close(socket);
    EXPECT_FALSE(std::filesystem::exists(path("one/two/s")));
    cl_sockaddr_t address;
    cl_sockaddr_un_init(&address, "/sys/no_such_directory/s"); // nobody may make it
    EXPECT_EQ(cl_dunix_create(&address, nullptr, nullptr), 0u);
    EXPECT_NE(errno, ENOENT) << "it says why the directory is missing";
    const RawPeer other(path("one/two/s"));
    close(socket); // stale
    std::filesystem::rename(path("one/two/s"), path("t"));
    close(replaced);
    EXPECT_TRUE(RawPeer().send(path("t"), "x"));
}

TEST_F(SocketFileTest, WrongAddressesLiveSocketsAndOtherFilesAreRefused) {
    for (const std::string &wrong : {std::string(), std::string(108, 'x')}) {
        cl_sockaddr_t address;
        memset(&address, 0xAA, sizeof address);
        EXPECT_EQ(cl_sockaddr_un_init(&address, wrong.c_str()), -1);
        EXPECT_EQ(address.len, 0);
        EXPECT_EQ(cl_dunix_create(&address, nullptr, nullptr), 0u);
    }
    const RawPeer live(path("live")), full(path("full"));
    while (RawPeer().send(path("full"), "x")) {
    }
    directory_.write("plain", "text");
    std::filesystem::create_symlink(path("nowhere"), path("link"));
    for (const char *name : {"live", "full", "plain", "link"}) {
        EXPECT_EQ(create(name), 0u) << name;
        EXPECT_EQ(errno, EADDRINUSE) << name;
    }
    EXPECT_TRUE(RawPeer().send(path("live"), "x"));
    EXPECT_EQ(std::filesystem::file_size(path("plain")), 4u);
}

TEST_F(SocketFileTest, OneOfManyReplacesAStaleFile) {
    for (int round = 0; round < 20; ++round) {
        RawPeer(path("s"));
        std::atomic<int> made{0}, ready{0}, done{0};
        const auto race = [&] {
            for (++ready; ready < 4;) std::this_thread::yield();
            const cl_dunix_t socket = create("s");
            made += socket != 0;
            for (++done; done < 4;) std::this_thread::yield();
            if (socket) EXPECT_TRUE(RawPeer().send(path("s"), "x"));
        };
        for (std::jthread threads[4]; auto &thread : threads) thread = std::jthread(race);
        ASSERT_EQ(made, 1);
    }
}

} // namespace
