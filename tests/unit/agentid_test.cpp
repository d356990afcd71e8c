// The agent id and its sources, in a directory of the test's own. Stand-ins replace the guest tool, the UUID,
// sleep, the semaphore, and the system calls about network interfaces.
#include <arpa/inet.h>
#include <csignal>
#include <cstdarg>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/poll.h>
#include <sys/stat.h>
#include <uuid/uuid.h>

#include "agentid/conf_dir.h"
#include "agentid/id_file.h"
#include "agentid/identity_lock.h"
#include "agentid/mac_discovery.h"
#include "fakes.h"
#include "temp_dir.h"

using namespace std::string_literals;
namespace fs = std::filesystem;

// Interfaces by number: the loopback, and three with the MACs AAAAAA, BBBBBB and CCCCCC. Their addresses
// begin at 10.0.0.7, and 10.0.0.9 leads to the manager.
static const char *const kNames[] = {"lo", "eth0", "eth1", "exactly-15-long"};
static struct Stage {
    int first = 0, last = 3, without_mac = -1, routed = 2; // interfaces
    int connect_error = 0, wait_result = 1, socket = 900, sem_open_error = 0, semaphore = 1,
        interruptions = 0;
    uid_t user = getuid();
    unsigned long failing = 0;                                // a request of ioctl, or one of these calls
    std::function<void()> while_computing{}, while_listing{}; // what others do then
    std::string vmid = "123", events{};
    timespec deadline{};
} stage;

enum : unsigned long { kSockname = 1, kIfaddrs };
static int fail(int error) { return error == 0 ? 0 : (errno = error, -1); }
static int record(const std::string &event) { return stage.events += event + " ", 0; }
static int set_address(sockaddr &to, int interface) {
    const sockaddr_in address{AF_INET, 0, {htonl(0x0A000007u + static_cast<uint32_t>(interface))}, {}};
    return memcpy(&to, &address, sizeof address), 0;
}

extern "C" {

int shell_execute(const char *, char *out, int size) noexcept {
    if (stage.vmid.empty()) return -1;
    str_snprintf(out, static_cast<size_t>(size), "{\"vmid\":\"%s\"}", stage.vmid.c_str());
    return record("tool");
}
void uuid_generate(uuid_t uuid) noexcept {
    if (stage.while_computing) stage.while_computing();
    memcpy(uuid, "0123456789abcdef", 16);
}
uid_t geteuid() noexcept { return stage.user; }
unsigned int sleep(unsigned int) { return record("sleep"), 0; }
sem_t *sem_open(const char *, int, ...) noexcept {
    static sem_t semaphore;
    return fail(stage.sem_open_error) ? SEM_FAILED : (record("open"), &semaphore);
}
int sem_timedwait(sem_t *, const timespec *deadline) { // fails at once instead of waiting
    stage.deadline = *deadline;
    if (stage.interruptions > 0) return --stage.interruptions, fail(EINTR);
    return stage.semaphore == 1 ? --stage.semaphore : fail(ETIMEDOUT);
}
int sem_post(sem_t *) noexcept { return ++stage.semaphore, record("post"); }
int sem_close(sem_t *) noexcept { return record("close"); }
int sem_unlink(const char *) noexcept { return stage.semaphore = 1, record("unlink"); }

int socket(int, int, int) noexcept { return stage.socket < 0 ? fail(EMFILE) : stage.socket; }
int ioctl(int, unsigned long request, ...) noexcept { // the declaration gives it another name in 32 bits
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (request == stage.failing) return fail(EIO);
    if (request == FIONBIO) return 0;
    if (request == SIOCGIFCONF) {
        if (stage.while_listing) stage.while_listing();
        auto *all = static_cast<ifconf *>(argument);
        for (int i = stage.first; i <= stage.last; ++i)
            strcpy(all->ifc_req[i - stage.first].ifr_name, kNames[i]);
        all->ifc_len = (stage.last - stage.first + 1) * static_cast<int>(sizeof(ifreq)) + 24; // a part of one
        return 0;
    }
    auto *record = static_cast<ifreq *>(argument);
    const auto i =
        static_cast<int>(std::find(kNames, kNames + 4, std::string_view(record->ifr_name)) - kNames);
    if (request == SIOCGIFHWADDR && i == stage.without_mac) return fail(ENODEV);
    set_address(record->ifr_addr, i);
    if (request == SIOCGIFHWADDR) memset(record->ifr_hwaddr.sa_data, '@' + i, 6);
    if (request == SIOCGIFFLAGS) record->ifr_flags = i == 0 ? IFF_LOOPBACK : IFF_UP;
    return 0;
}
int connect(int, const sockaddr *to, socklen_t) {
    return fail(memcmp(to->sa_data, "\x1f\xa3\xc0\0\2\7", 6) == 0 ? stage.connect_error : ENOTSUP);
}
int select(int, fd_set *, fd_set *, fd_set *, timeval *) {
    if (stage.wait_result == -2) return stage.wait_result = 1, fail(EINTR); // interrupted once
    return stage.wait_result < 0 ? fail(EBADF) : stage.wait_result;
}
int poll(pollfd *, nfds_t, int) { return stage.socket == 5000 ? 1 : 0; }
int getsockname(int, sockaddr *address, socklen_t *) noexcept {
    return stage.failing == kSockname ? fail(ENOBUFS) : set_address(*address, stage.routed);
}
int getifaddrs(ifaddrs **list) noexcept {
    static sockaddr addresses[4];
    static ifaddrs entries[5]; // the last one has no address
    if (stage.failing == kIfaddrs) return fail(ENOMEM);
    for (int i = 0; i < 4; ++i) {
        set_address(addresses[i], i);
        entries[i] = {&entries[i + 1], const_cast<char *>(kNames[i]), 0, &addresses[i], nullptr, {}, nullptr};
    }
    return *list = entries, 0;
}
void freeifaddrs(ifaddrs *) noexcept {}

} // extern "C"

