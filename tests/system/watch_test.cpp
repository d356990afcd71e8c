// What modules notice in their socket directory: peers, and monitors, which get copies of datagrams.
#include <cstring>
#include <fstream>
#include <numeric>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "installation.h"
#include "tavipc/tav_ipc.h"
#include "tavipc/tav_ipc_monitor.h"
#include "tavipc/tav_ipc_stats.h"
#include "temp_dir.h"

using namespace tavipc::stage;
using tavipc::UniqueFd;
namespace fs = std::filesystem;

namespace {

constexpr uid_t kNobody = 65534;

struct Record : tav_ipc_monitor_record_st {
    tav_ipc_hdr_st header;
    char payload[64];
};

struct Monitor {
    Monitor(const std::string &path, int type) : fd(socket(AF_UNIX, type, 0)) {
        sockaddr_un address{AF_UNIX, {}};
        fs::create_directories(fs::path(path).parent_path());
        path.copy(address.sun_path, sizeof address.sun_path);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(type == SOCK_SEQPACKET ? listen(fd.get(), 8) : 0, 0);
        EXPECT_EQ(chmod(address.sun_path, 0600), 0);
    }
    Record next(int event) const {
        Record record{};
        pollfd ready{fd.get(), POLLIN, 0};
        do
            if (poll(&ready, 1, 60'000) != 1 || recv(fd.get(), &record, sizeof record, 0) <= 0)
                throw std::runtime_error("no record of event " + std::to_string(event));
        while (record.event != event);
        return record;
    }
    void say(uint16_t command, uint32_t value, uid_t user = geteuid()) const {
        const tav_ipc_monitor_command_st bytes{TAV_IPC_MONITOR_MAGIC, 1, command, value, 0};
        EXPECT_EQ(setreuid(user, static_cast<uid_t>(-1)), 0); // the real user is in the credentials
        EXPECT_GT(send(fd.get(), &bytes, sizeof bytes, 0), 0);
        EXPECT_EQ(setreuid(geteuid(), static_cast<uid_t>(-1)), 0);
    }
    UniqueFd fd;
};

struct Watch : testing::Test {
    Watch() { place.allow({"alpha", "beta"}); }
    const TempDir root{"/var/tmp/tavipc-XXXXXX"}; // stays when the directory above the sockets goes
    const Installation place{{.root = root / ""}};
    Process alpha = place.start("alpha"), beta = place.start("beta");
};

TEST_F(Watch, PeersAppearGoAndAreReplaced) {
    alpha.ask("open alpha", "opened ");
    alpha.ask("watch beta -1", "peer beta 0");
    beta.ask("open beta", "opened ");
    alpha.expect("peer beta 1");
    beta.ask("close", "closed");
    alpha.expect("peer beta 0");
    beta.ask("open beta", "opened ");
    alpha.expect("peer beta 1");
    alpha.signal(SIGSTOP);
    EXPECT_EQ(waitpid(alpha.pid(), nullptr, WUNTRACED), alpha.pid());
    beta.ask("close\nopen beta", "opened ");
    alpha.signal(SIGCONT);
    alpha.expect("peer beta 2");
    alpha.ask("fork", "child 0"); // and the parent goes on
    EXPECT_EQ(beta.kill(), -SIGKILL);
    alpha.expect("peer beta 0");
    Process heir = place.start("beta");
    heir.say("open beta");
    alpha.expect("peer beta 1");
    alpha.ask("watch beta 0", "peer beta 1"); // destroys the endpoint when the peer goes
    heir.say("close");
    alpha.expect("closed");
    const auto watched = [&] { // directories, with the descriptor that the thread keeps
        int count = 0;
        for (const auto &file : fs::directory_iterator("/proc/" + std::to_string(alpha.pid()) + "/fdinfo")) {
            std::ifstream lines(file.path());
            for (std::string line; std::getline(lines, line);) count += line.starts_with("inotify wd:");
        }
        return count;
    };
    alpha.ask("open alpha", "opened ");
    EXPECT_EQ(watched(), 4);                                  // from /var down
    alpha.ask("watch heir -1\nwatch heir -2", "peer heir 0"); // the second is renewed in each callback
    alpha.ask("close", "closed");
    EXPECT_EQ(watched(), 0);
    EXPECT_EQ(alpha.finish(), 0); // its loop can be closed
}

struct Monitors : Watch {
    void open() { // alpha, which connects to the monitor, and beta
        alpha.ask("open alpha", "opened ");
        monitor.fd = UniqueFd(accept(monitor.fd.get(), nullptr, nullptr));
        EXPECT_STREQ(monitor.next(TAV_IPC_MONITOR_HELLO).endpoint, "alpha");
        beta.ask("open beta", "opened ");
    }
    void capture(uint32_t size, uid_t user = geteuid()) { // alpha has read the commands at the end
        monitor.say(TAV_IPC_MONITOR_CAPTURE, size, user);
        monitor.say(TAV_IPC_MONITOR_LOG_LEVEL, 4);
        alpha.expect("log 3 tav_ipc a monitor has set the log level to 4");
    }
    Record post() { return alpha.say("post beta bytes 160 1 7 0 0"), monitor.next(TAV_IPC_MONITOR_SENT); }
    const std::string names = place.sockets() / TAV_IPC_MONITOR_NAME;
    Monitor monitor{names + "3", SOCK_SEQPACKET};
};

TEST_F(Monitors, GetCopiesOfWhatTheyAskFor) {
    std::ofstream(names + "0") << "a plain file";
    EXPECT_EQ(mkfifo((names + "1").c_str(), 0600), 0);
    open();
    EXPECT_EQ(post().captured, 0u);
    capture(8);
    const Record copy = post();
    EXPECT_EQ(copy.captured, 8u);
    EXPECT_EQ(copy.header.cmd, 7u);
    EXPECT_EQ(copy.pid, static_cast<uint32_t>(alpha.pid()));
    alpha.say("post nobody bytes 160 1 8 0 0");
    EXPECT_EQ(monitor.next(TAV_IPC_MONITOR_WAITING).header.cmd, 8u);
}

TEST_F(Monitors, OfAnotherUserGetAndChangeNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "left out: only root can make another user's monitor";
    const Monitor other(names + "2", SOCK_SEQPACKET);
    EXPECT_EQ(chown((names + "2").c_str(), kNobody, kNobody), 0);
    open();
    pollfd connection{other.fd.get(), POLLIN, 0};
    EXPECT_EQ(poll(&connection, 1, 0), 0);
    capture(16, kNobody);
    EXPECT_EQ(post().captured, 0u);
}

TEST_F(Monitors, GetCopiesInTheOrderOfTheMessages) {
    const Monitor receiver(place.sockets() / "receiver", SOCK_DGRAM);
    int room = 0;
    std::ifstream("/proc/sys/net/unix/max_dgram_qlen") >> room;
    open();
    std::vector<uint32_t> sent, wanted(static_cast<size_t>(room) + 4); // the last few wait in alpha
    std::iota(wanted.begin(), wanted.end(), 1000);
    alpha.say("post receiver bytes 160 " + std::to_string(wanted.size()) + " 1000 0 0");
    alpha.expect("posted " + std::to_string(wanted.back()));
    while (sent.size() < wanted.size() - 3) sent.push_back(monitor.next(TAV_IPC_MONITOR_SENT).header.cmd);
    alpha.signal(SIGSTOP);
    EXPECT_EQ(waitpid(alpha.pid(), nullptr, WUNTRACED), alpha.pid());
    for (char byte; recv(receiver.fd.get(), &byte, 1, MSG_DONTWAIT) > 0;) continue;
    alpha.say("post receiver bytes 160 1 7000 0 0"); // in the turn of the loop in which the others leave
    alpha.signal(SIGCONT);
    wanted.push_back(7000);
    while (sent.size() < wanted.size()) sent.push_back(monitor.next(TAV_IPC_MONITOR_SENT).header.cmd);
    EXPECT_EQ(sent, wanted);
}

TEST_F(Monitors, LearnHowManyCopiesTheyMissed) {
    open();
    alpha.say("post beta bytes 160 5000 1000 0 0"); // while the monitor does not read
    beta.expect("msg alpha 5999 ");
    size_t taken = 0;
    for (Record record; recv(monitor.fd.get(), &record, sizeof record, MSG_DONTWAIT) > 0;) ++taken;
    Record last = post();
    for (; last.header.cmd != 7; last = monitor.next(TAV_IPC_MONITOR_SENT)) ++taken;
    EXPECT_GT(taken, 0u);
    EXPECT_GT(last.missed, 0u);
    EXPECT_GE(taken + last.missed, 5000u);
}

TEST_F(Watch, ANewDirectoryIsFoundWithItsMonitor) {
    alpha.ask("open alpha", "opened ");
    alpha.ask("watch heir -1", "peer heir 0"); // it has an inotify descriptor from now on
    fs::remove_all(place.sockets().parent_path());
    for (int i = 0; i < 2; ++i) alpha.ask("fork", "child 0"); // it has noticed that
    const Monitor monitor(place.sockets() / TAV_IPC_MONITOR_NAME "0", SOCK_DGRAM);
    EXPECT_STREQ(monitor.next(TAV_IPC_MONITOR_HELLO).endpoint, "alpha");
    alpha.say("post nobody bytes 160 1 9 0 0\nclose"); // while the message waits
    EXPECT_EQ(monitor.next(TAV_IPC_MONITOR_DROPPED).reason, TAV_IPC_STATS_DROPPED_CLOSED);
    EXPECT_EQ(alpha.finish(), 0);
}

} // namespace
