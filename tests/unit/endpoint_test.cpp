// Endpoints: creation step by step and what a failed one leaves, options, locality, host id, the thread-use
// guard, destruction.
#include <dlfcn.h>
#include <latch>
#include <thread>

#include "endpoint_world.h"
#include "ipc/receive.h"

static int fail_table = 0; // which table from now cannot be made: 1 the queue's, 2 the requests'

extern "C" xhash_t *xhash_create(void (*release)(void *), uint32_t reserved) noexcept {
    if (fail_table > 0 && --fail_table == 0) return nullptr;
    static const auto real = reinterpret_cast<decltype(&xhash_create)>(dlsym(RTLD_NEXT, "xhash_create"));
    return real(release, reserved);
}

namespace {

using tavipc::EndpointPin;
using tavipc::UseGuard;
using EndpointTest = EndpointWorld;

TEST_F(EndpointTest, VariantsDifferInThreeChoices) {
    w.deployment.location = 0x102;
    const struct {
        tav_ipc_st *ipc;
        uint8_t flags;
        uint32_t accept_files;
        bool receives;
    } cases[] = {{tav_ipc_create("nine_char"), 0, 0, true},
                 {tav_ipc_create_temp("b", 3), ADDR_FLAG_TEMP, 3, true},
                 {tav_ipc_create_non_recv("c", 4), 0, 4, false},
                 {tav_ipc_create_non_recv_temp("d", 5), ADDR_FLAG_TEMP, 5, false}};
    for (const auto &c : cases) {
        ASSERT_TRUE(adopt(c.ipc));
        const tav_addr_st own = address(c.ipc->my_addr.name, 2, c.flags); // the low byte of the location
        EXPECT_EQ(std::memcmp(c.ipc, &own, sizeof own), 0);
        EXPECT_EQ(tav_ipc_get_local_addr(c.ipc), &c.ipc->my_addr);
        EXPECT_EQ(c.ipc->accept_files, c.accept_files);
        const cl_dunix_t socket = w.event.socket_at(std::string("/var/zon_ipc258/") + own.name);
        ASSERT_TRUE(socket);
        EXPECT_EQ(w.event.sockets[socket].recv != nullptr, c.receives);
    }
    EXPECT_EQ(tav_ipc_recv_start(cases[2].ipc, tavipc::ipc_on_recv), cases[2].ipc);
    EXPECT_EQ(tav_ipc_recv_start(cases[2].ipc, tavipc::ipc_on_recv), cases[2].ipc); // replaces the handler
    EXPECT_FALSE(tav_ipc_recv_start(tav_ipc_create_non_recv("none", 0), nullptr));  // destroys
    EXPECT_FALSE(tav_ipc_recv_start(nullptr, tavipc::ipc_on_recv));
    EXPECT_EQ(w.log.count("", 1) + w.log.count("", 2), 0);
}

TEST_F(EndpointTest, FailedCreationReleasesEverythingAndSaysWhy) {
    const struct {
        std::function<void()> prepare;
        const char *name, *lines; // of levels 1 and 2
    } cases[] = {
        {[] { fake::world().identity.process_result = -1; }, "much_too_long", "1process is not valid"},
        {[] { setenv("IPC_TEST", "1", 1); }, "ten_chars_", ""},
        {[] { setenv("IPC_TEST", "1", 1); }, nullptr, ""},
        {[] { fake::world().identity.agent_id = 0; }, "alpha",
         "2calculate agentid failed\n2failed to get hostid, ipc create failed"},
        {[] { fake::world().event.fail_create = 1; }, "alpha",
         "2fail to create ipc retry socket: /var/zon_ipc2/alpha"},
        {[] { fail_table = 1; }, "alpha", "1init ipc msg queue failed."},
        {[] { fail_table = 2; }, "alpha", ""},
        {[] { fake::world().event.fail_recv = 1; }, "alpha", ""},
    };
    for (const auto &c : cases) {
        w.log.lines.clear();
        fake::world().identity = {};
        tavipc::process_state() = {};
        c.prepare();
        EXPECT_FALSE(adopt(tav_ipc_create(c.name)));
        std::string lines;
        for (const auto &line : w.log.lines)
            if (line.level <= 2) lines += std::to_string(line.level) + line.text;
        EXPECT_EQ(lines, c.lines);
        EXPECT_TRUE(w.event.sockets.empty() && w.event.timers.empty());
        EXPECT_EQ(tavipc::process_state().trace_flag, 0); // a refused name never reads the environment
        unsetenv("IPC_TEST");
    }
}

TEST_F(EndpointTest, TraceVariableCountsByItsFirstCharacterAndIsNeverCleared) {
    for (const auto &[value, word] : {std::pair{"0", 0}, {"", 0}, {"x1", 0}, {"1x", 0x40}, {"0", 0x40}}) {
        setenv("IPC_TEST", value, 1);
        close(open());
        EXPECT_EQ(tavipc::process_state().trace_flag, word) << value;
    }
}

TEST_F(EndpointTest, ModuleInfosAreSweptEveryHour) {
    tav_ipc_st *ipc = open();
    ASSERT_EQ(send(ipc, "x"), 0);
    w.event.complete_all();
    w.event.advance(3'600'000); // idle for exactly an hour: stays
    EXPECT_EQ(ipc->queue->mod_count, 1);
    w.event.advance(3'600'000);
    EXPECT_EQ(ipc->queue->mod_count, 0);
}

TEST_F(EndpointTest, CallbacksAreNeverUnset) {
    tav_ipc_st *ipc = open();
    listen(ipc);
    EXPECT_EQ(tav_ipc_msg_recv(ipc, nullptr, ipc), -1);
    EXPECT_EQ(tav_ipc_on_request(ipc, nullptr, ipc), -1);
    EXPECT_EQ(tav_ipc_file_recv(ipc, nullptr, ipc), -1);
    EXPECT_EQ(tav_ipc_msg_recv(nullptr, ipc->msg_recv, nullptr), -1);
    EXPECT_TRUE(ipc->msg_recv_arg == this && ipc->on_request_arg == this && !ipc->file_recv_arg);
}

TEST_F(EndpointTest, Locality) {
    w.deployment.location = 0x102; // compared whole
    tav_ipc_st *wide = open("wide");
    w.deployment.location = 2;
    tav_ipc_st *ipc = open();
    const struct {
        tav_ipc_st *ipc;
        uint8_t loc;
        uint32_t hostid;
        int local, lines;
    } cases[] = {{ipc, 0, 99, 1, 0},   {ipc, 3, 4711, 0, 0}, {ipc, 3, 0, 0, 0},    {ipc, 2, 0, 1, 0},
                 {ipc, 2, 4711, 1, 0}, {ipc, 2, 99, 0, 1},   {wide, 2, 4711, 0, 0}};
    for (const auto &c : cases) {
        w.log.lines.clear();
        const tav_addr_st there = address("x", c.loc, 0, c.hostid);
        EXPECT_EQ(tav_ipc_is_local(c.ipc, &there), c.local) << int{c.loc} << "/" << c.hostid;
        EXPECT_EQ(w.log.count("addr->hostid: 99, ipc->my_addr.hostid: 4711", 4), c.lines);
    }
}

TEST_F(EndpointTest, HostIdIsCachedUnlessThePlatformHasOne) {
    w.deployment.hostid = 8; // means nothing without a CNAPP agent
    EXPECT_EQ(tav_get_hostid(), 4711u);
    EXPECT_EQ(tav_get_hostid(), 4711u);
    EXPECT_EQ(fake::world().identity.agent_id_calls, 1);
    w.deployment.cnapp = true;
    EXPECT_EQ(tav_get_hostid(), 8u);
    EXPECT_EQ(tav_calculate_hostid(), 8u);
    w.deployment.hostid = 0;
    fake::world().identity.agent_id = 12;
    EXPECT_EQ(tav_get_hostid(), 12u);
    w.deployment.hostid = 9;
    EXPECT_EQ(tav_get_hostid(), 9u);
}

TEST_F(EndpointTest, GuardReportsASecondThreadAndNothingElse) {
    tav_ipc_st *ipc = open();
    listen(ipc);
    const tav_addr_st beta = address("beta");
    const auto send_x = [&] { EXPECT_EQ(tav_ipc_send(ipc, &beta, 0, "x", 1), 0); };
    then_ = [&](tav_ipc_st *) { send_x(); }; // nested on one thread: the common case
    receive(ipc, Datagram{});
    EXPECT_EQ(w.log.count("", 1), 0);

    const auto id = [] { return std::to_string(static_cast<long>(pthread_self())); };
    std::string other;
    then_ = [&](tav_ipc_st *) { std::thread([&] { other = id(), send_x(); }).join(); };
    receive(ipc, Datagram{});
    EXPECT_EQ(w.log.count("[ipc_thread_safe: tav_ipc_send]concurrent access ipc handler: 2, ipc_name: alpha, "
                          "curr_thread_id: " +
                              other + ", conflict_thread_id: " + id(),
                          1),
              1);
    EXPECT_EQ(w.log.count("", 1), 1);
    EXPECT_TRUE(ipc->use_count == 0 && ipc->owner_thread == 0);
    w.event.complete_all();
}

TEST_F(EndpointTest, TwoThreadsDoNotUnbalanceTheGuard) {
    tav_ipc_st *ipc = open();
    w.log.threshold = 0;
    std::latch start(2);
    const auto hammer = [&] {
        start.arrive_and_wait();
        for (int i = 0; i < 300'000; ++i) UseGuard guard(ipc, "x");
    };
    std::thread other(hammer);
    hammer();
    other.join();
    EXPECT_EQ(ipc->use_count, 0);
    EXPECT_EQ(ipc->pins, 0u);
}

TEST_F(EndpointTest, ClosedRecordLivesUntilTheLastPinIsGone) {
    tav_ipc_st *ipc = open();
    EndpointPin outer(ipc);
    {
        UseGuard guard(ipc, "x");
        close(ipc);
        tav_ipc_destroy(ipc);
        EXPECT_EQ(w.log.count("[ipc_thread_safe: tav_ipc_destroy]destroy ipc handler in using: 1", 1), 1);
        EXPECT_TRUE(w.event.sockets.empty());
    }
    EXPECT_EQ(send(ipc, "x"), IPC_ERR_SENDTO);
    EXPECT_FALSE(tav_ipc_recv_start(ipc, tavipc::ipc_on_recv));
    tav_ipc_destroy(nullptr);
}

} // namespace
