// Sockets of modules that live and that were killed, and what keeps modules from working. Other tests have
// installations of their own at the same time, so nothing is said of theirs.
#include <sstream>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tavctl_fixture.h"

namespace {

using namespace tavipc::stage;
using testing::AllOf;
using testing::Not;

// Returns a datagram socket that is bound to a file and connected to itself.
int bind_to(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << path;
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << path;
    return fd;
}

class Looking : public TavctlTest {
  protected:
    // The lines of list's JSON for sockets here whose names begin so.
    std::string listed(const std::string &name) const {
        std::istringstream all(expect(0, {"list", "--json"}));
        std::string found;
        for (std::string line; std::getline(all, line);)
            if (line.find("{\"directory\":\"" + sockets_.string() + "\",\"name\":\"" + name) == 0)
                found += line;
        return found;
    }
};

TEST_F(Looking, ListsLiveAndStaleAndCleansTheStaleAlone) {
    const auto alpha = start("alpha"), beta = start("beta");
    beta->ask("send alpha 2 bytes 10 1 0 0", "sent 1"); // it has a sending socket from now on
    alpha->expect("msg beta");
    const std::string pid = std::to_string(beta->pid()), process = "\"process\":" + pid, at = sockets_;
    EXPECT_THAT(listed("beta"),
                ContainsRegex("\"live\",\"sending\":false," + process + ".*/bin/beta\".*\"since\":\"20"));
    EXPECT_THAT(listed("ipc" + pid + "_"), HasSubstr("\"live\",\"sending\":true," + process));
    const int busy = bind_to(at + "/busy"); // takes nothing from others, a connection included
    EXPECT_EQ(beta->kill(), -9);
    EXPECT_THAT(listed("beta"), HasSubstr("\"stale\",\"sending\":false,\"process\":null"));
    EXPECT_THAT(expect(0, {"doctor"}), HasSubstr("list --clean"));
    EXPECT_THAT(expect(0, {"list", "--clean"}), HasSubstr("removed " + at + "/beta\n"));
    EXPECT_EQ(expect(0, {"list", "--names"}), "alpha\nbusy\n");
    EXPECT_THAT(expect(0, {"list", "--clean"}), HasSubstr("no stale socket file"));
    close(busy);
}

TEST_F(Looking, MakesHostileNamesHarmless) {
    const auto alpha = start("alpha");
    const std::string at = sockets_;
    // What a shell would run, what a terminal would obey, and a line that gives alpha another process.
    const std::string lie = at + "/x\n0: 2 0 0 0002 01 1 ";
    fs::create_directories(lie + at);
    const int sockets[] = {bind_to(at + "/$(id)"), bind_to(at + "/\033[31m"), bind_to(lie + at + "/alpha")};
    EXPECT_THAT(expect(0, {"list"}),
                AllOf(HasSubstr("?[31m@2"), HasSubstr("$(id)@2"), Not(HasSubstr("\033"))));
    EXPECT_EQ(expect(0, {"list", "--names"}), "alpha\n");
    EXPECT_THAT(listed("alpha"), HasSubstr("\"process\":null")) << "claimed twice";
    EXPECT_THAT(expect(0, {"doctor"}), HasSubstr("files that are not sockets"));
    EXPECT_THAT(expect(0, {"list", "--clean"}), Not(HasSubstr(at)));
    for (const int fd : sockets) close(fd);
}

TEST_F(Looking, DoctorFindsWhatIsBrokenAndChangesNothing) {
    EXPECT_THAT(expect(0, {"doctor"}), HasSubstr("is not there"));
    EXPECT_FALSE(fs::exists(sockets_));
    fs::create_directory(sockets_);
    EXPECT_THAT(expect(0, {"doctor"}), HasSubstr("opened, and answered itself in"));
    EXPECT_TRUE(fs::is_empty(sockets_));
    fs::permissions(config_, fs::perms::others_write, fs::perm_options::add);
    const std::pair<const char *, const char *> faults[] = {
        {"location = 256\n", "location = 256 is not a number from 0 to 255"},
        {"location = 2\ndeploy_type = ../x\n", "deploy_type = ../x is not accepted"},
        {"cnapp = 1\nlocation = 2\n", "but has no hostid"},
        {"location = 2\n", "tavctl id --create"}};
    for (const auto &[ini, seen] : faults) {
        std::ofstream(config_ / "agent.ini") << "[agent]\n" << ini;
        EXPECT_THAT(expect(1, {"doctor"}), AllOf(HasSubstr(seen), HasSubstr("chmod o-w"))) << ini;
    }
    EXPECT_FALSE(fs::exists(config_ / "machineid"));
}

} // namespace
