// FileTransfers between real processes: whole, and what is left when a side dies, stops, is full or is not
// alone.
#include <csignal>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "installation.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

constexpr size_t kChunk = 64'000;

class FileTransfers : public ::testing::Test {
  protected:
    FileTransfers() {
        place.allow({"alpha", "beta", "gamma"});
        fs::create_directories(root / "bin");
        for (const char *name : {"alpha", "beta", "gamma"})
            fs::copy_file(TAVIPC_ALTERED_MODULE, root / "bin" / name);
    }
    ~FileTransfers() override {
        if (pipe >= 0) close(pipe);
        fs::remove(temporary);
    }

    static void open(Process &beta, Process &alpha, const std::string &how = "accept") {
        beta.ask(how + " beta", "opened ");
        alpha.ask("open alpha", "opened ");
    }
    std::string write(const std::string &name, size_t size) {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
        std::ofstream(root / name, std::ios::binary) << bytes;
        return root / name;
    }
    // Lets the sender send a pipe into which just two chunks were written, and waits until beta has them.
    void send_half(Process &sender, Process &beta, int timeout_s) {
        const fs::path path = root / "pipe";
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        pipe = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        sender.say("file beta " + path.string() + ' ' + std::to_string(timeout_s));
        feed(2 * kChunk);
        temporary = beta.expect("temporary ");
        for (int i = 0; i < 1000 && fs::file_size(temporary) < 2 * kChunk; ++i)
            std::this_thread::sleep_for(20ms);
        ASSERT_EQ(fs::file_size(temporary), 2 * kChunk);
    }
    void feed(size_t size) {
        const std::string bytes(size, 'x');
        ASSERT_EQ(::write(pipe, bytes.data(), size), static_cast<ssize_t>(size));
    }
    void feed_rest() {
        feed(1000);
        close(std::exchange(pipe, -1));
    }

    Installation place{{}};
    const fs::path root = place.config().parent_path();
    int pipe = -1;
    fs::path temporary; // the file that beta writes
};

TEST_F(FileTransfers, ArriveWhole) {
    Process beta = place.start("beta"), alpha = place.start("alpha");
    open(beta, alpha);
    for (const size_t size : {size_t{0}, 3 * kChunk, size_t{20'000'017}}) {
        const std::string path = write("source", size);
        const std::string sent = alpha.ask("file beta " + path + " 60", "sending ");
        EXPECT_GE(std::stoi(alpha.expect("file ")), 0);
        EXPECT_EQ(beta.expect("got "), sent);
        fs::remove(beta.expect("temporary "));
    }
}

TEST_F(FileTransfers, AreRefusedWhereTheyAreNotAccepted) {
    Process beta = place.start("beta"), alpha = place.start("alpha");
    open(beta, alpha, "open");
    EXPECT_EQ(alpha.ask("file beta " + write("source", 100'000) + " 60", "file "), "-109");
    EXPECT_EQ(alpha.ask("file beta /no/such/file 60", "file "), "-104");
    EXPECT_FALSE(beta.heard("temporary") || beta.heard("got"));
}

TEST_F(FileTransfers, SecondSenderWithTheSameIdIsRefused) {
    const std::vector<std::string> same_ids = {"TAVIPC_CLOCK_SPEED=0", "TAVIPC_DRAW=7"};
    Process beta = place.start("beta"), alpha = place.start("alpha", same_ids);
    open(beta, alpha);
    Process gamma = place.start("gamma", same_ids);
    gamma.ask("open gamma", "opened ");
    send_half(alpha, beta, 60);
    EXPECT_EQ(gamma.ask("file beta " + write("source", 100) + " 60", "file "), "-106");
    feed_rest();
    EXPECT_GE(std::stoi(alpha.expect("file ")), 0);
    EXPECT_EQ(words(beta.expect("got ")).at(0), std::to_string(2 * kChunk + 1000));
}

TEST_F(FileTransfers, DeadReceiverEndsTheTransfer) {
    Process beta = place.start("beta"), alpha = place.start("alpha");
    open(beta, alpha);
    send_half(alpha, beta, 1);
    EXPECT_EQ(beta.kill(), -SIGKILL);
    feed_rest();
    EXPECT_EQ(alpha.expect("file "), "-102");
    EXPECT_FALSE(beta.heard("got"));
}

TEST_F(FileTransfers, WhatADeadSenderBeganIsSweptAway) {
    Process beta = place.start("beta", {"TAVIPC_CLOCK_SPEED=100"}), alpha = place.start("alpha");
    open(beta, alpha);
    send_half(alpha, beta, 60);
    alpha.kill();
    EXPECT_TRUE(fs::exists(temporary));
    for (int i = 0; i < 1000 && fs::exists(temporary); ++i) std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(fs::exists(temporary));
    EXPECT_EQ(beta.finish(), 0);
    EXPECT_FALSE(beta.heard("got"));
}

TEST_F(FileTransfers, FullDiskEndsTheTransfer) {
    Process beta = place.start("beta", {"TAVIPC_FILE_LIMIT=100000"}), alpha = place.start("alpha");
    open(beta, alpha);
    EXPECT_EQ(alpha.ask("file beta " + write("source", 2 * kChunk) + " 60", "file "), "-107");
    temporary = beta.expect("temporary ");
    EXPECT_FALSE(beta.heard("got"));
}

TEST_F(FileTransfers, StoppedReceiverGoesOn) {
    Process beta = place.start("beta"), alpha = place.start("alpha");
    open(beta, alpha);
    send_half(alpha, beta, 60);
    beta.signal(SIGSTOP);
    feed_rest();
    std::this_thread::sleep_for(1s);
    EXPECT_FALSE(alpha.heard("file "));
    beta.signal(SIGCONT);
    EXPECT_GE(std::stoi(alpha.expect("file ")), 0);
    EXPECT_EQ(words(beta.expect("got ")).at(0), std::to_string(2 * kChunk + 1000));
}

} // namespace
