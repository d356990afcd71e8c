// Messages between real processes: what arrives, in which order, and what goes over the socket.
#include <array>
#include <cstring>
#include <fstream>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "installation.h"
#include "tavipc/tav_ipc.h"

using namespace tavipc::stage;
using testing::StartsWith;

namespace {

// Two modules, alpha and beta, with their endpoints open.
class Messages : public ::testing::Test {
  protected:
    Messages() {
        place.allow({"alpha", "beta", "gamma"});
        alpha.ask("open alpha", "opened ");
        beta.ask("open beta", "opened ");
    }
    // A module that leaks or ends badly fails the test too.
    ~Messages() override {
        for (Process *module : {&alpha, &beta}) EXPECT_EQ(module->finish(), 0);
    }
    Installation place{{}};
    Process alpha = place.start("alpha", {"TAV_LOG_LEVEL=4"});
    Process beta = place.start("beta", {"TAV_LOG_LEVEL=2"});
};

std::string send_command(const std::string &dest, const std::string &kind, uint32_t size, int count = 1,
                         const std::string &flags = "0", const std::string &address_flags = "0",
                         int loc = 0) {
    return "send " + dest + ' ' + std::to_string(loc) + ' ' + kind + ' ' + std::to_string(size) + ' ' +
           std::to_string(count) + ' ' + flags + ' ' + address_flags;
}

// A plain datagram socket in the installation: what a peer that is not this library sees and can do.
class RawSocket {
  public:
    RawSocket(const Installation &place, const std::string &name) : place_(place) {
        const sockaddr_un own = path(name);
        const timeval patience{60, 0};
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&own), sizeof own), 0) << strerror(errno);
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~RawSocket() { close(fd_); }

    std::string receive() {
        std::string datagram(65536, '\0');
        const ssize_t got = recv(fd_, datagram.data(), datagram.size(), 0);
        datagram.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return datagram;
    }
    void send(const std::string &name, const std::string &datagram) {
        const sockaddr_un peer = path(name);
        EXPECT_EQ(sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&peer),
                         sizeof peer),
                  static_cast<ssize_t>(datagram.size()));
    }

  private:
    sockaddr_un path(const std::string &name) const {
        sockaddr_un address{AF_UNIX, {}};
        (place_.sockets() / name).string().copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }
    const Installation &place_;
    int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

tav_ipc_hdr_st header_of(const std::string &datagram) {
    tav_ipc_hdr_st header{};
    std::memcpy(&header, datagram.data(), std::min(datagram.size(), sizeof header));
    return header;
}

TEST_F(Messages, ArriveWhole) {
    const struct {
        const char *kind;
        uint32_t size;
        const char *flags;
        const char *address_flags;
    } cases[] = {
        {"bytes", 0, "0", "0"},      {"bytes", 160, "0", "0"},     {"bytes", 64'000, "0", "0"},
        {"bytes", 64'001, "0", "0"}, {"bytes", 130'000, "0", "0"}, {"bytes", 65'471'999, "0x2", "0"},
        {"app", 500'000, "0", "0"},  {"app", 500'000, "0", "0x8"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.kind) + ' ' + std::to_string(c.size));
        const auto sent =
            words(alpha.ask(send_command("beta", c.kind, c.size, 1, c.flags, c.address_flags), "sent "));
        const auto got = words(beta.expect("msg alpha 0 "));
        EXPECT_EQ(sent.at(0), "1");
        EXPECT_EQ(got.at(0), std::to_string(c.size));
        EXPECT_EQ(got.at(2), sent.at(2)); // digests
    }
    EXPECT_THAT(alpha.expect("log 4 tav_ipc compress msg success, "),
                StartsWith("old_size=500000, new_size="));
    EXPECT_FALSE(alpha.heard("compress msg success")); // that was the only one
}

TEST_F(Messages, TooMuchIsRefused) {
    EXPECT_THAT(alpha.ask(send_command("beta", "bytes", 65'472'000, 1, "0x2"), "sent "), StartsWith("0 "));
    EXPECT_THAT(alpha.ask(send_command("beta", "bytes", 33'554'432), "sent "), StartsWith("0 "));
    alpha.expect("log 2 tav_ipc to many messages, IPC:[alpha@4242:0],MSG:[alpha@4242:0]->[beta@0:0] drop it");
}

TEST_F(Messages, EchoComesBack) {
    beta.ask("echo", "echoing");
    for (const char *size : {"1", "64001"})
        EXPECT_EQ(words(alpha.ask("ping beta " + std::string(size) + " 50", "pong ")).size(), 2u);
}

TEST_F(Messages, BusyReceiverLosesNothingAndKeepsTheOrder) {
    alpha.ask("level 1", "done");
    alpha.ask("wait 60000", "done"); // however slow this machine is
    beta.ask("pause 500", "pausing");
    EXPECT_THAT(alpha.ask(send_command("beta", "bytes", 160, 2000), "sent "), StartsWith("2000 "));
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(words(beta.expect("msg alpha ")).at(0), std::to_string(i));
}

