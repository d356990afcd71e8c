// Endpoints: creation and its failures, options, locality, host id, the thread-use guard, destruction;
// changes of their directory.
#include <thread>

#include "endpoint_world.h"
#include "ipc/directory_watch.h"
#include "ipc/receive.h"
#include "temp_dir.h"

using tavipc::ipc_on_recv;

struct EndpointTest : EndpointWorld {
    bool receives(const std::string &name) const {
        return w.event.sockets.at(w.event.socket_at("/var/zon_ipc259/" + name)).recv;
    }
    // Expects that tav_ipc_create(name) fails with that errno and these lines.
    void expect_failure(const char *name, int error, const std::string &expected_lines) {
        w.log.lines.clear();
        EXPECT_EQ(adopt(tav_ipc_create(name)), nullptr);
        EXPECT_EQ(errno, error) << expected_lines;
        std::string lines;
        for (const auto &line : w.log.lines) lines += std::to_string(line.level) + line.text + "|";
        EXPECT_EQ(lines, expected_lines);
    }
};

TEST_F(EndpointTest, VariantsDifferInThreeChoices) {
    w.deployment.location = 0x103;
    const std::tuple<tav_ipc_st *, uint8_t, uint32_t, bool> cases[] = {
        {tav_ipc_create("nine_char"), 0, 0, true},
        {tav_ipc_create_temp("b", 3), ADDR_FLAG_TEMP, 3, true},
        {tav_ipc_create_non_recv_temp("d", 5), ADDR_FLAG_TEMP, 5, false},
        {tav_ipc_create_non_recv("c", 4), 0, 4, false}};
    for (const auto &[ipc, flags, accept_files, receiving] : cases) {
        ASSERT_TRUE(adopt(ipc));
        const std::string name = tav_ipc_get_local_addr(ipc)->name;
        EXPECT_EQ(bytes_of(*tav_ipc_get_local_addr(ipc)), bytes_of(address(name, 3, flags)));
        EXPECT_EQ(ipc->accept_files, accept_files);
        EXPECT_EQ(receives(name), receiving);
    }
    EXPECT_EQ(tav_ipc_recv_start(open_.back(), ipc_on_recv), open_.back());
    EXPECT_TRUE(receives("c"));
}

