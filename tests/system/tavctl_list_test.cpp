// The tool looks at the machine: sockets of modules that live and that were killed, and what keeps modules
// from working. Other tests have installations of their own at the same time, so nothing is said of theirs.
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "installation.h"

namespace {

using namespace tavipc::stage;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;
namespace fs = std::filesystem;

// A datagram socket bound to its file, which stays when the socket goes.
class Bound {
  public:
    explicit Bound(const std::string &path, bool to_itself = false)
        : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << path;
        if (!to_itself) return;
        EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    ~Bound() { close(fd_); }
    Bound(const Bound &) = delete;

  private:
    int fd_;
};

class Looking : public ::testing::Test {
  protected:
    Looking() { place_.allow({"tavctl", "alpha", "beta"}); }
    Outcome tavctl(const Words &words, const Words &environment = {}) const {
        Words command{tool_};
        command.insert(command.end(), words.begin(), words.end());
        return run(command, {}, environment);
    }
    // The lines that hold both texts.
    static std::string lines(const std::string &output, const std::string &text,
                             const std::string &too = {}) {
        std::istringstream all(output);
        std::string found;
        for (std::string line; std::getline(all, line);)
            if (line.find(text) != line.npos && line.find(too) != line.npos) found += line + "\n";
        return found;
    }
    // What "list --json" says of a socket here.
    std::string listed(const std::string &name) const {
        return lines(tavctl({"list", "--json"}).output, "\"" + place_.sockets().string() + "\"",
                     "\"name\":\"" + name);
    }
    std::string finding(const std::string &check, const Words &environment = {}) const {
        return lines(tavctl({"doctor", "--json"}, environment).output, "{\"check\":\"" + check + "\"");
    }
    const Installation place_{Installation::Setup{}};
    const std::string tool_ = place_.tool();
};

TEST_F(Looking, ListsLiveAndStaleAndCleansTheStaleAlone) {
    Process alpha = place_.start("alpha"), beta = place_.start("beta");
    alpha.ask("open alpha", "opened ");
    beta.ask("open beta", "opened ");
    beta.ask("post alpha bytes 10 1 1 0 0", "posted 1 0"); // it has a sending socket from now on
    alpha.expect("msg beta");
    const std::string process = "\"process\":" + std::to_string(beta.pid()), at = place_.sockets();
    EXPECT_THAT(listed("beta"), AllOf(HasSubstr("\"state\":\"live\",\"sending\":false," + process),
                                      HasSubstr("/bin/beta\"")));
    EXPECT_THAT(listed("ipc" + std::to_string(beta.pid()) + "_"),
                HasSubstr("\"state\":\"live\",\"sending\":true," + process));
    EXPECT_EQ(tavctl({"list", "--names"}).output, "alpha\nbeta\n");

    const Bound connected(at + "/busy", true); // takes nothing from others, a connection included
    EXPECT_THAT(listed("busy"), HasSubstr("\"state\":\"live\""));
    EXPECT_EQ(beta.kill(), -9);
    EXPECT_THAT(listed("beta"), HasSubstr("\"state\":\"stale\",\"sending\":false,\"process\":null"));
    EXPECT_THAT(finding("sockets"), AllOf(HasSubstr("\"warn\""), HasSubstr("list --clean")));
    const Outcome cleaned = tavctl({"list", "--clean"});
    EXPECT_EQ(cleaned.status, 0) << cleaned.output << cleaned.errors;
    EXPECT_THAT(cleaned.output, HasSubstr("removed " + at + "/beta\n"));
    EXPECT_FALSE(fs::exists(at + "/beta"));
    EXPECT_EQ(tavctl({"list", "--names"}).output, "alpha\nbusy\n");
    EXPECT_EQ(tavctl({"probe", "alpha", "-c", "1"}).status, 0);
    EXPECT_THAT(tavctl({"list", "--clean"}).output, HasSubstr("no stale socket file"));
    EXPECT_THAT(finding("sockets"), AllOf(HasSubstr("\"ok\""), HasSubstr(" live, 0 stale")));
}

TEST_F(Looking, MakesHostileNamesHarmless) {
    Process alpha = place_.start("alpha");
    alpha.ask("open alpha", "opened ");
    const std::string at = place_.sockets();
    // What a shell would run, what a terminal would obey, and a line that gives alpha another process.
    const std::string lie = at + "/x\n0: 2 0 0 0002 01 1 ";
    fs::create_directories(lie + at);
    const Bound shell(at + "/$(id)"), colour(at + "/\033[31m"), liar(lie + at + "/alpha");
    std::ofstream(at + "/plain") << "no socket";
    const Outcome list = tavctl({"list"});
    EXPECT_THAT(list.output, AllOf(HasSubstr("?[31m@2"), HasSubstr("$(id)@2"), Not(HasSubstr("\033"))));
    EXPECT_EQ(tavctl({"list", "--names"}).output, "alpha\n");
    EXPECT_THAT(listed("alpha"), HasSubstr("\"process\":null")) << "claimed twice";
    EXPECT_THAT(finding("sockets"), HasSubstr("files that are no sockets"));
    EXPECT_THAT(tavctl({"list", "--clean"}).output, Not(HasSubstr(at)));
}

TEST_F(Looking, ListsNothingWhereNothingRuns) {
    const Outcome list = tavctl({"list"});
    EXPECT_EQ(list.status, 0) << list.errors;
    EXPECT_THAT(list.output, Not(HasSubstr(place_.sockets())));
    EXPECT_EQ(tavctl({"list", "--names"}).output, "");
    EXPECT_EQ(tavctl({"list", "--deploy-type", "../etc"}).status, 2);
}

TEST_F(Looking, DoctorFindsWhatIsBrokenAndChangesNothing) {
    EXPECT_THAT(finding("socket directory"), HasSubstr("is not there"));
    EXPECT_THAT(finding("endpoint"), HasSubstr("\"skipped\""));
    EXPECT_FALSE(fs::exists(place_.sockets()));
    fs::create_directory(place_.sockets());
    const Outcome sound = tavctl({"doctor"});
    EXPECT_EQ(sound.status, 0) << sound.output << sound.errors;
    EXPECT_THAT(sound.output, AllOf(HasSubstr("opened, and answered itself in"), HasSubstr(" checks: ")));
    EXPECT_TRUE(fs::is_empty(place_.sockets()));

    place_.allow({"alpha"});
    place_.start("alpha").finish();
    EXPECT_THAT(finding("allow-list"), AllOf(HasSubstr("\"FAIL\""), HasSubstr("allowlist add --key")));
    EXPECT_THAT(finding("library's gate"), HasSubstr("\"ok\""));
    place_.allow({"tavctl"});
    EXPECT_THAT(finding("modules"), AllOf(HasSubstr("\"warn\""), HasSubstr("not alpha\"")));
    fs::permissions(place_.config(), fs::perms::others_write, fs::perm_options::add);
    EXPECT_THAT(finding("configuration"), AllOf(HasSubstr("\"FAIL\""), HasSubstr("chmod o-w")));
    const struct {
        const char *ini, *check, *seen;
    } faults[] = {{"location = 256\n", "agent.ini", "location = 256 is no number from 0 to 255"},
                  {"location = 2\ndeploy_type = ../x\n", "agent.ini", "deploy_type = ../x is not accepted"},
                  {"cnapp = 1\nlocation = 2\n", "agent id", "but has no hostid"},
                  {"location = 2\n", "agent id", "tavctl id --create"}};
    for (const auto &fault : faults) {
        std::ofstream(place_.config() / "agent.ini") << "[agent]\n" << fault.ini;
        EXPECT_THAT(finding(fault.check), AllOf(HasSubstr(fault.seen), Not(HasSubstr("\"ok\""))))
            << fault.ini;
    }
    fs::remove(place_.config() / "server.ini");
    EXPECT_THAT(finding("manager"), AllOf(HasSubstr("\"FAIL\""), HasSubstr("server.ini")));
    EXPECT_THAT(finding("environment", {"IPC_TEST=1"}), HasSubstr("unset IPC_TEST"));
    EXPECT_EQ(tavctl({"doctor"}).status, 1);
    EXPECT_FALSE(fs::exists(place_.config() / "machineid"));
}

} // namespace