TEST_F(Messages, WhatABusyReceiverRefusesIsTriedAgain) {
    std::ofstream(place.config() / "ipc.ini") << "[transfer]\neagain_retry_interval_ms = 50\n"
                                                 "eagain_max_retry_times = 1000\n";
    alpha.ask("conf " + (place.config() / "ipc.ini").string(), "done");
    alpha.ask("wait 0", "done");
    beta.ask("pause 500", "pausing");
    alpha.say(send_command("beta", "bytes", 160, 100));
    std::set<int> arrived;
    for (int i = 0; i < 100; ++i) arrived.insert(std::stoi(beta.expect("msg alpha ")));
    EXPECT_EQ(arrived.size(), 100u);
    alpha.expect("log 4 tav_ipc msg retry success");
}

TEST_F(Messages, TwoSendersReachOneReceiver) {
    Process gamma = place.start("gamma");
    gamma.ask("open gamma", "opened ");
    alpha.ask("level 1", "done");
    for (Process *sender : {&alpha, &gamma}) sender->ask("wait 60000", "done");
    for (Process *sender : {&alpha, &gamma}) sender->say(send_command("beta", "bytes", 1000, 500));
    for (const char *from : {"alpha ", "gamma "})
        for (int i = 0; i < 500; ++i)
            ASSERT_EQ(words(beta.expect("msg " + std::string(from))).at(0), std::to_string(i));
    EXPECT_EQ(gamma.finish(), 0);
}

TEST_F(Messages, FragmentsOnTheWire) {
    const struct {
        uint32_t size;
        std::vector<std::array<uint8_t, 2>> last_words; // fragment words of the first and the last datagram
        uint32_t datagrams, last_size;
    } cases[] = {
        {64'000, {{0, 0}, {0, 0}}, 1, 64'000},
        {64'001, {{0x01, 0}, {0x03, 0}}, 2, 1},
        {65'471'999, {{0x01, 0}, {0xFD, 0x07}}, 1023, 63'999},
    };
    RawSocket raw(place, "raw");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.size);
        alpha.ask(send_command("raw", "bytes", c.size, 1, "0x2"), "sent 1 ");
        std::string first = raw.receive(), last = first;
        for (uint32_t i = 1; i < c.datagrams; ++i) {
            last = raw.receive();
            ASSERT_EQ(header_of(last).frag_id, header_of(first).frag_id);
            ASSERT_EQ(header_of(last).frag_orig, c.size);
        }
        const tav_ipc_hdr_st header = header_of(last);
        EXPECT_EQ(std::memcmp(header_of(first).frag_word, c.last_words[0].data(), 2), 0);
        EXPECT_EQ(std::memcmp(header.frag_word, c.last_words[1].data(), 2), 0);
        EXPECT_EQ(header.size, c.last_size);
        EXPECT_EQ(last.size(), 60u + c.last_size);
        EXPECT_EQ(header.magic, tav_ipc_hdr_magic(&header));
        EXPECT_STREQ(header.src.name, "alpha");
        EXPECT_EQ(header.src.hostid, 4242u);
    }
}

TEST_F(Messages, AnotherLocationIsReachedThroughTheProxy) {
    RawSocket proxy(place, "_proxy_");
    alpha.ask(send_command("far", "bytes", 20, 1, "0", "0x10", 9), "sent 1 ");
    const tav_ipc_hdr_st header = header_of(proxy.receive());
    EXPECT_STREQ(header.dest.name, "far");
    EXPECT_EQ(header.dest.loc, 9);
    EXPECT_EQ(header.dest.flags, 0x10);
    EXPECT_EQ(header.src.loc, 2);
}

TEST_F(Messages, ForeignPeerIsAnsweredOrIgnored) {
    RawSocket raw(place, "raw");
    tav_ipc_hdr_st header{};
    std::strcpy(header.src.name, "raw");
    std::strcpy(header.dest.name, "beta");
    header.flags = IPC_FLAG_NEED_ACK;
    header.reqid = 77;
    header.size = 4;
    header.magic = tav_ipc_hdr_magic(&header);
    std::string datagram(reinterpret_cast<const char *>(&header), sizeof header);
    datagram += "text";
    std::string bad_magic = datagram;
    bad_magic[56] = static_cast<char>(bad_magic[56] ^ 1);
    for (const std::string &bad : {std::string(), datagram.substr(0, 59), datagram.substr(0, 63), bad_magic})
        raw.send("beta", bad);
    raw.send("beta", datagram);

    beta.expect("msg raw 0 4 ");
    const std::string reply = raw.receive();
    EXPECT_EQ(header_of(reply).flags, IPC_FLAG_ACK);
    EXPECT_EQ(header_of(reply).reqid, 77u);
    EXPECT_EQ(reply.substr(60), std::string(4, '\0'));
    EXPECT_FALSE(beta.heard("msg ")); // none of the bad ones came through
}

TEST_F(Messages, TraceNamesBothEnds) {
    Process gamma = place.start("gamma", {"IPC_TEST=1", "TAV_LOG_LEVEL=4"});
    gamma.ask("open gamma", "opened ");
    beta.ask("level 4", "done");
    gamma.ask(send_command("beta", "bytes", 5), "sent 1 ");
    const std::string ends =
        "log 4 tav_ipc [MSG TRACE] [gamma@4242:2:0]->[beta@0:0:0], reqid:1, flags:0x40, rflags: 0x0, "
        "frag:0:0:0, cmd: 0, size: 5(0), ";
    gamma.expect(ends + "send via dunix:" + (place.sockets() / "beta").string());
    beta.expect(ends + "recv from dunix"); // the flag travels with the message
    EXPECT_EQ(gamma.finish(), 0);
}

} // namespace