TEST_F(EndpointTest, FailedCreationSetsErrnoAndLogsTheReason) {
    const auto reason = [](const std::string &name, const std::string &text) {
        return "2ipc create failed, name: " + name + ", reason: " + text + "|";
    };
    w.log.threshold = 2;
    w.identity.process_result = -EACCES;
    expect_failure("alpha", EPERM, "1process is not valid|");
    w.identity.process_result = -EMFILE;
    expect_failure("alpha", EMFILE, "1process is not valid|");
    w.identity = {};
    expect_failure("ten_chars_", EINVAL, "");
    expect_failure(nullptr, EINVAL, "");
    w.identity.agent_id = 0;
    tavipc::reset_process_state();
    expect_failure("alpha", ENODEV, "2calculate agentid failed\n|2failed to get hostid, ipc create failed|");
    w.identity = {};
    const std::string no_socket = "2fail to create ipc retry socket: /var/zon_ipc2/..|"; // limited
    expect_failure("..", EINVAL, no_socket + reason("..", "Invalid argument"));
    expect_failure("a/b", EINVAL, reason("a/b", "Invalid argument"));
    w.event.fail_create = 1;
    expect_failure("alpha", EACCES, reason("alpha", "Permission denied"));
    w.memory.fail_table = 1;
    expect_failure("alpha", ENOMEM,
                   "1init ipc msg queue failed.|" + reason("alpha", "Cannot allocate memory"));
    w.event.fail_recv = 1;
    expect_failure("alpha", ENOMEM, reason("alpha", "Cannot allocate memory"));
    open();
    EXPECT_EQ(tav_ipc_create_non_recv("alpha", 0), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(tav_ipc_recv_start(tav_ipc_create_non_recv("none", 0), nullptr), nullptr); // destroys it
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(EndpointTest, IdleDestinationsGoAfterAnHour) {
    for (const int refused_timers : {0, 1}) { // then the timer is armed when the destination is made
        w.event.fail_timers = refused_timers;
        tav_ipc_st *ipc = open();
        ASSERT_EQ(send(ipc, "x"), 0);
        w.event.complete_all();
        for (const int64_t left : {1, 0}) { // idle for exactly an hour: stays
            w.event.advance(3'600'000);
            EXPECT_EQ(ipc->queue->mod_count, left);
        }
        close(ipc);
    }
}

TEST_F(EndpointTest, LocalityComparesWholeLocationsAndHostIds) {
    w.deployment.location = 0x102;
    tav_ipc_st *ipc = open();
    const std::tuple<int32_t, uint8_t, uint32_t, int> places[] = {
        {2, 0, 99, 1}, {2, 3, 0, 0}, {2, 2, 0, 1}, {2, 2, 4711, 1}, {2, 2, 99, 0}, {0x102, 2, 4711, 0}};
    for (const auto &[here, loc, hostid, local] : places) {
        const tav_addr_st there = address("x", loc, 0, hostid);
        ipc->location = here;
        EXPECT_EQ(tav_ipc_is_local(ipc, &there), local) << int{loc} << "/" << hostid;
    }
    EXPECT_EQ(w.log.count("addr->hostid: 99, ipc->my_addr.hostid: 4711", 4), 1);
}

TEST_F(EndpointTest, HostIdIsThePlatformsOrTheAgentId) {
    // CNAPP agent, its id, agent id, result
    const std::tuple<bool, uint32_t, unsigned, uint32_t> ids[] = {
        {false, 8, 5, 5}, {false, 8, 6, 5}, {true, 0, 12, 12}, {true, 9, 12, 9}};
    for (const auto &[cnapp, platform, agent, expected] : ids) {
        w.deployment.cnapp = cnapp;
        w.deployment.hostid = platform;
        w.identity.agent_id = agent;
        EXPECT_EQ(tav_get_hostid(), expected);
    }
    EXPECT_EQ(tav_calculate_hostid(), 9u);
}

TEST_F(EndpointTest, GuardReportsASecondThreadAndNothingElse) {
    tav_ipc_st *ipc = open();
    listen(ipc);
    forget();
    w.log.threshold = 1;
    const tav_addr_st beta = address("beta");
    const auto use = [&] { tav_ipc_send(ipc, &beta, 0, "x", 1); };
    const auto id = [] { return std::to_string(static_cast<long>(pthread_self())); };
    std::string other;
    then_ = [&](tav_ipc_st *) {
        use(); // nested on one thread: normal
        EXPECT_EQ(w.log.lines.size(), 0u);
        std::thread([&] { other = id(), use(); }).join();
    };
    receive(ipc, Datagram{});
    const std::string line =
        "[ipc_thread_safe: tav_ipc_send]concurrent access ipc handler: 2, ipc_name: alpha, ";
    EXPECT_EQ(w.log.count(line + "curr_thread_id: " + other + ", conflict_thread_id: " + id()), 1);
    EXPECT_EQ(ipc->use_count, 0);
    EXPECT_EQ(ipc->owner_thread, 0u);
}

TEST_F(EndpointTest, DestroyedRecordLivesUntilItsLastFrameIsLeft) {
    tav_ipc_st *ipc = open();
    const tavipc::EndpointPin outer(ipc);
    {
        const tavipc::UseGuard guard(ipc, "x");
        close(ipc);
        EXPECT_EQ(w.log.count("[ipc_thread_safe: tav_ipc_destroy]destroy ipc handler in using: 1", 1), 1);
    }
    EXPECT_EQ(send(ipc, "x"), IPC_ERR_SENDTO);
    EXPECT_EQ(tav_ipc_recv_start(ipc, ipc_on_recv), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(EndpointTest, ChangesThatComeWhileOthersAreHandledWait) {
    static int changes;
    TempDir root{"/var/tmp/tavipc-XXXXXX"};
    std::filesystem::create_directory(root / "zon_ipc2");
    const std::string type = (root / ".").substr(5);
    w.deployment.deploy_type = type.c_str(), w.event.watches_io = true, changes = 0;
    const auto change_it_again = [](void *owner, const char *, bool) {
        if (++changes < 1000) static_cast<TempDir *>(owner)->write("zon_ipc2/" + std::to_string(changes), "");
    };
    using tavipc::DirectoryListener;
    DirectoryListener listener(DirectoryListener::Interest::kFiles, change_it_again, &root);
    listener.start(2); // reports that everything may have changed
    for (const int expected : {2, 3}) EXPECT_EQ((listener.catch_up(), changes), expected);
}
