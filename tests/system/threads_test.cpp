// Two threads of one process, each with an endpoint and a loop of its own; ./dev tsan runs it under
// ThreadSanitizer. The test starts its own program as a module.
#include <atomic>
#include <barrier>
#include <cstring>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "installation.h"
#include "tavbase.h"
#include "tavcl_ev.h"
#include "tavipc/tav_ipc.h"

using namespace tavipc::stage;

constexpr uint32_t kMessages = 300;
std::atomic<int> busy = 2, failures = 0, log_lines = 0;

struct Worker {
    std::set<uint32_t> messages{}; // their command codes
    uint32_t answers = 0;

    void run(const char *name, const char *peer_name, std::barrier<> &both) {
        tav_addr_st peer{};
        std::strcpy(peer.name, peer_name);
        const std::string payload(100'000, 'p');
        tav_ipc_st *ipc = tav_ipc_create(name);
        cl_dunix_set_send_wait(60'000);
        const auto on_message = [](auto, auto, uint32_t cmd, auto, uint32_t size, void *self) {
            return failures += size != 100 || !static_cast<Worker *>(self)->messages.insert(cmd).second, 0;
        };
        const auto on_request = [](auto own, auto src, auto id, auto cmd, auto data, uint32_t size, auto) {
            return tav_ipc_response(own, src, id, cmd, data, size), 0;
        };
        const auto on_answer = [](int32_t code, uint32_t, auto, uint32_t size, void *self) {
            failures += code != 0 || size != 100'000;
            return ++static_cast<Worker *>(self)->answers, 0;
        };
        tav_ipc_msg_recv(ipc, on_message, this);
        tav_ipc_on_request(ipc, on_request, this);
        both.arrive_and_wait();
        for (uint32_t i = 0; i < kMessages; ++i) {
            failures += tav_ipc_send(ipc, &peer, i, payload.data(), 100) != 0;
            tav_ipc_make_request(ipc, &peer, i, payload.data(), 100'000, on_answer, this, 60);
        }
        while ((messages.size() < kMessages || answers < kMessages) && failures == 0)
            cl_event_loop_run_once(100);
        for (--busy; busy > 0;) cl_event_loop_run_once(1); // the peer may still need answers
        tav_ipc_destroy(ipc);
    }
};

int run_module() {
    std::barrier both(2);
    Worker one, two;
    error_output_set_sink([](int, const char *, int, const char *, void *) { ++log_lines; }, nullptr);
    std::jthread thread([&] { one.run("one", "two", both); });
    two.run("two", "one", both);
    thread.join();
    std::printf("%d failures, %s\n", failures.load(), log_lines > 0 ? "traced" : "no trace");
    return 0;
}

TEST(Threads, EachHasItsOwnEndpoint) {
    const Installation place{{}};
    place.allow({"threads"});
    place.put("threads", std::filesystem::read_symlink("/proc/self/exe"));
    Process module = place.start("threads", {"IPC_TEST=1", "TAV_LOG_LEVEL=4"}, {"module"});
    EXPECT_EQ(module.expect("", 90s), "0 failures, traced");
}

int main(int argc, char **argv) {
    if (argc == 2 && argv[1] == std::string_view("module")) return run_module();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