const std::string kRemote = "[config]\naddr = 192.0.2.7\n", kLocal = "[config]\naddr = 127.0.0.1\n";
const std::string kType = "linux" + std::string(28, '\0'),
                  kZero(6, '\0'), kMacs = "AAAAAACCCCCCBBBBBB", kLocked = "open post close unlink ";

std::string id_bytes(uint32_t id) { return {reinterpret_cast<const char *>(&id), 4}; }
uint32_t crc(const std::string &text) {
    return orlask_crc32(text.data(), static_cast<uint32_t>(text.size()));
}

struct AgentId : FakeWorld {
    AgentId() {
        for (const char *sub : {"config", "bin", "root/config"}) fs::create_directories(dir / sub);
        w.deployment.base = dir / "bin";
        unsetenv("TAV_INSTALL_ROOT");
        put("server_port.ini", "[port]\nipc = 8099\n");
        stage = Stage{};
        g_vmid = 0;
    }
    void put(const char *name, const std::string &bytes) const { // empty: no file
        fs::remove_all(dir / "config" / name);
        if (!bytes.empty()) std::ofstream(dir / "config" / name) << bytes;
    }
    std::string machineid() const {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    std::string conf_dir(const char *root, const char *base, int size = 4096) {
        static char out[4096];
        setenv("TAV_INSTALL_ROOT", (dir / root).c_str(), 1);
        w.deployment.base = dir / base;
        return GetTAVConfPath(out, size), out;
    }
    static uint64_t reported(const char *vmid) { return stage.vmid = vmid, tav_get_vmidid_from_G2HProxy(); }
    // Calls CreateAgentId in a process of its own, because a process keeps the id. The kept id needs no file.
    void expect_id(const std::string &server, const std::string &stored, const Stage &setting, uint32_t id,
                   const std::string &macs, const std::string &events = kLocked) {
        put("server.ini", server);
        put("machineid", stored);
        const auto run = [&] {
            stage = setting;
            EXPECT_EQ(CreateAgentId(), id);
            EXPECT_EQ(stage.events, events);
            EXPECT_EQ(machineid(), id == 0 ? "" : id_bytes(id) + macs);
            if (server == kRemote) put("machineid", "");
            EXPECT_EQ(CreateAgentId(), id);
            stage.sem_open_error = EACCES;
            EXPECT_EQ(CreateAgentId(), id);
            exit(HasFailure());
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), "") << events;
    }
    const TempDir place;
    const fs::path dir = place / "agent";
    const std::string path = dir / "config/machineid";
};

