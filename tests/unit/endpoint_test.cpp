// Endpoints: creation step by step and what a failed one leaves, options, locality, host id, the thread-use
// guard, destruction.
#include <thread>

#include "endpoint_world.h"
#include "ipc/receive.h"

namespace {

using EndpointTest = EndpointWorld;
using tavipc::ipc_on_recv;

TEST_F(EndpointTest, VariantsDifferInThreeChoices) {
    w.deployment.location = 0x103;
    const std::tuple<tav_ipc_st *, uint8_t, uint32_t, bool> cases[] = {
        {tav_ipc_create("nine_char"), 0, 0, true},
        {tav_ipc_create_temp("b", 3), ADDR_FLAG_TEMP, 3, true},
        {tav_ipc_create_non_recv_temp("d", 5), ADDR_FLAG_TEMP, 5, false},
        {tav_ipc_create_non_recv("c", 4), 0, 4, false}};
    for (const auto &[ipc, flags, accept_files, receives] : cases) {
        ASSERT_TRUE(adopt(ipc));
        EXPECT_EQ(bytes_of(*tav_ipc_get_local_addr(ipc)), bytes_of(address(ipc->my_addr.name, 3, flags)));
        EXPECT_EQ(ipc->accept_files, accept_files);
        const cl_dunix_t socket = w.event.socket_at(std::string("/var/zon_ipc259/") + ipc->my_addr.name);
        EXPECT_EQ(w.event.sockets.at(socket).recv != nullptr, receives);
    }
    EXPECT_EQ(tav_ipc_recv_start(open_.back(), ipc_on_recv), open_.back());
    EXPECT_FALSE(tav_ipc_recv_start(tav_ipc_create_non_recv("none", 0), nullptr)); // destroys
    EXPECT_FALSE(tav_ipc_recv_start(nullptr, ipc_on_recv));
    for (const auto &[value, word] : {std::pair{"0", 0}, {"x1", 0}, {"1x", 0x40}, {"0", 0x40}}) {
        setenv("IPC_TEST", value, 1);
        close(open());
        EXPECT_EQ(tavipc::process_state().trace_flag, word) << value; // never cleared
    }
}

TEST_F(EndpointTest, FailedCreationReleasesEverythingAndSaysWhy) {
    auto &event = w.event;
    const std::tuple<std::function<void()>, const char *, std::string> cases[] = {
        {[&] { w.identity.process_result = -1; }, "ten_chars_", "1process is not valid"},
        {[] {}, "ten_chars_", ""},
        {[] {}, nullptr, ""},
        {[&] { w.identity.agent_id = 0; }, "alpha",
         "2calculate agentid failed\n2failed to get hostid, ipc create failed"},
        {[&] { event.fail_create = 1; }, "alpha", "2fail to create ipc retry socket: /var/zon_ipc2/alpha"},
        {[] {}, "a/b", ""}, // the same line, limited
        {[&] { w.memory.fail_table = 1; }, "alpha", "1init ipc msg queue failed."},
        {[&] { w.memory.fail_table = 2; }, "alpha", ""},
        {[&] { event.fail_recv = 1; }, "alpha", ""}};
    setenv("IPC_TEST", "1", 1);
    w.log.threshold = 2;
    for (const auto &[prepare, name, expected] : cases) {
        w.log.lines.clear();
        w.identity = {};
        tavipc::reset_process_state();
        prepare();
        EXPECT_FALSE(adopt(tav_ipc_create(name)));
        std::string lines;
        for (const auto &line : w.log.lines) lines += std::to_string(line.level) + line.text;
        EXPECT_EQ(lines, expected);
        EXPECT_TRUE(event.sockets.empty() && event.timers.empty());
        EXPECT_EQ(tavipc::process_state().trace_flag != 0, name && strcmp(name, "ten_chars_"));
    }
}

TEST_F(EndpointTest, SweepsModuleInfosEveryHourAndKeepsItsCallbacks) {
    tav_ipc_st *ipc = open();
    ASSERT_EQ(send(ipc, "x"), 0);
    w.event.complete_all();
    for (const int64_t left : {1, 0}) { // idle for exactly an hour: stays
        w.event.advance(3'600'000);
        EXPECT_EQ(ipc->queue->mod_count, left);
    }
    listen(ipc);
    EXPECT_EQ(tav_ipc_msg_recv(ipc, nullptr, ipc), -1);
    EXPECT_EQ(tav_ipc_on_request(ipc, nullptr, ipc), -1);
    EXPECT_EQ(tav_ipc_file_recv(ipc, nullptr, ipc), -1);
    EXPECT_EQ(tav_ipc_msg_recv(nullptr, ipc->msg_recv, nullptr), -1);
    EXPECT_TRUE(ipc->msg_recv_arg == this && ipc->on_request_arg == this && !ipc->file_recv_arg);
}

TEST_F(EndpointTest, LocalityAndHostIds) {
    w.deployment.location = 0x102; // compared whole
    tav_ipc_st *wide = open("wide");
    w.deployment.location = 2;
    tav_ipc_st *ipc = open();
    const std::tuple<tav_ipc_st *, uint8_t, uint32_t, int> places[] = {
        {ipc, 0, 99, 1},   {ipc, 3, 4711, 0}, {ipc, 3, 0, 0},    {ipc, 2, 0, 1},
        {ipc, 2, 4711, 1}, {ipc, 2, 99, 0},   {wide, 2, 4711, 0}};
    forget();
    for (const auto &[here, loc, hostid, local] : places) {
        const tav_addr_st there = address("x", loc, 0, hostid);
        EXPECT_EQ(tav_ipc_is_local(here, &there), local) << int{loc} << "/" << hostid;
    }
    EXPECT_EQ(w.log.lines.size(), 1u);
    EXPECT_EQ(w.log.count("addr->hostid: 99, ipc->my_addr.hostid: 4711", 4), 1);
    const std::tuple<bool, uint32_t, unsigned, uint32_t> ids[] = {// CNAPP agent, its id, agent id, result
                                                                  {false, 8, 5, 5},
                                                                  {false, 8, 6, 5},
                                                                  {true, 8, 5, 8},
                                                                  {true, 0, 12, 12},
                                                                  {true, 9, 12, 9}};
    tavipc::reset_host_id();
    for (const auto &[cnapp, platform, agent, expected] : ids) {
        std::tie(w.deployment.cnapp, w.deployment.hostid, w.identity.agent_id) =
            std::tuple(cnapp, platform, agent);
        EXPECT_EQ(tav_get_hostid(), expected);
    }
    EXPECT_EQ(tav_calculate_hostid(), 9u);
    EXPECT_EQ(w.identity.agent_id_calls, 3);
}

TEST_F(EndpointTest, GuardReportsASecondThreadAndNothingElse) {
    tav_ipc_st *ipc = open();
    listen(ipc);
    forget();
    w.log.threshold = 1;
    const tav_addr_st beta = address("beta");
    const auto use = [&] { tav_ipc_send(ipc, &beta, 0, "x", 1); };
    then_ = [&](tav_ipc_st *) { use(); }; // nested on one thread: the common case
    receive(ipc, Datagram{});
    EXPECT_TRUE(w.log.lines.empty());
    const auto id = [] { return std::to_string(static_cast<long>(pthread_self())); };
    std::string other;
    then_ = [&](tav_ipc_st *) { std::thread([&] { other = id(), use(); }).join(); };
    receive(ipc, Datagram{});
    EXPECT_EQ(w.log.count("[ipc_thread_safe: tav_ipc_send]concurrent access ipc handler: 2, ipc_name: alpha, "
                          "curr_thread_id: " +
                          other + ", conflict_thread_id: " + id()),
              1);
    w.log.threshold = 0;
    const auto hammer = [&] {
        for (int i = 0; i < 300'000; ++i) tavipc::UseGuard guard(ipc, "x");
    };
    std::thread second(hammer);
    hammer();
    second.join();
    EXPECT_TRUE(ipc->use_count == 0 && ipc->owner_thread == 0 && ipc->pins == 0);
    w.event.complete_all();
}

TEST_F(EndpointTest, ClosedRecordLivesUntilTheLastPinIsGone) {
    tav_ipc_st *ipc = open();
    tavipc::EndpointPin outer(ipc);
    {
        tavipc::UseGuard guard(ipc, "x");
        close(ipc);
        tav_ipc_destroy(ipc);
        EXPECT_EQ(w.log.count("[ipc_thread_safe: tav_ipc_destroy]destroy ipc handler in using: 1", 1), 1);
    }
    EXPECT_EQ(send(ipc, "x"), IPC_ERR_SENDTO);
    EXPECT_FALSE(tav_ipc_recv_start(ipc, ipc_on_recv));
    tav_ipc_destroy(nullptr);
}

} // namespace
