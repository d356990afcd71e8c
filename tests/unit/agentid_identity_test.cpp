// Identity files, lock, VM id and agent id in a directory of the test's own. Stand-ins take the places of the
// network room, the guest tool, the UUID, sleep, and the semaphore's name and wait; `stage` drives them.
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <uuid/uuid.h>

#include "agentid/conf_dir.h"
#include "agentid/id_file.h"
#include "agentid/mac_discovery.h"
#include "fakes.h"

using namespace std::string_literals;
namespace fs = std::filesystem;

static struct Stage {
    std::string vmid = R"({"vmid":"123"})"; // that the guest tool reports; empty: it fails
    int mac_by_ip_failures = 0, sem_open_error = 0;
    bool no_mac = false; // else kHead, kOther
    int semaphore = 1;
    timespec deadline{};
    std::string events{}; // what was done and released, in order
} stage;

static const std::string kHead = "\x02\0\0\0\0\x0A"s, kOther = "\x02\0\0\0\0\x0B"s,
                         kRouted = "\x02\0\0\0\0\x0F"s;
static const std::string kOpen = "/tav_agentid_mutexlock ", kStored = kOpen + "post close unlink ";

static int record(const std::string &event) { return stage.events += event + " ", 0; }

extern "C" {

int shell_execute(const char *command, char *out, int size) noexcept {
    EXPECT_STREQ(command, "\"/usr/local/Velkaro/G2HProxy\" -getvmid 2>/dev/null | grep vmid");
    record("tool");
    return str_strlcpy(out, stage.vmid.c_str(), static_cast<size_t>(size)) > 0 ? 0 : -1;
}
void uuid_generate(uuid_t uuid) noexcept { memcpy(uuid, "0123456789abcdef", 16); }
unsigned int sleep(unsigned int seconds) { return record(std::to_string(seconds) + "s"), 0; }
void ini_file_free(ini_file_t *file) noexcept {
    record("ini");
    reinterpret_cast<decltype(&::ini_file_free)>(dlsym(RTLD_NEXT, __func__))(file);
}
sem_t *sem_open(const char *name, int flags, ...) noexcept {
    static sem_t semaphore;
    record(flags == O_CREAT ? name : "");
    return (errno = stage.sem_open_error) != 0 ? SEM_FAILED : &semaphore;
}
int sem_timedwait(sem_t *, const timespec *deadline) { // at its end at once
    stage.deadline = *deadline;
    return stage.semaphore == 1 ? stage.semaphore-- - 1 : (errno = ETIMEDOUT, -1);
}
int sem_post(sem_t *) noexcept { return ++stage.semaphore, record("post"); }
int sem_close(sem_t *) noexcept { return record("close"); }
int sem_unlink(const char *) noexcept { return stage.semaphore = 1, record("unlink"); }

} // extern "C"

void FreeMacList(_Mac_Node *head) noexcept {
    record("list");
    while (head) free(std::exchange(head, head->next));
}

namespace tavipc {

MacList GetLocalMacList() noexcept {
    _Mac_Node *list = nullptr;
    for (const unsigned char last : {0xB, 0xA})
        if (!stage.no_mac) list = new (malloc(sizeof *list)) _Mac_Node{{2, 0, 0, 0, 0, last}, list};
    return MacList(list);
}
int GetLocalIpToMgr(const char *mgr_ip, unsigned short port, char *out, int) noexcept {
    EXPECT_TRUE(mgr_ip == "192.0.2.7"s && port == 8099);
    return strcpy(out, "10.0.0.9"), 0;
}
int GetMacByIp(const char *ip, unsigned char *mac_out, int size) noexcept { // writes even when it fails
    EXPECT_TRUE(ip == "10.0.0.9"s && size == 6);
    memcpy(mac_out, kRouted.data(), 6);
    return stage.mac_by_ip_failures-- > 0 ? ENODEV : 0;
}

} // namespace tavipc

