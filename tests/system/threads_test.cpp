// Many threads of one process, each with an endpoint and a loop of its own: what the public header calls
// safe. Run under ThreadSanitizer by ./dev tsan. The endpoints need an installation, so the test starts its
// own program there, as a module.
#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <bitset>
#include <cstring>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "installation.h"
#include "tavbase.h"
#include "tavcl_ev.h"
#include "tavipc/tav_ipc.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kThreads = 8, kRounds = 3, kMessages = 50, kRequests = 20;
constexpr uint32_t kLong = 200'000;

void check(bool holds, const char *what) {
    if (holds) return;
    std::printf("failed: %s\n", what);
    std::fflush(stdout);
    std::_Exit(1);
}

std::string name_of(uint32_t number) { return "t" + std::to_string(number); }

tav_addr_st address_of(uint32_t number) {
    tav_addr_st address{};
    name_of(number).copy(address.name, TAV_IPC_NAME_MAX);
    return address;
}

struct Worker {
    uint32_t number, next = (number + 1) % kThreads;
    std::array<std::bitset<kMessages>, kThreads> got{}; // messages, by their source
    uint32_t long_got = 0, answers = 0, confirmations = 0, file_sent = 0, files = 0;
    std::vector<uint32_t> ids{}; // of the requests that came

    bool complete() const {
        return std::all_of(got.begin(), got.end(), [](const auto &numbers) { return numbers.all(); }) &&
               long_got == 1 && answers == kRequests && confirmations == kRequests &&
               file_sent == (number == 1) && files == (number == 0);
    }
    void message(const tav_addr_st *src, const void *data, uint32_t size) {
        const auto source = static_cast<uint32_t>(src->name[1] - '0');
        if (size == kLong) {
            const std::string_view text(static_cast<const char *>(data), size);
            check(text.find_first_not_of(src->name[1]) == text.npos, "bytes of a long message");
            ++long_got;
        } else {
            // In any order: when threads draw the same name for a sending socket, one of them sends a message
            // through its own.
            uint32_t which = kMessages;
            if (size == sizeof which) std::memcpy(&which, data, size);
            check(which < kMessages && !got.at(source)[which], "each message once");
            got[source].set(which);
        }
    }
    void set_callbacks(tav_ipc_st *ipc);
    void start(tav_ipc_st *ipc, const std::string &file);
    void run(const std::string &file, std::barrier<> &all, std::atomic<uint32_t> &busy);
};

void Worker::set_callbacks(tav_ipc_st *ipc) {
    tav_ipc_msg_recv(
        ipc,
        [](tav_ipc_st *, const tav_addr_st *src, uint32_t cmd, const void *data, uint32_t size, void *user) {
            if (cmd == 0) static_cast<Worker *>(user)->message(src, data, size); // else it is to be confirmed
            return 0;
        },
        this);
    tav_ipc_on_request(
        ipc,
        [](tav_ipc_st *self, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
           uint32_t size, void *user) {
            static_cast<Worker *>(user)->ids.push_back(reqid);
            tav_ipc_response(self, src, reqid, cmd + 1, data, size);
            return 0;
        },
        this);
    tav_ipc_file_recv(
        ipc,
        [](tav_ipc_st *, const char *path, void *user) {
            check(fs::file_size(path) == kLong && fs::remove(path), "a received file");
            ++static_cast<Worker *>(user)->files;
            return 0;
        },
        this);
}

void Worker::start(tav_ipc_st *ipc, const std::string &file) {
    const auto count = [](int32_t code, void *counter) {
        check(code >= 0, tav_ipc_strerror(code));
        ++*static_cast<uint32_t *>(counter);
        return 0;
    };
    const auto answered = [](int32_t code, uint32_t cmd, const void *, uint32_t size, void *user) {
        check(code == 0 && cmd == 6 && size == 4, "an answer");
        ++static_cast<Worker *>(user)->answers;
        return 0;
    };
    for (uint32_t i = 0; i < kMessages; ++i)
        for (uint32_t to = 0; to < kThreads; ++to) {
            const tav_addr_st dest = address_of(to);
            check(tav_ipc_send(ipc, &dest, 0, &i, 4) == 0, "sending");
        }
    const tav_addr_st dest = address_of(next), receiver = address_of(0);
    const std::string text(kLong, static_cast<char>('0' + number));
    check(tav_ipc_send(ipc, &dest, 0, text.data(), kLong) == 0, "sending a long message");
    for (uint32_t i = 0; i < kRequests; ++i) {
        tav_ipc_make_request(ipc, &dest, 5, &i, 4, answered, this, 60);
        tav_ipc_send2(ipc, &dest, 1, &i, 4, count, &confirmations, 60);
    }
    // One a round: the ids of two files that are sent in the same millisecond may be the same.
    if (number == 1) tav_ipc_send_file(ipc, &receiver, file.c_str(), count, &file_sent, 60);
}

void Worker::run(const std::string &file, std::barrier<> &all, std::atomic<uint32_t> &busy) {
    cl_dunix_set_send_wait(60'000);
    tav_ipc_st *ipc = tav_ipc_create_temp(name_of(number).c_str(), number == 0); // files on one thread alone
    check(ipc, "creation");
    set_callbacks(ipc);
    all.arrive_and_wait();
    check(!tav_ipc_create(name_of(next).c_str()), "creation under a name in use");
    start(ipc, file);
    while (!complete()) cl_event_loop_run_once(100);
    for (--busy; busy > 0;) cl_event_loop_run_once(1); // the others may still want answers
    tav_ipc_destroy(ipc);
}

void round(const std::string &file) {
    std::vector<Worker> workers;
    for (uint32_t i = 0; i < kThreads; ++i) workers.push_back({.number = i});
    std::barrier all(kThreads);
    std::atomic<uint32_t> busy = kThreads;
    {
        std::vector<std::jthread> threads;
        for (Worker &worker : workers) threads.emplace_back([&] { worker.run(file, all, busy); });
    }
    std::vector<uint32_t> ids;
    for (const Worker &worker : workers) ids.insert(ids.end(), worker.ids.begin(), worker.ids.end());
    std::sort(ids.begin(), ids.end());
    check(ids.size() == kThreads * kRequests && ids[0] != 0, "requests");
    check(std::adjacent_find(ids.begin(), ids.end()) == ids.end(), "ids that differ in all threads");
}

int run_module(const std::string &file) {
    static std::atomic<uint32_t> lines = 0;
    error_output_set_sink([](int, const char *, int, const char *, void *) { ++lines; }, nullptr);
    for (uint32_t i = 0; i < kRounds; ++i) round(file);
    check(lines > 0, "traces");
    std::puts("all good");
    return 0;
}

// With traces, which every thread asks for.
TEST(Threads, EachWithItsOwnEndpoint) {
    const Installation place{{}};
    const fs::path root = place.config().parent_path(), file = root / "file";
    place.allow({"threads"});
    fs::copy_file(fs::read_symlink("/proc/self/exe"), root / "bin/threads");
    std::ofstream(file) << std::string(kLong, 'f');
    Process module(root / "bin/threads", {"IPC_TEST=1", "TAV_LOG_LEVEL=4"}, {file});
    module.expect("all good", 90s);
    EXPECT_EQ(module.finish(), 0);
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 2 && argv[1][0] == '/') return run_module(argv[1]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