TEST_F(AgentId, ConfigurationDirectoryIsTheFirstThatExists) {
    EXPECT_EQ(conf_dir("root", "bin"), dir / "root/config");
    EXPECT_EQ(conf_dir("nowhere", "bin"), dir / "bin/../config");
    EXPECT_EQ(conf_dir("nowhere", "bin/deep/er"), dir / "config");
    EXPECT_EQ(conf_dir("root", "bin", 5), dir.string().substr(0, 4));
    EXPECT_EQ(conf_dir("nowhere", "other/deep"), dir / "other/deep/../config");
    char out[4096];
    tavipc::GetAgentIdDir(out, sizeof out);
    EXPECT_EQ(out, fs::read_symlink("/proc/self/exe").parent_path().string() + "/../config");
}

TEST_F(AgentId, ManagerAddressAndPort) {
    char ip[] = "########";
    unsigned short port = 7;
    EXPECT_EQ(GetMgrAddr(nullptr, 5, &port), 6);
    EXPECT_EQ(GetMgrAddr(ip, 5, &port), ENOENT);
    put("server.ini", "[config]\naddr = " + std::string(64, 'x') + "\n"); // too long to ask for
    EXPECT_EQ(GetMgrAddr(ip, 5, &port), 14);
    put("server.ini", kRemote);
    put("server_port.ini", "");
    EXPECT_EQ(GetMgrAddr(ip, 5, &port), ENOENT);
    put("server_port.ini", "[other]\n");
    GetMgrAddr(ip, 5, &port); // returns errno, which can be anything
    EXPECT_EQ(port, 8083);
    EXPECT_STREQ(ip, "192.");
}

TEST_F(AgentId, WrongArgumentsAndMissingFilesAreRefused) {
    char text[16];
    unsigned char mac[6];
    EXPECT_EQ(ReadAgentid(nullptr), 0u);
    EXPECT_EQ(CreateAgentIdByVMID(nullptr), 0u);
    EXPECT_EQ(GetAgentIdFromFileWhileClone(), 0u); // no marker
    EXPECT_EQ(tavipc::GetLocalIpToMgr(nullptr, 1, text, 16), 10);
    EXPECT_EQ(tavipc::GetMacByIp("10.0.0.8", mac, 0), 10);
    EXPECT_EQ(tavipc::GetMacByIp("10.0.0.8", mac, 5), -1);
    stage.socket = -1;
    EXPECT_EQ(tavipc::GetLocalIpToMgr("192.0.2.7", 8099, text, 16), EMFILE);
    EXPECT_EQ(tavipc::GetMacByIp("10.0.0.8", mac, 6), EMFILE);
}

TEST_F(AgentId, FullDiskLeavesAShorterMachineid) {
    const rlimit all{RLIM_INFINITY, RLIM_INFINITY};
    std::signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t size : {2, 16}) {
        const rlimit limit{size, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        tavipc::SaveAgentId(path.c_str(), 0x01020304, reinterpret_cast<const unsigned char *>("BBBBBB"), 6,
                            tavipc::GetLocalMacList().get());
        setrlimit(RLIMIT_FSIZE, &all);
        EXPECT_EQ(machineid(), "\4\3\2\1BBBBBBAAAAAA"s.substr(0, size));
        EXPECT_EQ(w.log.count("Failed to save", 2), size == 2 ? 1 : 3) << "as soon as it is full";
    }
}

