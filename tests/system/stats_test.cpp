// The file of counters, and waiting until everything has left. The test starts its own program as a module
// and reads the module's file from outside. It puts its own cl_dunix_sendto2 in the library's place, which
// then sees every datagram.
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "installation.h"
#include "stats_reader.h"
#include "tavcl_ev.h"
#include "tavipc/tav_ipc_ext.h"

using namespace tavipc::stage;

static int seen = 0;
#pragma GCC visibility push(default)
extern "C" int cl_dunix_sendto2(cl_dunix_t socket, const cl_sockaddr_t *address, const void *data,
                                uint32_t len, cl_dunix_send_cb callback, void *context) noexcept {
    const auto next = reinterpret_cast<decltype(&cl_dunix_sendto2)>(dlsym(RTLD_NEXT, __func__));
    return ++seen, next(socket, address, data, len, callback, context);
}
#pragma GCC visibility pop

namespace {

tav_ipc_st *alpha;

void send(const char *name, int count, uint32_t size = 100) {
    static const char payload[100'000]{}; // without one, no datagram could leave from the caller's memory
    tav_addr_st dest{};
    for (std::strcpy(dest.name, name); count > 0; --count) (void)tav_ipc_send(alpha, &dest, 1, payload, size);
}
void flush(const char *what, int timeout_ms) {
    tav_ipc_flush_st f{};
    const int result = tav_ipc_flush(alpha, timeout_ms, &f);
    std::printf("%s %d, %d left, %d dropped, %d pending\n", what, result < 0 ? -errno : result,
                static_cast<int>(f.left), static_cast<int>(f.dropped), static_cast<int>(f.pending));
}
// In a forked child: it cannot send from the parent's endpoint, not even to a new destination. What it counts
// for that endpoint stays here, and its own has a file of its own.
int count_in_child() {
    const int before = seen;
    send("beta", 3), send("other", 1);
    if (seen != before || !tav_ipc_create("gamma")) return 1;
    return std::printf("child %d\n", getpid()) > 0 && getchar() == '\n' ? 0 : 1;
}

int run_module() {
    setlinebuf(stdout);
    alpha = tav_ipc_create("alpha");
    tav_ipc_st *beta = tav_ipc_create_non_recv("beta", 0); // takes a few datagrams and then no more
    cl_dunix_set_send_wait(20);
    send("beta", 2), send("beta", 1, 100'000), flush("some:", -1), std::printf("seen %d\n", seen);
    send("nobody", 3, 65'000), flush("absent:", -1);
    send("beta", 600), flush("busy:", 50);
    tav_ipc_recv_start(beta, [](auto...) {});
    flush("reading:", -1);
    const pid_t child = fork();
    if (child == 0) _exit(count_in_child());
    int status = -1;
    waitpid(child, &status, 0);
    std::printf("status %d\n", status);
    send("beta", 1);
    cl_timer_start(
        0, [](void *) { send("beta", 1), flush("inner:", -1); }, nullptr);
    flush("outer:", 0);
    send("nobody", 1);
    cl_timer_start(
        1, [](void *) { tav_ipc_destroy(alpha); }, nullptr);
    flush("destroyed:", -1);
    tav_ipc_destroy(beta);
    std::puts("none"), getchar();
    alpha = tav_ipc_create("alpha");
    send("beta", 7);
    return std::puts("ready"), getchar();
}

TEST(Stats, AreReadFromOutsideAndOutliveTheProcess) {
    const Installation place{{}};
    place.allow({"stats"});
    place.put("stats", std::filesystem::read_symlink("/proc/self/exe"));
    const auto start = [&] { return place.start("stats", {"TAV_LOG_LEVEL=0"}, {"module"}); };
    const auto file_of = [&](pid_t pid) { return StatsFile::path(place.sockets(), pid); };
    Process module = start();
    const pid_t parent = module.pid();
    EXPECT_EQ(module.expect("some: "), "0, 3 left, 0 dropped, 0 pending");
    EXPECT_EQ(module.expect("seen "), "4") << "the third message has two fragments";
    EXPECT_EQ(module.expect("absent: "), "0, 0 left, 3 dropped, 0 pending");
    EXPECT_TRUE(module.expect("busy: ").starts_with("1, "));
    EXPECT_TRUE(module.expect("reading: ").ends_with(" 0 pending"));
    const pid_t child = std::stoi(module.expect("child "));
    const StatsFile parents(place.sockets(), parent), childs(place.sockets(), child);
    ASSERT_EQ(parents.records.size(), 4u) << "two endpoints, two destinations";
    for (const auto &record : parents.records) EXPECT_EQ(imbalance(record.values), 0) << record.name;
    EXPECT_EQ(parents.records[0].values[TAV_IPC_STATS_MESSAGES], 606u) << "without those of the child";
    ASSERT_EQ(childs.records.size(), 1u);
    EXPECT_STREQ(childs.records[0].name, "gamma");
    EXPECT_EQ(module.ask("", "status "), "0");
    EXPECT_TRUE(module.expect("inner: ").starts_with("0, ")) << "in a callback";
    EXPECT_TRUE(module.expect("outer: ").ends_with(" 0 pending"));
    EXPECT_EQ(module.expect("destroyed: "), "-108, 0 left, 1 dropped, 0 pending");
    module.expect("none");
    EXPECT_FALSE(exists(file_of(parent))) << "with the last endpoint";
    module.ask("", "ready");
    EXPECT_EQ(status(file_of(parent)).permissions() & std::filesystem::perms(022), std::filesystem::perms());
    EXPECT_EQ(module.kill(), -SIGKILL);
    const StatsFile left(place.sockets(), parent);
    ASSERT_EQ(left.records.size(), 2u);
    EXPECT_EQ(left.records[1].values[TAV_IPC_STATS_ACCEPTED], 7u);
    for (int tries = 0; exists(file_of(parent)) || exists(file_of(child)); ++tries) { // tidying up takes 5 ms
        ASSERT_LT(tries, 50);
        start().expect("some: ");
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 2 && std::strcmp(argv[1], "module") == 0) return run_module();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
