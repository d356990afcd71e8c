// The tool as its user has it: the built program, an agent's directory, modules as processes. Other tests
// have installations of their own at the same time, so nothing is said of theirs.
#include <csignal>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "installation.h"
#include "tavipc/tav_ipc_stats.h"
#include "temp_dir.h"

namespace {

using namespace tavipc::stage;
namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

class Tavctl : public ::testing::Test {
  protected:
    Tavctl() { place_.allow({"tavctl", "alpha", "beta"}); }
    // Expects that the tool ends with the status and writes this text among others; returns all of it.
    std::string expect(int status, Words words, const std::string &text = {},
                       std::string_view in = {}) const {
        words.insert(words.begin(), tool_);
        const Outcome outcome = run(words, in, {"TAV_LOG_LEVEL=1"});
        const std::string written = outcome.output + outcome.errors;
        EXPECT_EQ(outcome.status, status) << testing::PrintToString(words) << written;
        EXPECT_THAT(written, HasSubstr(text));
        return written;
    }
    std::unique_ptr<Process> start(const std::string &name) const {
        std::unique_ptr<Process> module(new Process(place_.start(name)));
        module->ask("open " + name, "opened ");
        return module;
    }
    std::string write(size_t size) const {
        std::ofstream file(root_ / "source", std::ios::binary);
        for (size_t i = 0; i < size; ++i) file.put(static_cast<char>(i * 2654435761u >> 13));
        return root_ / "source";
    }
    const Installation place_{Installation::Setup{}};
    const std::string tool_ = place_.tool();
    const fs::path config_ = place_.config(), root_ = config_.parent_path(), sockets_ = place_.sockets();
};

TEST_F(Tavctl, ProbesAndSaysWhyNobodyAnswers) {
    const auto alpha = start("alpha");
    std::istringstream lines(expect(0, {"probe", "alpha", "-c", "2", "-i", "0"}));
    std::string all;
    for (std::string line; std::getline(lines, line); all += line) EXPECT_LE(line.size(), 80u) << line;
    EXPECT_THAT(all, ContainsRegex("2 sent, 2 answered, 0 % lost  min .*median .*mean .*max .*std dev "));
    EXPECT_EQ(alpha->kill(), -9);
    expect(3, {"request", "alpha", "x", "-t", "3600"}, "is stale, its process is gone");
    expect(1, {"send", "nobody", "text", "--no-confirm"}, "dropped: ");
}

TEST_F(Tavctl, ListensAndSends) {
    Process listener(tool_, {}, {"listen", "ear", "-c", "4", "--json"});
    EXPECT_THAT(listener.expect("{\"type\":\"ready\""), HasSubstr("ear@2"));
    expect(0, {"send", "ear", "two words", "--cmd", "7"});
    expect(0, {"send", "ear", "--hex", "00 FF"});
    expect(0, {"send", "ear", std::string(1000, 'x'), "--compress", "--priority=9"},
           "ear: 1,020 bytes, compressed to ");
    expect(0, {"send", "ear"}, "", "from\ninput");
    std::string heard;
    for (int i = 0; i < 4; ++i) heard += listener.expect("{\"type\":\"message\"");
    for (const char *fact :
         {"\"cmd\":7,\"size\":9,\"app\":false,\"text\":\"two words\"", "\"hex\":\"00ff\"",
          "\"app\":true,\"priority\":9,\"body_size\":1000,\"text\":\"xxx", "\"text\":\"from\\ninput\""})
        EXPECT_THAT(heard, HasSubstr(fact));
    EXPECT_THAT(heard, ContainsRegex("\"time\":\"20[0-9-]+T[0-9:]+\\.[0-9]{3}[+-][0-9]{2}:[0-9]{2}\""));
    EXPECT_EQ(listener.finish(), 0);
    EXPECT_FALSE(fs::exists(sockets_ / "ear")) << "its socket file is removed";
}

TEST_F(Tavctl, AsksAndAnswers) {
    Process server(tool_, {}, {"reply", "mirror", "--echo", "-c", "2"});
    server.expect("answering as mirror@2");
    const std::string large(200'000, 'z');
    EXPECT_EQ(expect(0, {"request", "mirror", "--raw"}, "", large), large);
    expect(0, {"request", "mirror", "hello", "--cmd", "4"}, "cmd 5, 5 bytes\n  hello\n");
    EXPECT_EQ(server.finish(), 0);
}

TEST_F(Tavctl, ListsTheEndpointsThatTheBridgeHasHeard) {
    Process bridge(tool_, {},
                   {"reply", "tavbridge", "near 3 1003 5\na b 3 1003 5\nlast 5 1005 7\n", "-c", "2"});
    bridge.expect("answering as ");
    expect(0, {"list", "--all"}, "\nnear@3  on machine 1003, 5 s ago\nlast@5  on machine 1005, 7 s ago\n");
    expect(0, {"list", "--all", "--json"}, R"({"name":"last","location":5,"hostid":1005,"state":"heard",)");
    EXPECT_EQ(bridge.finish(), 0);
    expect(3, {"list", "--all"}, "no answer from tavbridge");
}

TEST_F(Tavctl, SaysWhyAFileANameOrAProcessIsRefused) {
    const auto alpha = start("alpha");
    const std::string pid = std::to_string(alpha->pid());
    expect(1, {"sendfile", "alpha", write(10)}, "alpha accepts no files");
    expect(1, {"sendfile", "alpha", "/dev/null"}, "is not a regular file");
    expect(1, {"recvfile", "/proc"}, "cannot write to /proc");
    expect(0, {"allowlist", "why", pid});
    expect(1, {"listen", "alpha", "-c", "1"}, "the endpoint name alpha is in use");
    fs::remove(root_ / "bin/alpha");
    std::ofstream(root_ / "bin/alpha") << "new";
    EXPECT_THAT(expect(1, {"allowlist", "why", pid}, "refused, it was replaced"),
                HasSubstr("do: restart the"));
    place_.allow({"alpha"});
    expect(4, {"probe", "alpha"}, "the name \"tavctl\" is not in");
}

TEST_F(Tavctl, ShowsTheIdentityAndMakesNoneUnasked) {
    expect(0, {"id"}, "4242, from the platform");
    std::ofstream(config_ / "agent.ini") << "[agent]\nlocation = 2\n";
    expect(1, {"id", "--json"}, "\"agent_id\":0,\"source\":\"none\"");
    expect(1, {"probe", "alpha"}, "there is no agent id");
    EXPECT_FALSE(fs::exists(config_ / "machineid"));
}

TEST_F(Tavctl, KeepsTheSignedList) {
    const std::string key = root_ / "my.pem", open = root_ / "my.pub", dir = root_ / "new/config";
    const auto list = [&](int status, Words words, const char *text = "") {
        words.insert(words.begin(), "allowlist");
        words.insert(words.end(), {"--key", words[1] == "verify" ? open : key, "--dir", dir});
        expect(status, words, text);
    };
    expect(0, {"allowlist", "keygen", "--private", key, "--public", open});
    EXPECT_EQ(fs::status(key).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    expect(1, {"allowlist", "keygen", "--private", key, "--public", open + "2"}); // never replaced
    expect(1, {"allowlist", "sign", "--key", key}); // the library would refuse its own list
    list(0, {"add", "alpha", "beta", "gamma"});
    list(0, {"remove", "alpha"});
    list(1, {"verify", "beta", "alpha"}, "2 names\nbeta: allowed\nalpha: NOT in the list\n");
    expect(1, {"allowlist", "verify", "--dir", dir}); // signed by another key than the library's
    std::ofstream(dir + "/linux.json") << "{\"linux\":[1]}";
    list(1, {"add", "delta"}); // what nobody signed is not signed along
    list(0, {"sign"});
    fs::rename(dir + "/linux.json", root_ / "real");
    fs::create_symlink("../../real", dir + "/linux.json");
    list(0, {"add", "delta"}); // the link stays
    EXPECT_TRUE(fs::is_symlink(dir + "/linux.json"));
    if (geteuid() == 0 && lchown((dir + "/linux.json").c_str(), 65534, 65534) == 0)
        list(1, {"remove", "delta"}, "linux.json is a link of another user");
}

TEST_F(Tavctl, ExplainsADatagramAndTellsWrongUsageFromFailure) {
    std::string hex(120, '0');
    hex.replace(112, 8, "a599d619"); // the check value of an all-zero header, 0x19D699A5
    hex.replace(88, 8, "01000000");  // size 1: nothing follows, and the check value differs
    expect(1, {"explain"}, "WRONG: it should be 0x1C7621AC", hex);
    const std::pair<Words, const char *> cases[] = {
        {{}, "Usage: tavctl [OPTIONS] COMMAND"},
        {{"prob", "alpha"}, "unknown command 'prob'; did you mean 'probe'?"},
        {{"list", "-i", "3"}, "not expected: -i 3\n"},
        {{"probe", "alpha", "-c", "-1"}, "-c: \"-1\" is not a valid number"},
        {{"send", "alpha", "x", "--file", "y"}, "not both"},
        {{"allowlist", "add", "beta"}, "--key is missing"}};
    for (const auto &[words, reason] : cases) expect(2, words, reason);
    expect(1, {"--agent", "/nonexistent", "id"}, "an agent has its own tavctl");
}

TEST_F(Tavctl, CompletesCommandsOptionsAndEndpoints) {
    const auto alpha = start("alpha");
    EXPECT_EQ(expect(0, {"completion", "--", "allowlist", "ver"}), "verify\n");
    EXPECT_EQ(expect(0, {"completion", "--", "--json", "probe", "--inter"}), "--interval\n");
    EXPECT_EQ(expect(0, {"completion", "--", "send", "-c", "3", "al"}), "alpha\n");
}

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

TEST_F(Tavctl, ListsLiveAndStaleAndCleansTheStaleAlone) {
    const auto alpha = start("alpha"), beta = start("beta");
    beta->ask("post alpha bytes 10 1 1 0 0", "posted 1 0"); // it has a sending socket from now on
    alpha->expect("msg beta");
    const std::string pid = std::to_string(beta->pid()), at = sockets_, all = expect(0, {"list", "--pool"});
    EXPECT_THAT(all, ContainsRegex(at + ": [^/]*beta@2 +live +" + pid + " [^/]* beta\n"));
    EXPECT_THAT(all, ContainsRegex(at + ": [^/]*ipc" + pid + "_[0-9]+@2 +live +" + pid + " "));
    expect(0, {"list", "--json"}, "\"since\":\"20");
    const int busy = bind_to(at + "/busy"); // takes nothing from others, a connection included
    EXPECT_EQ(beta->kill(), -9);
    expect(0, {"doctor"}, "list --clean");
    expect(0, {"list", "--clean"}, "removed " + at + "/beta\n");
    EXPECT_EQ(expect(0, {"list", "--names"}), "alpha\nbusy\n");
    expect(0, {"list", "--clean"}, "no stale socket file");
    close(busy);
}

TEST_F(Tavctl, MakesHostileNamesHarmless) {
    const auto alpha = start("alpha");
    const std::string at = sockets_;
    // What a shell would run, what a terminal would obey, and a line that gives alpha another process.
    const std::string lie = at + "/x\n0: 2 0 0 0002 01 1 ";
    fs::create_directories(lie + at);
    const int sockets[] = {bind_to(at + "/$(id)"), bind_to(at + "/\033[31m"), bind_to(lie + at + "/alpha")};
    const std::string all = expect(0, {"list"}, "?[31m@2");
    EXPECT_THAT(all, Not(HasSubstr("\033")));
    EXPECT_THAT(all, ContainsRegex(at + ": [^/]*alpha@2 +live +- ")) << "claimed twice";
    EXPECT_EQ(expect(0, {"list", "--names"}), "alpha\n");
    expect(0, {"doctor"}, "files that are not sockets");
    EXPECT_THAT(expect(0, {"list", "--clean"}), Not(HasSubstr(at)));
    for (const int fd : sockets) close(fd);
}

TEST_F(Tavctl, ShowsCountersOfRunningStoppedAndKilledModules) {
    const auto alpha = start("alpha"), beta = start("beta");
    alpha->ask("post beta bytes 100 3 1 0 0", "posted 3 0");
    beta->expect("msg alpha 3 ");
    EXPECT_THAT(
        expect(0, {"stats", "alpha"}, "\n  to beta@2: messages 3, accepted 3, accepted_bytes 480, left 3"),
        ContainsRegex("alpha@2, process [0-9]+ \\(alpha\\), running.*\n  messages +3  messages "));
    EXPECT_THAT(expect(0, {"stats", "beta@2", "--json"}),
                ContainsRegex("^\\{\"type\":\"endpoint\",\"endpoint\":\"beta\",.*\"received\":3,.*\\}\n$"));
    beta->signal(SIGSTOP);
    alpha->ask("post beta bytes 100000 300 4 0 0", "posted 303 0"); // more than a socket queues
    EXPECT_THAT(expect(0, {"list"}),
                ContainsRegex(std::string(sockets_) + ": [^/]*alpha@2 +live .* [1-9][0-9,]* +alpha\n"));
    EXPECT_THAT(expect(0, {"top", "-c", "1", "-i", "0.1"}), ContainsRegex("beta@2 +T +[0-9]+ +0 +0 B"));
    EXPECT_EQ(alpha->kill(), -9);
    expect(0, {"stats", "alpha"}, ", ended; its last counts:\n  messages                       303 ");
    EXPECT_EQ(beta->kill(), -9);
    expect(1, {"stats", "nowhere"}, "there are no counters of an endpoint nowhere");
}

// No process wrote this file: two endpoints have the same hostile name, and one has a destination.
TEST_F(Tavctl, BelievesNoCounterFile) {
    fs::create_directory(sockets_);
    const std::string pid = std::to_string(getpid());
    struct {
        tav_ipc_stats_file_st header{"TAVSTAT", 1, 40, 448, 3, 1, static_cast<uint32_t>(getpid()), 0, 1};
        tav_ipc_stats_record_st records[3]{{1, 1, 0, 2, "a\"\\\n\033", 1, 0, {UINT64_MAX}},
                                           {1, 1, 1, 2, "a\"\\\n\033", 1, 0, {}},
                                           {2, 1, 0, 2, "b", 1, 0, {5}}};
    } file;
    const auto expect_of = [&](size_t size, Words words, const std::string &text = {}) {
        std::ofstream(sockets_ / ("ipc" + pid + ".stats"), std::ios::binary)
            .write(reinterpret_cast<const char *>(&file), static_cast<std::streamsize>(size));
        return expect(0, std::move(words), text);
    };
    const auto metrics = expect_of(sizeof file, {"stats", "--prometheus"}, "\n# TYPE tavipc_queued gauge\n");
    const auto labels = R"({endpoint="a\"\\??",location="2",pid=")" + pid + "\",destination=\"";
    EXPECT_THAT(metrics,
                ContainsRegex("_messages_total counter\n[^#]*18446744073709551615\n[^#]*b@2\"} 5\n"));
    EXPECT_THAT(metrics, HasSubstr("\ntavipc_running" + labels + "\"} 0\n"))
        << "another process has begun then";
    for (const size_t size : {0, 39, 40, 41, 500, 1000, 1383}) expect_of(size, {"stats", "--json"});
    file.header.record_count = 4096;
    file.header.value_count = UINT32_MAX;
    expect_of(sizeof file, {"stats"}, "a\"\\??@2, process");
    EXPECT_THAT(expect(0, {"list"}), Not(HasSubstr(sockets_))) << "it is no file of another kind";
    const fs::path other = sockets_ / "zon_ipc3"; // that nobody names, where any user can make directories
    fs::create_directory(other);
    const int found = bind_to(other / "x");
    fs::copy(sockets_ / ("ipc" + pid + ".stats"), other / "ipc1.stats");
    expect(0, {"stats"}, other / "ipc1.stats: of another process");
    if (geteuid() == 0 && chown((other / "ipc1.stats").c_str(), 65534, 65534) == 0)
        expect(0, {"stats"}, other / "ipc1.stats: of user ");
    close(found);
    file.header.record_count = 4097;
    expect_of(sizeof file, {"stats"}, "its header is damaged");
    file.header.record_count = 3;
    file.header.record_size = 8;
    expect_of(sizeof file, {"stats"}, "its header is damaged");
}

TEST_F(Tavctl, DoctorFindsWhatIsBrokenAndChangesNothing) {
    expect(0, {"doctor"}, "is not there");
    fs::create_directory(sockets_); // the doctor has not
    expect(0, {"doctor"}, "opened, and answered itself in");
    EXPECT_TRUE(fs::is_empty(sockets_));
    fs::permissions(config_, fs::perms::others_write, fs::perm_options::add);
    const std::pair<const char *, const char *> faults[] = {
        {"location = 256\n", "location = 256 is not a number from 0 to 255"},
        {"location = 2\ndeploy_type = ../x\n", "deploy_type = ../x is not accepted"},
        {"location = 2\n", "tavctl id --create"}};
    for (const auto &[ini, seen] : faults) {
        std::ofstream(config_ / "agent.ini") << "[agent]\n" << ini;
        EXPECT_THAT(expect(1, {"doctor"}, seen), HasSubstr("chmod o-w")) << ini;
    }
    std::ofstream(config_ / "tav-bridge.ini");
    place_.put("tav-bridge", "/bin/false"); // the real one would make an id
    expect(1, {"doctor"}, "not tried, because there is no agent id");
    EXPECT_FALSE(fs::exists(config_ / "machineid"));
}

// In this file system, and in another one where there is one.
TEST_F(Tavctl, FilesArriveWholeAndReplaceNone) {
    const TempDir other("/dev/shm/tavipc-XXXXXX");
    fs::create_directory(root_ / "drop");
    for (const fs::path &directory : {fs::path(other / ""), root_ / "drop"}) {
        fs::create_symlink("nothing", directory / "source");
        Process receiver(tool_, {}, {"recvfile", directory, "--as", "in", "-c", "3", "--json"});
        receiver.expect("{\"type\":\"ready\"");
        for (const size_t size : {0, 200'017}) {
            const std::string path = write(size),
                              sum = run({"/usr/bin/sha256sum", path}).output.substr(0, 64);
            expect(0, {"sendfile", "in", path}, sum);
            EXPECT_THAT(receiver.expect("{\"type\":\"file\""), HasSubstr(sum));
        }
        fs::rename(write(1), root_ / "a\nb"); // a name that the library does not announce
        expect(0, {"sendfile", "in", root_ / "a\nb"});
        EXPECT_THAT(receiver.expect("{\"type\":\"file\""), HasSubstr("\"name\":\"\""));
        EXPECT_EQ(receiver.finish(), 0);
        const auto files = std::distance(fs::directory_iterator(directory), fs::directory_iterator());
        EXPECT_TRUE(fs::is_symlink(directory / "source") && files == 4) << "none is replaced or left over";
    }
}

} // namespace
