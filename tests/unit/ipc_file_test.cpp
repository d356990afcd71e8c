// Whole files: the chunks that a sender sends and when it stops, and what a receiver keeps and for how long.
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "endpoint_world.h"

using testing::ElementsAre;
namespace fs = std::filesystem;

namespace {

// mkstemp creates its files here, with paths as long as the template's.
std::string directory;
int made;           // how many
const char *device; // is opened in place of a file
std::string path_of(int number) { return directory + '/' + std::to_string(1'000'000 + number); }

} // namespace

extern "C" int mkstemp(char *path) {
    EXPECT_STREQ(path, "/tmp/ipc_file.XXXXXX");
    std::strcpy(path, path_of(++made).c_str());
    return device ? open(device, O_RDWR) : open(path, O_RDWR | O_CREAT | O_EXCL, 0600);
}

namespace {

class Files : public EndpointWorld {
  protected:
    Files() {
        directory = "/tmp/tXXXXXX";
        made = 0;
        device = nullptr;
        EXPECT_TRUE(mkdtemp(directory.data()));
    }
    void TearDown() override {
        while (!open_.empty()) close(open_.back());
        tavipc::reset_received_files();
        EndpointWorld::TearDown();
        EXPECT_EQ(descriptors(), descriptors_);
        fs::remove_all(directory);
    }
    static ptrdiff_t descriptors() { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); }

    // --- sending
    void append(size_t size) { std::ofstream(path_of(0), std::ios::app) << std::string(size, '+'); }
    void send_file(tav_ipc_st *ipc, const std::string &path = path_of(0), const char *dest = "beta") {
        const tav_addr_st to = address(dest);
        tav_ipc_send_file(ipc, &to, path.c_str(), on_done, this, 3);
    }
    const tav_ipc_hdr_st last_sent() const { return sent(w.event.sends.size() - 1).header; }
    void acknowledge(tav_ipc_st *ipc, int32_t code) {
        Datagram reply{"", {}, bytes_of(code)};
        reply.header.flags = IPC_FLAG_ACK;
        reply.header.reqid = last_sent().reqid;
        receive(ipc, reply);
    }
    static int on_done(int32_t code, void *user) {
        auto *test = static_cast<Files *>(user);
        test->done_.push_back(code);
        return test->then_ ? test->then_(nullptr), -1 : -1;
    }

