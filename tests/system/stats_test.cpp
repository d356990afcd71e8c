// The file of counters, and waiting until everything has left. The test starts its own program as a module
// and reads the module's file from outside.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "installation.h"
#include "stats_reader.h"
#include "tavcl_ev.h"
#include "tavipc/tav_ipc.h"
#include "tavipc/tav_ipc_ext.h"

using namespace tavipc::stage;

namespace {

tav_addr_st address(const char *name) {
    tav_addr_st result{};
    return std::strcpy(result.name, name), result;
}
tav_ipc_st *alpha;
const tav_addr_st to_beta = address("beta"), to_nobody = address("nobody");

void send(const tav_addr_st &dest, int count, uint32_t size = 100) {
    for (int i = 0; i < count; ++i) (void)tav_ipc_send(alpha, &dest, 1, nullptr, size);
}
void flush(const char *what, int timeout_ms) {
    tav_ipc_flush_st f{};
    const int result = tav_ipc_flush(alpha, timeout_ms, &f);
    std::printf("%s %d, %d left, %d dropped, %d pending\n", what, result < 0 ? -errno : result,
                static_cast<int>(f.left), static_cast<int>(f.dropped), static_cast<int>(f.pending));
}
int in_child(const std::function<int()> &run) {
    const pid_t pid = fork();
    if (pid == 0) _exit(run());
    int status = -1;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
// In a forked child: counting for the parent's endpoint stays here, and an endpoint of the child's own has a
// file of its own.
int count_in_child() {
    send(to_beta, 3);
    tav_ipc_st *own = tav_ipc_create("gamma");
    return own && std::printf("child %d\n", getpid()) > 0 && fflush(stdout) == 0 && getchar() == '\n' ? 0 : 1;
}

int run_module() {
    setlinebuf(stdout);
    alpha = tav_ipc_create("alpha");
    tav_ipc_st *beta =
        tav_ipc_create_non_recv("beta", 0); // its socket takes a few datagrams and then no more
    cl_dunix_set_send_wait(20);
    send(to_beta, 2);
    send(to_beta, 1, 100'000);
    flush("some:", -1);
    send(to_nobody, 3, 65'000);
    flush("absent:", -1);
    send(to_beta, 600);
    flush("busy:", 50);
    tav_ipc_recv_start(beta, [](auto...) {});
    flush("reading:", -1);
    std::printf("child: %d\n", in_child(count_in_child));
    send(to_nobody, 1);
    cl_timer_start(
        1, [](void *) { tav_ipc_destroy(alpha), alpha = nullptr; }, nullptr);
    flush("destroyed:", -1);
    tav_ipc_destroy(beta);
    std::puts("none");
    getchar();
    alpha = tav_ipc_create("alpha");
    send(to_beta, 7);
    std::puts("ready");
    return getchar();
}

TEST(Stats, AreReadFromOutsideAndOutliveTheProcess) {
    const Installation place{{}};
    place.allow({"stats"});
    place.put("stats", std::filesystem::read_symlink("/proc/self/exe"));
    const auto start = [&] { return place.start("stats", {"TAV_LOG_LEVEL=0"}, {"module"}); };
    const auto file_of = [&](pid_t pid) { return StatsFile::path(place.sockets(), pid); };
    Process module = start();
    EXPECT_EQ(module.expect("some: "), "0, 3 left, 0 dropped, 0 pending");
    EXPECT_EQ(module.expect("absent: "), "0, 0 left, 3 dropped, 0 pending");
    EXPECT_TRUE(module.expect("busy: ").starts_with("1, "));
    EXPECT_TRUE(module.expect("reading: ").ends_with(" pending"));
    const pid_t child = std::stoi(module.expect("child "));
    const StatsFile parents(place.sockets(), module.pid()), childs(place.sockets(), child);
    ASSERT_EQ(parents.records.size(), 4u) << "two endpoints, two destinations";
    EXPECT_EQ(parents.header.pid, static_cast<uint32_t>(module.pid()));
    for (const auto &record : parents.records) EXPECT_EQ(imbalance(record.values), 0) << record.name;
    EXPECT_EQ(parents.records[0].values[TAV_IPC_STATS_MESSAGES], 606u) << "without those of the child";
    ASSERT_EQ(childs.records.size(), 1u);
    EXPECT_STREQ(childs.records[0].name, "gamma");
    module.say("");
    EXPECT_EQ(module.expect("child: "), "0");
    EXPECT_EQ(module.expect("destroyed: "), "-108, 0 left, 1 dropped, 0 pending");
    module.expect("none");
    EXPECT_FALSE(exists(file_of(module.pid()))) << "with the last endpoint";
    module.say("");
    module.expect("ready");
    const auto file = file_of(module.pid());
    const pid_t dead = module.pid();
    EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms(022),
              std::filesystem::perms{});
    EXPECT_EQ(module.kill(), -SIGKILL);
    const StatsFile left(place.sockets(), dead);
    ASSERT_EQ(left.records.size(), 2u);
    EXPECT_EQ(left.records[1].values[TAV_IPC_STATS_ACCEPTED], 7u);
    EXPECT_TRUE(exists(file_of(child))) << "_exit leaves it";
    for (int tries = 0; exists(file) || exists(file_of(child)); ++tries) { // each tidies up for 5 ms at most
        ASSERT_LT(tries, 50);
        Process next = start();
        next.expect("some: ");
        EXPECT_TRUE(exists(file_of(next.pid())));
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc > 1 && std::strcmp(argv[1], "module") == 0) return run_module();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