TEST_F(AgentId, LockIsHeldAroundAStoreAndRemoved) {
    w.clock.gettime = [](clockid_t, timespec *now) { return *now = {1000, 7}, 0; };
    stage.interruptions = 2; // by signal handlers
    EXPECT_EQ(StoreAgentIdByRuvo(7), 7u);
    EXPECT_EQ(machineid(), id_bytes(7));
    EXPECT_EQ(stage.events, kLocked);
    EXPECT_EQ(stage.deadline.tv_sec, 1006);
    w.clock.gettime = [](clockid_t, timespec *) { return -1; };
    EXPECT_EQ(StoreAgentIdByRuvo(8), 8u); // the semaphore is free at once
    stage.semaphore = 0;                  // its holder died
    EXPECT_EQ(StoreAgentIdByRuvo(9), 0u);
    put("clone_mac", "x");
    EXPECT_EQ(GetAgentIdFromFileWhileClone(), 8u);
    put("machineid", id_bytes(0));
    EXPECT_EQ(GetAgentIdFromFileWhileClone(), 0u);
    EXPECT_FALSE(fs::exists(dir / "config/clone_mac"));
    put("machineid", "");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); // reading and writing must not wait for its other end
    EXPECT_EQ(ReadAgentid(path.c_str()), 0u);
    EXPECT_EQ(StoreAgentIdByRuvo(7), 7u); // only the log says that it was not stored
    EXPECT_EQ(w.log.count("config/machineid for save hostid\n", 2), 1);
}

TEST_F(AgentId, OnlyAUsableSemaphoreFileStays) {
    sem_t content[2] = {};
    sem_init(&content[0], 1, 1);
    const std::string good(reinterpret_cast<char *>(content), sizeof(sem_t)), ones(sizeof(sem_t), '\xff');
    const auto stays = [&] { return tavipc::remove_unusable_semaphore(path.c_str()) && fs::exists(path); };
    put("machineid", good);
    EXPECT_TRUE(stays());
    EXPECT_TRUE(getuid() != 0 || chown(path.c_str(), 12345, 12345) == 0) << "root's own files are usable";
    stage.user = 54321;
    EXPECT_FALSE(stays()) << "its owner could truncate it";
    stage.user = getuid();
    for (const std::string &bad : {good + "x", ones}) { // glibc would abort, or die of SIGBUS
        put("machineid", bad);
        EXPECT_FALSE(stays()) << bad.size();
    }
    fs::create_symlink("/nonexistent", path);
    EXPECT_FALSE(stays());
    EXPECT_FALSE(fs::is_symlink(path));
    EXPECT_FALSE(tavipc::remove_unusable_semaphore((dir / "config").c_str())) << "it is not empty";
}

TEST_F(AgentId, VmIdOfTheGuestTool) {
    EXPECT_EQ(reported("9007199254740993"), 9007199254740992u);
    EXPECT_EQ(reported("1e30"), UINT64_MAX);
    for (const char *bad : {"-5", "nan", "\", \"vmid\": 5, \"x\":\"", "\"", ""})
        EXPECT_EQ(reported(bad), 0u) << bad;
    stage = Stage{};
    for (int call = 0; call < 2; ++call) EXPECT_EQ(tav_get_vmidid(), 123u);
    EXPECT_EQ(stage.events, "tool ");
}

TEST_F(AgentId, OfALocalManagerIsMadeFromTheVmId) {
    const std::string events = "open tool post close unlink ", stored = "1234";
    expect_id(kLocal, id_bytes(5), {}, 2286445522, "", events);
    expect_id(kLocal, stored, {.vmid = "4294967297"}, 2212294583, "", events); // its low word, "1"
    expect_id(kLocal, stored, {.vmid = "863045057"}, 0x34333231, "", events);  // it gives 0: the stored id
    expect_id(kLocal, id_bytes(5) + "x", {}, 5, "x");                          // made from a MAC
}

TEST_F(AgentId, ComesFromTheFirstSourceThatHasOne) {
    const std::string five = id_bytes(5);
    expect_id("", five, {}, 5, "");
    expect_id("[config]\n", five, {}, 5, "", "sleep sleep sleep " + kLocked);
    expect_id(kRemote, "", {}, crc("AAAAAA" + kType), kZero + kMacs);
    const std::string ip = "\0\0\x0A\0\0\x08"s;
    expect_id(kRemote, "", {.first = 1, .last = 1, .without_mac = 1}, crc(ip + kType), kZero + ip);
    expect_id(kRemote, "", {.last = 0}, 0, "");
    expect_id(kRemote, five, {.last = 0}, 5, "");
    expect_id(kRemote, "", {.sem_open_error = EACCES}, 0, "", "");
    w.deployment.agent_type = "";
    expect_id(kRemote, "", {}, crc("30313233-3435-3637-3839-616263646566AAAAAA"), "AAAAAA" + kMacs);
    expect_id(kRemote, "", {.while_computing = [&] { put("machineid", five + "x"); }}, 5, "x");
}