    // --- receiving
    int32_t save(const char *source, uint32_t file_id, const std::string &bytes, tav_ipc_st *ipc = nullptr) {
        const tav_addr_st src = address(source, 2, ++address_flags_); // the flags are not compared
        return tav_ipc_save_file(ipc, &src, file_id, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    static int on_file(tav_ipc_st *ipc, const char *path, void *user) {
        auto *test = static_cast<Files *>(user);
        test->sent_before_ = test->w.event.sends.size();
        if (const auto then = test->then_) then(ipc);
        test->received_.push_back(path);
        return -1;
    }
    void sweep(time_t now_s) {
        w.clock.wall_s = now_s;
        w.event.advance(60'000);
    }

    std::vector<int32_t> done_;
    std::vector<std::string> received_; // paths
    size_t sent_before_ = 0;
    uint8_t address_flags_ = 0;
    const ptrdiff_t descriptors_ = descriptors();
};

TEST_F(Files, IdsAreKnown) {
    w.random.draws = {7, 42, 7, 42, 144375, 2993, 927410, 7086};
    EXPECT_EQ(tav_ipc_get_random_file_id(77), 1584681145);
    EXPECT_EQ(tav_ipc_get_random_file_id(4'000'000'000), 1231181790);
    EXPECT_EQ(tav_ipc_get_random_file_id(77), 0);
    EXPECT_EQ(tav_ipc_get_random_file_id(77), INT32_MAX); // this CRC has no positive counterpart
    const auto seed = static_cast<unsigned>(getpid()) ^ 1'700'000'000u ^ static_cast<unsigned>(getppid());
    EXPECT_THAT(w.random.seeds, ElementsAre(seed)); // once
}

TEST_F(Files, AnIdIsDrawnAgainWhileAReceiverMayKnowIt) {
    tav_ipc_st *ipc = open();
    append(1);
    const auto id_of_draws = [&](std::deque<int> draws) { // of the same second
        w.random.draws = std::move(draws);
        send_file(ipc);
        return last_sent().cmd;
    };
    const uint32_t first = id_of_draws({7, 42}), second = id_of_draws({7, 42, 7, 43});
    EXPECT_NE(second, first) << "outstanding";
    acknowledge(ipc, -107); // ends the second one
    w.event.advance(360'000);
    EXPECT_NE(id_of_draws({7, 43, 7, 44}), second) << "the receiver may still keep it";
    w.event.advance(60'000);
    EXPECT_EQ(id_of_draws({7, 43}), second) << "the receiver has removed it";
    for (int times = 0; times < 2; ++times) id_of_draws(std::deque<int>(2000, 7));
    EXPECT_EQ(done_.back(), -106) << "every draw is the same";
}

TEST_F(Files, TravelInConfirmedChunksUntilTheirEnd) {
    tav_ipc_st *ipc = open();
    append(64'000);
    send_file(ipc);
    for (const size_t size : {64'000, 34, 1, 0}) { // to the end; 1: behind it
        append(size);
        EXPECT_THAT(done_, ElementsAre());
        acknowledge(ipc, 0);
    }
    const uint32_t id = last_sent().cmd;
    EXPECT_THAT(done_, ElementsAre(static_cast<int32_t>(id)));
    std::vector<size_t> sizes;
    for (size_t i = 0; i < w.event.sends.size(); ++i) {
        const Datagram chunk = sent(i);
        sizes.push_back(chunk.payload.size());
        EXPECT_EQ(chunk.header.flags, IPC_FLAG_FILE | IPC_FLAG_NEED_ACK);
        EXPECT_EQ(chunk.header.cmd, id);
        EXPECT_EQ(chunk.payload, std::string(chunk.payload.size(), '+'));
    }
    EXPECT_THAT(sizes, ElementsAre(64'000, 64'000, 34, 0));
}

TEST_F(Files, AnyOtherCodeEndsATransfer) {
    tav_ipc_st *ipc = open();
    append(1);
    for (const int confirmed : {0, 1}) // chunks
        for (const int32_t code : {-106, 1005, -102}) {
            send_file(ipc);
            if (confirmed) acknowledge(ipc, 0);
            const size_t before = w.event.sends.size();
            if (code == -102) w.clock.wall_s += 4, w.event.advance(1000);
            for (const int32_t answer : {code, 0}) acknowledge(ipc, answer); // the second one is too late
            EXPECT_EQ(w.event.sends.size(), before);
            EXPECT_THAT(std::exchange(done_, {}), ElementsAre(code));
        }
}

TEST_F(Files, WhatCannotBeginEndsAtOnce) {
    tav_ipc_st *ipc = open();
    const tav_addr_st beta = address("beta");
    append(1);
    tav_ipc_send_file(ipc, &beta, nullptr, on_done, this, 1);
    tav_ipc_send_file(ipc, nullptr, path_of(0).c_str(), on_done, this, 1);
    tav_ipc_send_file(ipc, nullptr, nullptr, nullptr, nullptr, 1);
    send_file(nullptr);
    EXPECT_THAT(done_, ElementsAre(-104, -101, -101));
    send_file(ipc, path_of(0), "a/b"); // the send path refuses: that comes later, and needs no endpoint
    send_file(ipc);                    // ended by the destruction
    then_ = [=, this](tav_ipc_st *) { then_ = nullptr, close(ipc); };
    send_file(ipc, "/no/such/file");
    w.event.advance(1);
    EXPECT_THAT(done_, ElementsAre(-104, -101, -101, -104, -103, -101));
}

TEST_F(Files, ChunksBecomeAFile) {
    tav_ipc_st *ipc = open();
    EXPECT_EQ(tav_ipc_get_file_path(ipc, 1), nullptr); // nothing was received yet
    tav_ipc_file_recv(ipc, on_file, this);
    const struct {
        const char *source;
        uint32_t id;
        const char *bytes;
        int32_t result;
        bool complete;
    } steps[] = {{"gamma", 1, "abc", 0, false}, {"delta", 1, "x", -106, false}, {"gamma", ~0u, "g", 0, false},
                 {"gamma", 1, "def", 0, false}, {"delta", 1, "", -106, false},  {"gamma", 1, "", 0, true},
                 {"gamma", 1, "x", -108, true}, {"gamma", 1, "", -108, true},   {"delta", 1, "", -106, true},
                 {"gamma", ~0u, "", 0, true}};
    for (const auto &[source, id, bytes, result, complete] : steps) {
        EXPECT_EQ(save(source, id, bytes, ipc), result);
        const char *path = tav_ipc_get_file_path(nullptr, id);
        EXPECT_EQ(path ? path : "", complete ? path_of(id == 1 ? 1 : 2) : "");
    }
    EXPECT_THAT(received_, ElementsAre(path_of(1), path_of(2)));
    std::string text;
    std::ifstream(path_of(1)) >> text;
    EXPECT_EQ(text, "abcdef");
    device = "/dev/full";
    for (int times = 0; times < 2; ++times) EXPECT_EQ(save("gamma", 7, "x"), -107);
    device = "/no/such/file";
    EXPECT_EQ(save("gamma", 8, "x"), -107);
}

TEST_F(Files, PeersGetHalfOfTheDescriptors) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{80, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    for (uint32_t id = 0; id < 100; ++id) EXPECT_EQ(save("gamma", id, "x"), id < 40 ? 0 : -107) << id;
    EXPECT_EQ(save("gamma", 3, ""), 0); // complete: needs no descriptor
    for (const uint32_t id : {100, 101}) EXPECT_EQ(save("gamma", id, "x"), id == 100 ? 0 : -107);
    sweep(w.clock.wall_s + 301);
    EXPECT_EQ(save("gamma", 102, "x"), 0);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(w.log.count("too many files are being received, another one is refused, 40 open", 2), 1);
}

TEST_F(Files, ThatWereTakenAwayDoNotCount) {
    for (const char *bytes : {"stays", ""}) save("gamma", 1, bytes);
    device = "/dev/null"; // the others do not exist on the disk
    for (uint32_t id = 2; id <= 65'537; ++id) ASSERT_EQ(save("gamma", id, ""), 0) << id;
    EXPECT_EQ(save("gamma", 1, ""), -108);
}

TEST_F(Files, SweepRemovesWhatIsOlderThan300Seconds) {
    const time_t begin_s = w.clock.wall_s;
    for (const uint32_t id : {1, 2, 3, 4}) save("gamma", id, "x");
    EXPECT_EQ(w.event.timers.begin()->second.delay_ms, 60'000u);
    w.clock.wall_s += 200;
    for (const uint32_t id : {2, 4}) EXPECT_EQ(save("gamma", id, ""), 0); // completion does not renew
    EXPECT_EQ(save("gamma", 3, "x"), 0);
    fs::rename(path_of(4), directory + "/moved");
    sweep(begin_s + 300);
    for (const int number : {1, 2, 3}) EXPECT_TRUE(fs::exists(path_of(number))) << number;
    sweep(begin_s + 301);
    for (const int number : {1, 2, 3}) EXPECT_EQ(fs::exists(path_of(number)), number == 3) << number;
    EXPECT_EQ(tav_ipc_get_file_path(nullptr, 2), nullptr);
    EXPECT_TRUE(fs::exists(directory + "/moved"));
    sweep(begin_s + 501);
    EXPECT_FALSE(fs::exists(path_of(3)));
    EXPECT_EQ(w.event.timers.size(), 1u);
}

TEST_F(Files, SweepOutlivesItsLoop) {
    save("gamma", 1, "x");
    w.event.timers.clear(); // with the loop
    w.clock.loop_ms += 60'001;
    w.clock.wall_s += 301;
    save("gamma", 2, "x");
    EXPECT_FALSE(fs::exists(path_of(1))) << "the next chunk sweeps";
    w.event.timers.clear();
    adopt(tav_ipc_create_temp("alpha", 1)); // arms the timer without a chunk
    sweep(w.clock.wall_s + 301);
    EXPECT_FALSE(fs::exists(path_of(2)));
}

TEST_F(Files, AForkedChildRemovesNone) {
    save("gamma", 1, "x");
    const pid_t child = fork();
    if (child == 0) sweep(w.clock.wall_s + 301), _exit(0);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(fs::exists(path_of(1)));
}

TEST_F(Files, CallbackRunsBeforeTheReplyAndMayDoAnything) {
    Datagram chunk{"", {}, ""};
    chunk.header.src = address("gamma");
    chunk.header.flags = IPC_FLAG_FILE | IPC_FLAG_NEED_ACK;
    tav_ipc_st *ipc = adopt(tav_ipc_create_temp("alpha", 1));
    tav_ipc_file_recv(ipc, on_file, this);
    for (int times = 0; times < 2; ++times) receive(ipc, chunk);
    EXPECT_EQ(sent_before_, 0u);
    EXPECT_EQ(sent(0).payload + sent(1).payload, bytes_of(0) + bytes_of(-108));
    chunk.header.cmd = 1;
    then_ = [&](tav_ipc_st *own) { sweep(w.clock.wall_s + 301), close(own), open("alpha"); };
    receive(ipc, chunk);
    EXPECT_EQ(w.event.sends.size(), 2u);
    EXPECT_FALSE(fs::exists(path_of(2)));
    EXPECT_EQ(received_.back(), path_of(2)) << "the path stays valid";
}

} // namespace
