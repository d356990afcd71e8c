// What modules notice in their socket directory: peers, and monitors, which get copies of datagrams.
#include <cstring>
#include <fstream>

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
    Monitor(const fs::path &path, int type, uid_t owner = geteuid()) : fd(socket(AF_UNIX, type, 0)) {
        sockaddr_un address{AF_UNIX, {}};
        const timeval limit{60, 0};
        path.string().copy(address.sun_path, sizeof address.sun_path);
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(type == SOCK_SEQPACKET ? listen(fd.get(), 8) : 0, 0);
        EXPECT_EQ(chown(address.sun_path, owner, static_cast<gid_t>(-1)), 0);
        EXPECT_EQ(chmod(address.sun_path, 0600), 0);
    }
    void accept_module() {
        const timeval limit{60, 0};
        fd = UniqueFd(accept(fd.get(), nullptr, nullptr));
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    Record next(int event) const {
        for (Record record{};;) {
            if (recv(fd.get(), &record, sizeof record, 0) <= 0) throw std::runtime_error("no such copy");
            EXPECT_EQ(record.magic, TAV_IPC_MONITOR_MAGIC);
            if (record.event == event) return record;
        }
    }
    void say(uint16_t command, uint32_t value, uid_t user = geteuid()) const {
        const tav_ipc_monitor_command_st bytes{TAV_IPC_MONITOR_MAGIC, TAV_IPC_MONITOR_VERSION, command, value,
                                               0};
        const pid_t child = fork();
        if (child == 0)
            _exit((user == geteuid() || setuid(user) == 0) && send(fd.get(), &bytes, sizeof bytes, 0) > 0);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 1);
    }
    UniqueFd fd;
};

struct Watch : testing::Test {
    Watch() : place({}) { place.allow({"alpha", "beta"}); }
    const Installation place;
    Process alpha = place.start("alpha"), beta = place.start("beta");
};

TEST_F(Watch, PeersAppearGoAndAreReplaced) {
    alpha.ask("open alpha", "opened ");
    alpha.ask("watch ../beta 0", "refused");
    alpha.ask("watch beta -1", "peer beta 0");
    beta.ask("open beta", "opened ");
    alpha.expect("peer beta 1");
    beta.ask("close", "closed");
    alpha.expect("peer beta 0");
    beta.ask("open beta", "opened ");
    alpha.expect("peer beta 1");
    alpha.signal(SIGSTOP);
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
    EXPECT_EQ(alpha.finish(), 0); // its loop can be closed
}

TEST_F(Watch, MonitorsOfTheModulesUserGetCopies) {
    const bool root = geteuid() == 0;
    const std::string names = place.sockets() / TAV_IPC_MONITOR_NAME;
    fs::create_directories(place.sockets());
    std::ofstream(names + "0") << "a plain file";
    EXPECT_EQ(mkfifo((names + "1").c_str(), 0600), 0);
    const Monitor other(names + (root ? "2" : "9"), SOCK_SEQPACKET, root ? kNobody : geteuid());
    Monitor monitor(names + "3", SOCK_SEQPACKET);
    alpha.ask("open alpha", "opened ");
    monitor.accept_module();
    EXPECT_STREQ(monitor.next(TAV_IPC_MONITOR_HELLO).endpoint, "alpha");
    pollfd connection{other.fd.get(), POLLIN, 0};
    EXPECT_EQ(poll(&connection, 1, 0), 0);

    beta.ask("open beta", "opened ");
    const auto post = [&] {
        return alpha.say("post beta bytes 160 1 7 0 0"), monitor.next(TAV_IPC_MONITOR_SENT);
    };
    EXPECT_EQ(post().captured, 0u);
    monitor.say(TAV_IPC_MONITOR_CAPTURE, 8);
    while (post().captured != 8)
        ;
    if (root) monitor.say(TAV_IPC_MONITOR_CAPTURE, 16, kNobody);
    monitor.say(TAV_IPC_MONITOR_LOG_LEVEL, 4);
    alpha.expect("log 3 tav_ipc a monitor has set the log level to 4");
    const Record copy = post();
    EXPECT_EQ(copy.captured, 8u);
    EXPECT_EQ(copy.header.cmd, 7u);
    EXPECT_EQ(copy.pid, static_cast<uint32_t>(alpha.pid()));
    monitor.say(TAV_IPC_MONITOR_LOG_LEVEL, 2);
    alpha.say("post nobody bytes 160 1 8 0 0");
    EXPECT_EQ(monitor.next(TAV_IPC_MONITOR_WAITING).header.cmd, 8u);

    alpha.say("post beta bytes 160 5000 1000 0 0"); // while the monitor does not read
    beta.expect("msg alpha 5999 ");
    size_t taken = 0;
    for (Record record; recv(monitor.fd.get(), &record, sizeof record, MSG_DONTWAIT) > 0;) ++taken;
    const uint64_t missed = post().missed;
    EXPECT_GT(taken, 0u);
    EXPECT_GT(missed, 0u);
    EXPECT_GE(taken + missed, 5000u);

    fs::remove(names + "0");
    const Monitor datagrams(names + "0", SOCK_DGRAM);
    while (std::string_view(datagrams.next(TAV_IPC_MONITOR_HELLO).endpoint) != "alpha")
        ;
    alpha.say("post beta bytes 160 1 9 0 0\nclose"); // before the message can leave
    while (datagrams.next(TAV_IPC_MONITOR_DROPPED).reason != TAV_IPC_STATS_DROPPED_CLOSED)
        ;
    EXPECT_EQ(alpha.finish(), 0);
}

} // namespace