namespace {

std::string id_bytes(uint32_t id) { return {reinterpret_cast<const char *>(&id), 4}; }

class AgentIdentity : public FakeWorld {
  protected:
    AgentIdentity() {
        for (const char *sub : {"config", "bin", "root/config"}) fs::create_directories(dir / sub);
        w.deployment.base = dir / "bin";
        unsetenv("TAV_INSTALL_ROOT");
        stage = Stage{};
        g_vmid = 0;
    }
    ~AgentIdentity() override { fs::remove_all(dir); }
    void put(const char *name, const std::string &bytes) const { // empty: no file
        fs::remove(dir / "config" / name);
        if (!bytes.empty()) std::ofstream(dir / "config" / name) << bytes;
    }
    std::string machineid() const {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    const fs::path dir = fs::temp_directory_path() / ("agentid." + std::to_string(getpid()));
    const std::string path = dir / "config/machineid";
};

TEST_F(AgentIdentity, ConfigurationDirectoryIsTheFirstThatExists) {
    char out[4096];
    const auto conf_dir = [&](const char *root, const char *base, int size = 4096) {
        setenv("TAV_INSTALL_ROOT", (dir / root).c_str(), 1);
        w.deployment.base = dir / base;
        return GetTAVConfPath(out, size), out;
    };
    EXPECT_EQ(conf_dir("root", "bin"), dir / "root/config");
    EXPECT_EQ(conf_dir("nowhere", "bin"), dir / "bin/../config");
    EXPECT_EQ(conf_dir("nowhere", "bin/deep/er"), dir / "config");
    EXPECT_EQ(conf_dir("nowhere", "other/deep"), dir / "other/deep/../config");
    tavipc::GetAgentIdDir(out, sizeof out);
    EXPECT_EQ(out, fs::read_symlink("/proc/self/exe").parent_path().string() + "/../config");
    EXPECT_STREQ(conf_dir("root", "bin", 5), "/tmp");
    EXPECT_STREQ(conf_dir("nowhere", "other", 0), "/tmp");
}

TEST_F(AgentIdentity, ManagerAddressAndPort) {
    const auto ask = [&](const char *server, const char *server_port) {
        put("server.ini", server);
        put("server_port.ini", server_port);
        char ip[] = "########";
        unsigned short port = 7;
        const int result = GetMgrAddr(ip, 5, &port);
        const bool logged = w.log.count("error code: " + std::to_string(result) + "\n", 2) > 0;
        return (logged ? "errno" : std::to_string(result)) + " " + std::to_string(port) + " " + ip;
    };
    const char *server = "[config]\naddr = 192.0.2.7\n", *server_port = "[port]\nipc = 65537\n";
    EXPECT_EQ(ask(server, server_port), "0 1 192.");
    EXPECT_EQ(ask(server, "[port]\nipc = abc\n"), "0 0 192.");
    EXPECT_EQ(ask("[config]\naddr = not a host\n", server_port), "14 7 ########");
    EXPECT_EQ(ask(server, ""), "2 7 ########");
    EXPECT_EQ(ask(server, "[other]\n"), "errno 8083 192.");
    EXPECT_EQ(ask("", server_port), "errno 7 ########");
    EXPECT_EQ(GetMgrAddr(nullptr, 5, nullptr), 6);
}

TEST_F(AgentIdentity, MachineidIsWrittenAndReadAsLaidOut) {
    const tavipc::MacList list = tavipc::GetLocalMacList();
    const auto *mgr_mac = reinterpret_cast<const unsigned char *>(kRouted.data());
    tavipc::SaveAgentId(path.c_str(), 0x01020304, mgr_mac, 6, list.get());
    EXPECT_EQ(machineid(), "\4\3\2\1" + kRouted + kHead + kOther);
    EXPECT_EQ(ReadAgentid(path.c_str()), 0x01020304u);
    put("machineid", "\4\3\2");
    EXPECT_TRUE(ReadAgentid(path.c_str()) == 0 && ReadAgentid(nullptr) == 0);
    tavipc::SaveAgentId("/dev/full", 1, mgr_mac, 6, list.get());
    EXPECT_EQ(w.log.lines.back().text, "Failed to open /dev/full for save hostid\n") << "not a regular file";
}

TEST_F(AgentIdentity, LockIsHeldAroundAStoreAndRemoved) {
    w.clock.gettime = [](clockid_t, timespec *now) { return *now = {1000, 7}, 0; };
    EXPECT_TRUE(StoreAgentIdByRuvo(7) == 7 && machineid() == id_bytes(7) && stage.events == kStored);
    EXPECT_TRUE(stage.deadline.tv_sec == 1006 && stage.deadline.tv_nsec == 7);
    w.clock.gettime = [](clockid_t, timespec *) { return -1; };
    EXPECT_TRUE(StoreAgentIdByRuvo(8) == 8 && stage.deadline.tv_sec == 6); // it is free at once
    w.clock.gettime = nullptr;
    stage = {.semaphore = 0}; // left by one that died holding it
    EXPECT_TRUE(StoreAgentIdByRuvo(9) == 0 && stage.events == kOpen + "close unlink ");
    EXPECT_EQ(w.log.lines.back().text, "waiting lock semphore failed with error: 110\n");
    EXPECT_EQ(StoreAgentIdByRuvo(10), 10u);
    stage.events.clear();
    EXPECT_TRUE(GetAgentIdFromFileWhileClone() == 0 && stage.events == "");
    put("clone_mac", "x");
    EXPECT_TRUE(GetAgentIdFromFileWhileClone() == 10 && stage.events == kStored);
    EXPECT_TRUE(fs::exists(dir / "config/clone_mac"));
    put("machineid", id_bytes(0));
    EXPECT_TRUE(GetAgentIdFromFileWhileClone() == 0 && !fs::exists(dir / "config/clone_mac"));
}

TEST_F(AgentIdentity, VmIdOfTheGuestToolAndItsAgentId) {
    const auto reported = [](const std::string &value) {
        return stage.vmid = "{\"vmid\":" + value + "}", GetVMID(false);
    };
    EXPECT_EQ(reported(R"("9007199254740993")"), 9007199254740992u);
    EXPECT_EQ(reported(R"("1e30")"), UINT64_MAX);
    for (const char *bad : {R"("-5")", R"("nan")", "123", ""}) EXPECT_EQ(reported(bad), 0u) << bad;
    EXPECT_TRUE(reported(R"("123")") == 123 && g_vmid == 0);
    stage.events.clear();
    EXPECT_TRUE(tav_get_vmidid() == 123 && tav_get_vmidid() == 123 && stage.events == "tool ");
    stage.vmid = R"(["vmid"])";
    EXPECT_TRUE(tav_get_vmidid_from_G2HProxy() == 0 && g_vmid == 123);
    const auto id_of = [&](uint64_t vmid, const std::string &stored) {
        g_vmid = vmid;
        put("machineid", stored);
        const unsigned int id = CreateAgentIdByVMID(path.c_str());
        return std::pair(id, machineid());
    };
    EXPECT_EQ(id_of(123, ""), std::pair(2286445522u, id_bytes(2286445522)));
    EXPECT_EQ(id_of(4294967297, "1234"), std::pair(2212294583u, id_bytes(2212294583))); // its low word, "1"
    EXPECT_EQ(id_of(863045057, "1234"), std::pair(0u, "1234"s));                        // 0 is never stored
    EXPECT_EQ(id_of(123, "12345"), std::pair(0u, "12345"s));                            // made from a MAC
    EXPECT_EQ(CreateAgentIdByVMID(nullptr), 0u);
}

TEST_F(AgentIdentity, AgentIdComesFromTheFirstSourceThatHasOne) {
    const auto expect = [&](const std::string &server, const std::string &stored, const Stage &setting,
                            uint32_t id, const std::string &macs, const std::string &events) {
        put("server.ini", server);
        put("machineid", stored);
        const auto run = [&] { // in a process of its own, which keeps the id
            stage = setting;
            EXPECT_EQ(CreateAgentId(), id);
            EXPECT_EQ(stage.events, events);
            EXPECT_EQ(machineid(), id == 0 ? "" : id_bytes(id) + macs);
            if (server.find("192") != server.npos) put("machineid", "");
            EXPECT_EQ(CreateAgentId(), id);
            exit(HasFailure());
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), "") << events;
    };
    const auto crc = [](const std::string &text) {
        return orlask_crc32(text.data(), static_cast<uint32_t>(text.size()));
    };
    const std::string remote = "[config]\naddr = 192.0.2.7\n", local = "[config]\naddr = 127.0.0.1\n";
    const std::string zero(6, '\0'), type = "linux" + std::string(28, '\0'), five = id_bytes(5),
                                     all = kHead + kOther;
    const std::string end = "ini post close unlink ";
    put("server_port.ini", "[port]\nipc = 8099\n");
    expect("", five, {}, 5, "", kStored);
    expect("[config]\n", five, {}, 5, "", "ini 1s ini 1s ini 1s " + kStored);
    expect(local, five, {}, 2286445522, "", kOpen + "tool " + end);
    expect(local, five + zero, {}, 5, zero, kOpen + "list " + end);
    expect(remote, "", {}, crc(kHead + type), zero + all, kOpen + "list " + end);
    expect(remote, "", {.sem_open_error = EACCES}, 0, "", kOpen + "ini ");
    w.deployment.location = 1;
    expect(remote, five, {.no_mac = true}, 5, "", kOpen + end);
    expect(remote, "", {.no_mac = true}, 0, "", kOpen + end);
    expect(remote, id_bytes(0), {.mac_by_ip_failures = 2}, crc(kRouted + type), kRouted + all,
           kOpen + "ini ini 1s 1s list " + end);
    expect(remote, "", {.mac_by_ip_failures = 3}, crc(kHead + type), kRouted + all,
           kOpen + "ini ini 1s 1s 1s list " + end);
    w.deployment.location = 2;
    w.deployment.agent_type = "";
    expect(remote, "", {}, crc("30313233-3435-3637-3839-616263646566" + kHead), kHead + all,
           kOpen + "list " + end);
}

TEST_F(AgentIdentity, ProcessEndsWithoutIdentityAfterCleaningUp) {
    const auto run = [&](const char *server, const char *stored) {
        static const auto tell = [] {
            std::cerr << fake::world().log.lines.back().text << " " << stage.events;
        };
        put("server.ini", server);
        put("machineid", stored);
        stage.vmid.clear();
        std::atexit(tell);
        std::signal(SIGABRT, [](int) { tell(); });
        CreateAgentId();
    };
    const auto exits = testing::ExitedWithCode(1);
    EXPECT_EXIT(run("", ""), exits, "^not exist file machineid .* post close unlink $");
    EXPECT_EXIT(run("[config]\naddr =\n", "xyz"), exits,
                "^read agent id from machineid failed .* ini post close unlink $");
    EXPECT_EXIT(run("[config]\naddr = 127.0.0.1\n", "xyz"), testing::KilledBySignal(SIGABRT),
                "^get current vmid .*, abort process .* tool $");
}

} // namespace
