// Whole files: the chunks that a sender sends and when it stops, and what a receiver keeps and for how long.
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "endpoint_world.h"

using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

// mkstemp makes its files in a directory of the test's own, with paths as long as the template's.
struct TemporaryFiles {
    std::string directory = "/tmp/tXXXXXX";
    std::vector<std::string> templates;
    int count = 0;
    int last = -1;                // descriptor
    int error = 0;                // mkstemp fails with it
    const char *device = nullptr; // the descriptor is open on this instead of the file
} temporary;

} // namespace

extern "C" int mkstemp(char *path) {
    temporary.templates.push_back(path);
    if (temporary.error) return errno = temporary.error, -1;
    snprintf(path, strlen(path) + 1, "%s/%07d", temporary.directory.c_str(), ++temporary.count);
    const int fd = open(path, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0 || !temporary.device) return temporary.last = fd;
    ::close(fd);
    return temporary.last = open(temporary.device, O_RDWR | O_NONBLOCK);
}

namespace {

class Files : public EndpointWorld {
  protected:
    Files() {
        temporary = {};
        if (!mkdtemp(temporary.directory.data())) throw std::runtime_error("no temporary directory");
    }
    void TearDown() override {
        while (!open_.empty()) close(open_.back());
        xhash_destroy(tavipc::process_state().received_files);
        cl_timer_stop(tavipc::process_state().file_sweep_timer);
        EndpointWorld::TearDown();
        EXPECT_EQ(descriptors(), descriptors_);
        fs::remove_all(temporary.directory);
    }