TEST_F(AgentId, IsMadeFromTheMacOnTheRouteToTheManager) {
    const uint32_t routed = crc("BBBBBB" + kType), other = crc("AAAAAA" + kType);
    w.deployment.location = 1;
    expect_id(kRemote, "", {.connect_error = 0}, routed, "BBBBBB" + kMacs);
    expect_id(kRemote, id_bytes(0), {.connect_error = EINPROGRESS}, routed, "BBBBBB" + kMacs);
    expect_id(kRemote, "", {.connect_error = EINPROGRESS, .wait_result = -2}, routed, "BBBBBB" + kMacs);
    expect_id(kRemote, "", {.connect_error = EALREADY, .wait_result = 0, .socket = 5000}, routed,
              "BBBBBB" + kMacs);
    expect_id(kRemote, "", {.connect_error = EINPROGRESS, .wait_result = 0}, other, kZero + kMacs);
    const std::string tried = "open sleep sleep sleep post close unlink ", ip = "\0\0\x0A\0\0\x09"s;
    expect_id(kRemote, "", {.without_mac = 2}, other, ip + "AAAAAACCCCCC", tried);
    expect_id(kRemote, "", {.without_mac = 2, .failing = SIOCGIFADDR}, other, kZero + "AAAAAACCCCCC", tried);
    expect_id(kRemote, "", {.routed = 0}, other, kZero + kMacs, tried); // the loopback is left out
    expect_id(kRemote, "", {.failing = kIfaddrs}, other, kZero + kMacs, tried);
    expect_id(kRemote, "", {.connect_error = EINPROGRESS, .wait_result = -1}, other, kZero + kMacs);
    expect_id(kRemote, "", {.failing = kSockname}, other, kZero + kMacs);
    expect_id(kRemote, "", {.failing = FIONBIO}, other, kZero + kMacs);
    expect_id(kRemote, "", {.failing = SIOCGIFCONF}, 0, "");
    expect_id(kRemote, "", {.failing = SIOCGIFFLAGS}, 0, "");
    expect_id(kRemote, "", {.socket = -1}, 0, "");
}

TEST_F(AgentId, OtherThreadsNeverGetAnUnfinishedId) {
    put("server.ini", kLocal);
    put("machineid", id_bytes(5) + kMacs); // so each call lists the interfaces
    const auto run = [&] {
        int calls = 0;
        EXPECT_EQ(CreateAgentId(), 5u);
        stage.while_listing = [&] {
            const Stage before = std::exchange(stage, {.sem_open_error = EACCES}); // only the cache is left
            EXPECT_EQ(CreateAgentId(), 5u);
            stage = before, ++calls;
        };
        EXPECT_EQ(CreateAgentId(), 5u);
        exit(HasFailure() || calls != 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(AgentId, AdaptersOfVirtualMachinesAreExcluded) {
    unsigned char first[6] = {0x00, 0x05, 0x69}, last[6] = {0x80, 0x00, 0x27}, none[6] = {0x08, 0x00, 0x27};
    EXPECT_EQ(IsExcludeAdapter(first), 1);
    EXPECT_EQ(IsExcludeAdapter(last), 1);
    EXPECT_EQ(IsExcludeAdapter(none), 0);
}

TEST_F(AgentId, ProcessEndsWithoutIdentityAfterCleaningUp) {
    put("server.ini", "[config]\naddr =\n");
    put("machineid", "xyz"); // too short
    EXPECT_EXIT((std::atexit([] { std::cerr << stage.events; }), CreateAgentId()), testing::ExitedWithCode(1),
                kLocked);
    put("server.ini", kLocal);
    stage.vmid = "0";
    EXPECT_EXIT(CreateAgentId(), testing::KilledBySignal(SIGABRT), "");
}