    static size_t descriptors() {
        return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
    }
    static std::string content(const fs::path &path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static std::string made_file(int number) {
        char name[16];
        snprintf(name, sizeof name, "/%07d", number);
        return temporary.directory + name;
    }

    // --- sending
    std::string write(const std::string &bytes) {
        const std::string path = temporary.directory + "/source";
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    void send_file(tav_ipc_st *ipc, const std::string &path, const char *dest = "beta") {
        const tav_addr_st to = address(dest);
        tav_ipc_send_file(ipc, &to, path.c_str(), on_done, this, 3);
    }
    void acknowledge(tav_ipc_st *ipc, int32_t code) {
        Datagram reply{"", {}, bytes_of(code)};
        reply.header.flags = IPC_FLAG_ACK;
        reply.header.reqid = sent(w.event.sends.size() - 1).header.reqid;
        receive(ipc, reply);
    }

    // --- receiving
    int32_t save(const char *source, uint32_t file_id, const std::string &bytes, tav_ipc_st *ipc = nullptr) {
        const tav_addr_st src = address(source, 2, ++address_flags_); // which no two chunks need share
        return tav_ipc_save_file(ipc, &src, file_id, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    static int on_file(tav_ipc_st *ipc, const char *path, void *user) {
        auto *test = static_cast<Files *>(user);
        test->received_.push_back(content(path));
        test->sent_before_ = test->w.event.sends.size();
        if (test->then_) test->then_(ipc);
        return -1;
    }
    static int on_done(int32_t code, void *user) {
        auto *test = static_cast<Files *>(user);
        test->done_.push_back(code);
        if (test->then_) test->then_(test->open_.empty() ? nullptr : test->open_.back());
        return -1;
    }
    void sweep(time_t now) {
        w.clock.wall_s = now;
        w.event.advance(60'000);
    }

    std::vector<int32_t> done_;
    std::vector<std::string> received_;
    size_t sent_before_ = 0;
    uint8_t address_flags_ = 0;
    const size_t descriptors_ = descriptors();
};

TEST_F(Files, IdsAreKnown) {
    w.random.draws = {7, 42, 7, 42, 144375, 2993, 927410, 7086};
    EXPECT_EQ(tav_ipc_get_random_file_id(77), 1584681145);
    EXPECT_EQ(tav_ipc_get_random_file_id(4'000'000'000), 1231181790);
    EXPECT_EQ(tav_ipc_get_random_file_id(77), 0);
    EXPECT_EQ(tav_ipc_get_random_file_id(77), INT32_MAX); // this CRC has no positive counterpart
    const auto seed = static_cast<unsigned>(getpid()) ^ 1'700'000'000u ^ static_cast<unsigned>(getppid());
    EXPECT_THAT(w.random.seeds, ElementsAre(seed)); // once
}

TEST_F(Files, TravelInConfirmedChunks) {
    const std::pair<size_t, std::vector<size_t>> cases[] = {
        {130'000, {64'000, 64'000, 2'000, 0}}, {64'000, {64'000, 0}}, {64'001, {64'000, 1, 0}}, {0, {0}}};
    for (const auto &[size, chunks] : cases) {
        SCOPED_TRACE(size);
        tav_ipc_st *ipc = open();
        const std::string bytes = pattern(size);
        const size_t first = w.event.sends.size();
        done_.clear();
        send_file(ipc, size ? write(bytes) : temporary.directory); // a directory reads as an empty file
        const uint32_t id = sent(first).header.cmd;
        std::string arrived;
        for (size_t i = 0; i < chunks.size(); ++i) {
            ASSERT_EQ(w.event.sends.size(), first + i + 1); // one at a time
            EXPECT_THAT(done_, IsEmpty());
            const Datagram chunk = sent(first + i);
            EXPECT_EQ(chunk.payload.size(), chunks[i]);
            EXPECT_EQ(chunk.header.flags, IPC_FLAG_FILE | IPC_FLAG_NEED_ACK);
            EXPECT_EQ(chunk.header.cmd, id);
            arrived += chunk.payload;
            acknowledge(ipc, 0);
        }
        EXPECT_EQ(w.event.sends.size(), first + chunks.size());
        EXPECT_EQ(arrived, bytes);
        EXPECT_THAT(done_, ElementsAre(static_cast<int32_t>(id)));
        EXPECT_EQ(descriptors(), descriptors_);
        close(ipc);
    }
}

TEST_F(Files, GrowUntilTheirEndIsSent) {
    tav_ipc_st *ipc = open();
    const std::string path = write(pattern(64'000));
    const auto append = [&](size_t size) { std::ofstream(path, std::ios::app) << std::string(size, '+'); };
    send_file(ipc, path);
    append(64'000); // before the end was reached, whatever was read ahead
    acknowledge(ipc, 0);
    append(34);
    acknowledge(ipc, 0);
    append(1); // behind the end
    acknowledge(ipc, 0);
    std::vector<size_t> sizes;
    for (size_t i = 0; i < w.event.sends.size(); ++i) sizes.push_back(sent(i).payload.size());
    EXPECT_THAT(sizes, ElementsAre(64'000, 64'000, 34, 0));
    EXPECT_EQ(sent(1).payload, std::string(64'000, '+'));
}

TEST_F(Files, FirstOtherCodeEndsATransfer) {
    const std::pair<int32_t, std::function<void(tav_ipc_st *)>> cases[] = {
        {-106, [&](tav_ipc_st *ipc) { acknowledge(ipc, -106); }},
        {1005, [&](tav_ipc_st *ipc) { acknowledge(ipc, 1005); }}, // the peer's own
        {-102, [&](tav_ipc_st *) { w.clock.wall_s += 4, w.event.advance(1000); }},
        {-103, [&](tav_ipc_st *ipc) { close(ipc); }},
    };
    const std::string path = write(pattern(130'000));
    for (const int chunk : {0, 2, 3}) // 3: the end marker
        for (const auto &[result, end] : cases) {
            SCOPED_TRACE(result);
            done_.clear();
            tav_ipc_st *ipc = open();
            send_file(ipc, path);
            for (int i = 0; i < chunk; ++i) acknowledge(ipc, 0);
            const size_t before = w.event.sends.size();
            end(ipc);
            EXPECT_THAT(done_, ElementsAre(result));
            EXPECT_EQ(descriptors(), descriptors_);
            if (!open_.empty()) acknowledge(ipc, 0); // too late
            w.event.advance(5000);
            EXPECT_EQ(w.event.sends.size(), before);
            EXPECT_EQ(done_.size(), 1u);
            if (!open_.empty()) close(ipc);
        }
}

TEST_F(Files, WhatCannotBeginEndsAtOnce) {
    tav_ipc_st *ipc = open();
    const tav_addr_st beta = address("beta");
    const std::string path = write("x");
    then_ = [&](tav_ipc_st *) { EXPECT_EQ(w.event.sends.size(), 0u); };
    tav_ipc_send_file(ipc, &beta, "/no/such/file", on_done, this, 1);
    tav_ipc_send_file(ipc, &beta, nullptr, on_done, this, 1);
    tav_ipc_send_file(nullptr, &beta, path.c_str(), on_done, this, 1);
    tav_ipc_send_file(ipc, nullptr, path.c_str(), on_done, this, 1);
    tav_ipc_send_file(ipc, &beta, "/no/such/file", nullptr, nullptr, 1);
    EXPECT_THAT(done_, ElementsAre(-104, -104, -101, -101));

    then_ = nullptr;
    send_file(ipc, path, "a/b"); // the send path refuses: that comes later, and needs no endpoint
    then_ = [&](tav_ipc_st *owner) { close(owner); };
    send_file(ipc, "/no/such/file");
    EXPECT_EQ(done_.size(), 5u);
    EXPECT_TRUE(open_.empty());
    then_ = nullptr;
    w.event.advance(1);
    EXPECT_THAT(done_, ElementsAre(-104, -104, -101, -101, -104, -101));
}

TEST_F(Files, ChunksBecomeAFile) {
    tav_ipc_st *ipc = open();
    EXPECT_EQ(tav_ipc_get_file_path(ipc, 1), nullptr); // nothing was received yet
    tav_ipc_file_recv(ipc, on_file, this);
    struct Step {
        const char *source;
        uint32_t id;
        const char *bytes;
        int32_t result;
        bool complete;
    };
    const uint32_t high = 0x80000000;
    const Step steps[] = {
        {"gamma", 1, "abc", 0, false},  {"delta", 1, "x", -106, false}, {"gamma", 2, "ghi", 0, false},
        {"gamma", 1, "def", 0, false},  {"delta", 1, "", -106, false},  {"gamma", 1, "", 0, true},
        {"gamma", 1, "x", -108, true},  {"gamma", 1, "", -108, true},   {"delta", 1, "", -106, true},
        {"gamma", 2, "j", 0, false},    {"gamma", 2, "", 0, true},      {"gamma", high, "", 0, true},
        {"gamma", high, "", -108, true}};
    for (const Step &step : steps) {
        SCOPED_TRACE(std::string(step.source) + std::to_string(step.id) + step.bytes);
        EXPECT_EQ(save(step.source, step.id, step.bytes, ipc), step.result);
        const char *path = tav_ipc_get_file_path(nullptr, step.id);
        EXPECT_EQ(path ? path : "",
                  step.complete ? made_file(step.id == high ? 3 : static_cast<int>(step.id)) : "");
    }
    EXPECT_THAT(received_, ElementsAre("abcdef", "ghij", ""));
    EXPECT_THAT(temporary.templates, testing::Each("/tmp/ipc_file.XXXXXX"));
    EXPECT_EQ(tav_ipc_get_file_path(ipc, 7), nullptr);
    EXPECT_EQ(save("gamma", 7, "x", ipc), 0);
    EXPECT_EQ(fcntl(temporary.last, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(save("gamma", 3, "", nullptr), 0); // without an endpoint nobody is told
    EXPECT_EQ(received_.size(), 3u);
}

TEST_F(Files, WhatCannotBeWrittenIsRefused) {
    temporary.error = EMFILE;
    EXPECT_EQ(save("gamma", 1, "abc"), -107);
    temporary.error = 0;
    EXPECT_EQ(save("delta", 1, "abc"), 0); // nothing was kept of the first
    const std::string fifo = temporary.directory + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fcntl(reader, F_SETPIPE_SZ, 4096), 4096);
    for (const char *device : {"/dev/full", fifo.c_str()}) { // an error; a part of it
        temporary.device = device;
        const uint32_t id = device[1] == 'd' ? 2 : 3;
        EXPECT_EQ(save("gamma", id, std::string(64'000, 'x')), -107) << device;
        EXPECT_EQ(save("gamma", id, std::string(64'000, 'x')), -107) << device; // and it stays
        EXPECT_EQ(save("delta", id, "x"), -106);
    }
    ::close(reader);
    sweep(w.clock.wall_s + 301);
    EXPECT_FALSE(fs::exists(made_file(2)));
}

TEST_F(Files, PeersGetHalfOfTheDescriptors) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{80, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    for (uint32_t id = 0; id < 100; ++id) EXPECT_EQ(save("gamma", id, "x"), id < 40 ? 0 : -107) << id;
    EXPECT_EQ(save("gamma", 3, ""), 0); // whole: its place is free
    EXPECT_EQ(save("gamma", 100, "x"), 0);
    EXPECT_EQ(save("gamma", 101, "x"), -107);
    sweep(w.clock.wall_s + 301);
    EXPECT_EQ(save("gamma", 102, "x"), 0);
    EXPECT_EQ(tavipc::process_state().files_open, 1u);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(w.log.count("too many files are being received, another one is refused, 40 open", 2), 1);
}

TEST_F(Files, SweepRemovesWhatIsOlderThan300Seconds) {
    const time_t begin = w.clock.wall_s;
    const fs::path moved = temporary.directory + "/moved";
    save("gamma", 1, "open");
    save("gamma", 2, "complete");
    save("gamma", 3, "renewed");
    save("gamma", 4, "moved away");
    ASSERT_EQ(w.event.timers.size(), 1u);
    EXPECT_EQ(w.event.timers.begin()->second.delay_ms, 60'000u);
    w.clock.wall_s = begin + 200;
    EXPECT_EQ(save("gamma", 2, ""), 0); // completing does not renew
    EXPECT_EQ(save("gamma", 4, ""), 0);
    EXPECT_EQ(save("gamma", 3, "x"), 0);
    fs::rename(made_file(4), moved);

    sweep(begin + 300);
    for (const int number : {1, 2, 3}) EXPECT_TRUE(fs::exists(made_file(number))) << number;
    EXPECT_EQ(tav_ipc_get_file_path(nullptr, 2), made_file(2));
    sweep(begin + 301);
    for (const int number : {1, 2}) EXPECT_FALSE(fs::exists(made_file(number))) << number;
    EXPECT_TRUE(fs::exists(made_file(3)));
    EXPECT_EQ(tav_ipc_get_file_path(nullptr, 2), nullptr);
    EXPECT_EQ(content(moved), "moved away");
    sweep(begin + 501);
    EXPECT_FALSE(fs::exists(made_file(3)));
    EXPECT_EQ(descriptors(), descriptors_);
    EXPECT_EQ(w.event.timers.size(), 1u); // it goes on
    EXPECT_EQ(save("delta", 1, "again"), 0);
    EXPECT_EQ(w.event.timers.size(), 1u);
}

TEST_F(Files, SweepOutlivesItsLoop) {
    save("gamma", 1, "x");
    w.event.timers.clear(); // with the loop that it was on
    w.clock.loop_ms += 120'001;
    save("gamma", 2, "x");
    ASSERT_EQ(w.event.timers.size(), 1u);
    sweep(w.clock.wall_s + 301);
    EXPECT_FALSE(fs::exists(made_file(1)) || fs::exists(made_file(2)));
}

TEST_F(Files, PathLastsAsLongAsItsCallback) {
    tav_ipc_st *ipc = open();
    static std::function<void()> sweeps;
    sweeps = [&] { sweep(w.clock.wall_s + 301); };
    const auto on_path = [](tav_ipc_st *, const char *path, void *) {
        sweeps();
        EXPECT_EQ(path, made_file(1));
        return 0;
    };
    tav_ipc_file_recv(ipc, on_path, nullptr);
    EXPECT_EQ(save("gamma", 1, "", ipc), 0);
    EXPECT_FALSE(fs::exists(made_file(1)));
}

TEST_F(Files, FileCallbackComesBeforeTheReplyAndMayEndIt) {
    for (const bool destroy : {false, true}) {
        tav_ipc_st *ipc = adopt(tav_ipc_create_temp("alpha", 1));
        tav_ipc_file_recv(ipc, on_file, this);
        if (destroy) then_ = [&](tav_ipc_st *own) { close(own), open("alpha"); };
        Datagram chunk{"", {}, ""};
        chunk.header.src = address("gamma");
        chunk.header.flags = IPC_FLAG_FILE | IPC_FLAG_NEED_ACK;
        chunk.header.cmd = destroy;
        const size_t before = w.event.sends.size();
        receive(ipc, chunk);
        EXPECT_EQ(sent_before_, before);
        ASSERT_EQ(w.event.sends.size(), before + !destroy);
        if (destroy) continue;
        receive(ipc, chunk); // once more: it is complete
        EXPECT_EQ(sent(before).payload, bytes_of(0));
        EXPECT_EQ(sent(before + 1).payload, bytes_of(-108));
        close(ipc);
    }
    EXPECT_EQ(received_.size(), 2u);
}

} // namespace
