// Whole files: the chunks that a sender sends and when it stops, and what a receiver keeps and for how long.
#include <atomic>
#include <thread>

#include <sys/wait.h>

#include "endpoint_world.h"
#include "ipc/ipc_file.h"
#include "temp_dir.h"

using testing::ElementsAre;
namespace fs = std::filesystem;

std::vector<int32_t> done;              // codes of finished transfers
std::vector<std::string> received;      // paths, each with the number of datagrams sent before
std::function<void(tav_ipc_st *)> then; // runs in the next callback
std::string directory;                  // where mkstemp creates its files, with a slash
int made;                               // how many
const char *device;                     // is opened in place of a file

std::string path_of(int number) { return directory + std::to_string(1'000'000 + number); }
int on_done(int32_t code, void *) {
    done.push_back(code);
    return -1;
}
std::vector<std::string> events; // of a transfer or a received file
void note(const std::string &text) {
    events.push_back(text);
    if (const auto action = std::exchange(then, nullptr)) action(nullptr);
}
void on_progress(uint64_t, uint64_t confirmed, uint64_t size, void *) {
    note(std::to_string(confirmed) + '/' + std::to_string(size));
}
void on_end(uint64_t, int32_t code, void *) { note(std::to_string(code)); }
template <char kKind> void on_event(tav_ipc_st *, const tav_ipc_file_st *file, void *) {
    note(kKind + std::string(file->src.name) + ' ' + file->name + ' ' + std::to_string(file->received) + '/' +
         std::to_string(static_cast<int64_t>(file->size)));
}
std::string announcement(uint32_t kind, uint64_t size, const std::string &name) {
    return "FILE" + bytes_of(kind) + bytes_of(size) + name;
}
int on_file(tav_ipc_st *ipc, const char *path, void *) {
    const size_t sent = fake::world().event.sends.size();
    if (const auto action = std::exchange(then, nullptr)) action(ipc);
    received.push_back(path + (" " + std::to_string(sent)));
    return -1;
}

rlim_t largest_file = RLIM_INFINITY; // that the process may write
extern "C" int getrlimit(__rlimit_resource_t which, rlimit *limit) noexcept {
    return limit->rlim_cur = which == RLIMIT_FSIZE ? largest_file : 80, 0;
}
extern "C" int mkstemp(char *path) {
    EXPECT_STREQ(path, "/tmp/ipc_file.XXXXXX");
    std::strcpy(path, path_of(++made).c_str());
    return device ? open(device, O_RDWR) : open(path, O_RDWR | O_CREAT | O_EXCL, 0600);
}

struct Files : EndpointWorld {
    Files() { done = {}, received = {}, events = {}, directory = place_ / "", made = 0, device = nullptr; }
    void TearDown() override {
        tavipc::reset_received_files();
        EndpointWorld::TearDown();
        EXPECT_EQ(descriptors(), descriptors_);
    }
    static ptrdiff_t descriptors() { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); }
    const ptrdiff_t descriptors_ = descriptors();
    const TempDir place_{"/tmp/tXXXXXX"}; // mkstemp's argument has room for twenty characters

    void append(size_t size) { std::ofstream(path_of(0), std::ios::app) << std::string(size, '+'); }
    void send_file(tav_ipc_st *ipc, const char *path = "/dev/null", const char *dest = "beta") {
        const tav_addr_st to = address(dest);
        tav_ipc_send_file(ipc, &to, path, on_done, this, 3);
    }
    uint64_t begin(tav_ipc_st *ipc, const char *name) {
        const tav_addr_st to = address("beta");
        return tav_ipc_file_start(ipc, &to, path_of(0).c_str(), name, 3000, 0, on_progress, on_end, this);
    }
    // A datagram of file 1. Returns the payload of its acknowledgement.
    std::string deliver(tav_ipc_st *ipc, uint16_t flag, const std::string &payload,
                        const char *src = "gamma") {
        const auto flags = static_cast<uint16_t>(flag | IPC_FLAG_NEED_ACK);
        receive(ipc, {"", {{}, address(src), 5, flags, 0, 1, 0, 0, {}, 0, 0}, payload});
        return sent(w.event.sends.size() - 1).payload;
    }
    tav_ipc_hdr_st last_sent() const { return sent(w.event.sends.size() - 1).header; }
    void acknowledge(tav_ipc_st *ipc, int32_t code) { answer(ipc, IPC_FLAG_ACK, bytes_of(code)); }
    int32_t save(const char *source, uint32_t file_id, const std::string &bytes, tav_ipc_st *ipc = nullptr) {
        const tav_addr_st src = address(source, 2, static_cast<uint8_t>(bytes.size())); // any flags
        return tav_ipc_save_file(ipc, &src, file_id, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    void sweep(time_t now_s) { w.clock.wall_s = now_s, w.event.advance(60'000); }
};

TEST_F(Files, IdsAreKnown) {
    w.random.draws = {7, 42, 144375, 2993, 927410, 7086};
    EXPECT_EQ(tav_ipc_get_random_file_id(4'000'000'000), 1231181790);
    EXPECT_EQ(tav_ipc_get_random_file_id(77), 0);
    EXPECT_EQ(tav_ipc_get_random_file_id(77), INT32_MAX); // this CRC has no positive counterpart
    const auto seed = static_cast<unsigned>(getpid()) ^ 1'700'000'000u ^ static_cast<unsigned>(getppid());
    EXPECT_THAT(w.random.seeds, ElementsAre(seed)); // once
}

TEST_F(Files, AnIdIsDrawnAgainWhileAReceiverMayKnowIt) {
    tav_ipc_st *ipc = open();
    const auto id_of_draws = [&](std::deque<int> draws) { // of the same second
        w.random.draws = std::move(draws);
        return send_file(ipc), last_sent().cmd;
    };
    const uint32_t first = id_of_draws({7, 42}), second = id_of_draws({7, 42, 7, 43});
    EXPECT_NE(second, first) << "outstanding";
    acknowledge(ipc, -107); // ends the second one
    w.event.advance(360'000);
    EXPECT_NE(id_of_draws({7, 43, 7, 44}), second) << "the receiver may still keep it";
    w.event.advance(60'000);
    EXPECT_EQ(id_of_draws({7, 43}), second) << "the receiver has removed it";
    for (int times = 0; times < 2; ++times) id_of_draws(std::deque<int>(2000, 7));
    EXPECT_EQ(done.back(), -106) << "every draw is the same";
}

TEST_F(Files, AForkedChildGetsIdsWhateverOtherThreadsDid) {
    std::atomic<bool> over = false;
    std::thread other([&] {
        while (!over) tavipc::end_file_id(tavipc::take_file_id(77));
    });
    int status = 0;
    for (int times = 0; times < 20 && status == 0; ++times) {
        const pid_t child = fork();
        if (child == 0) alarm(60), tavipc::take_file_id(77), _exit(0);
        waitpid(child, &status, 0);
    }
    over = true, other.join();
    EXPECT_EQ(status, 0);
}

TEST_F(Files, TravelInConfirmedChunksUntilTheirEnd) {
    tav_ipc_st *ipc = open();
    append(64'000);
    send_file(ipc, path_of(0).c_str());
    for (const size_t size : {64'000, 34, 1, 0}) { // to the end; 1: after it
        append(size);
        EXPECT_THAT(done, ElementsAre());
        acknowledge(ipc, 0);
    }
    EXPECT_THAT(done, ElementsAre(static_cast<int32_t>(last_sent().cmd)));
    const size_t sizes[] = {64'000, 64'000, 34, 0};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(sent(i).header.flags, IPC_FLAG_FILE | IPC_FLAG_NEED_ACK);
        EXPECT_EQ(sent(i).header.cmd, last_sent().cmd);
        EXPECT_EQ(sent(i).payload, std::string(sizes[i], '+'));
    }
}

TEST_F(Files, WhatCannotBeginEndsAtOnce) {
    tav_ipc_st *ipc = open();
    send_file(ipc, nullptr);
    send_file(nullptr);
    send_file(ipc, "/no/such/file");
    EXPECT_THAT(done, ElementsAre(-104, -101, -104));
    send_file(ipc, "/dev/null", "a/b"); // the send path refuses: reported later
    w.event.advance(1);
    EXPECT_THAT(done, ElementsAre(-104, -101, -104, -101));
}

TEST_F(Files, ChunksBecomeAFile) {
    EXPECT_EQ(tav_ipc_get_file_path(nullptr, 1), nullptr); // nothing was received yet
    const std::tuple<const char *, uint32_t, const char *, int32_t, int> steps[] = {
        {"gamma", 1, "abc", 0, 0}, {"delta", 1, "x", -106, 0}, {"gamma", ~0u, "", 0, 2},
        {"gamma", 1, "def", 0, 0}, {"gamma", 1, "", 0, 1},     {"gamma", 1, "", -108, 1}};
    for (const auto &[source, id, bytes, result, complete] : steps) {
        EXPECT_EQ(save(source, id, bytes), result);
        const char *path = tav_ipc_get_file_path(nullptr, id);
        EXPECT_EQ(path ? path : "", complete ? path_of(complete) : "");
    }
    EXPECT_EQ(fs::file_size(path_of(1)), 6u);
    for (const char *bad : {"/dev/full", "/no/such/file"})
        EXPECT_EQ((device = bad, save("gamma", 7, "x")), -107);
}

TEST_F(Files, KeepNoSpaceThatWasReservedAhead) {
    const std::string chunk(64'000, 'x');
    for (int i = 0; i < 40; ++i) ASSERT_EQ(save("gamma", 1, chunk), 0);
    struct stat open {
    }, complete{};
    ASSERT_EQ(stat(path_of(1).c_str(), &open), 0);
    ASSERT_EQ(save("gamma", 1, ""), 0);
    ASSERT_EQ(stat(path_of(1).c_str(), &complete), 0);
    EXPECT_EQ(open.st_size, 40 * 64'000);
    EXPECT_EQ(complete.st_size, 40 * 64'000);
    EXPECT_LE(complete.st_blocks * 512, 40 * 64'000 + 65'536); // a page
}

TEST_F(Files, NeverExceedTheSizeThatWouldEndTheProcess) {
    largest_file = 150'000;
    for (const int32_t result : {0, 0, -107}) EXPECT_EQ(save("gamma", 1, std::string(64'000, 'x')), result);
    largest_file = RLIM_INFINITY;
    EXPECT_EQ(fs::file_size(path_of(1)), 128'000u);
}

TEST_F(Files, PeersGetHalfOfTheDescriptors) {
    for (uint32_t id = 0; id < 50; ++id) EXPECT_EQ(save("gamma", id, "x"), id < 40 ? 0 : -107) << id;
    EXPECT_EQ(save("gamma", 3, ""), 0); // complete: needs no descriptor
    EXPECT_EQ(save("gamma", 100, "x"), 0);
    EXPECT_EQ(w.log.count("too many files are being received, another one is refused, 40 open", 2), 1);
}

TEST_F(Files, ThatWereTakenAwayDoNotCount) {
    for (const char *bytes : {"stays", ""}) save("gamma", 1, bytes);
    device = "/dev/null"; // the others do not exist on the disk
    for (uint32_t id = 2; id <= 65'537; ++id) ASSERT_EQ(save("gamma", id, ""), 0) << id;
    EXPECT_EQ(save("gamma", 1, ""), -108);
}

TEST_F(Files, SweepRemovesWhatIsOlderThan300Seconds) {
    const time_t begin_s = w.clock.wall_s;
    for (const uint32_t id : {1, 2, 3, 4}) save("gamma", id, "x");
    w.clock.wall_s += 200;
    for (const uint32_t id : {2, 3, 4}) save("gamma", id, id == 3 ? "x" : ""); // completion does not renew
    fs::rename(path_of(4), path_of(9));
    for (const time_t age_s : {300, 301, 501}) {
        sweep(begin_s + age_s);
        for (const int file : {1, 2, 3, 9})
            EXPECT_EQ(fs::exists(path_of(file)), file == 9 || age_s < (file == 3 ? 501 : 301)) << file;
    }
    EXPECT_EQ(tav_ipc_get_file_path(nullptr, 2), nullptr);
}

TEST_F(Files, SweepOutlivesItsLoop) {
    save("gamma", 1, "x");
    w.event.timers.clear(); // with the loop
    w.clock.loop_ms += 60'001, w.clock.wall_s += 301;
    const pid_t child = fork();
    if (child == 0) device = "/dev/null", save("gamma", 2, "x"), _exit(0);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(fs::exists(path_of(1))) << "a forked child removes none";
    save("gamma", 2, "x");
    EXPECT_FALSE(fs::exists(path_of(1))) << "the next chunk sweeps";
    w.event.timers.clear();
    adopt(tav_ipc_create_temp("alpha", 1)); // arms the timer without a chunk
    sweep(w.clock.wall_s + 301);
    EXPECT_FALSE(fs::exists(path_of(2)));
}

TEST_F(Files, CallbackRunsBeforeTheReplyAndMayDoAnything) {
    Datagram chunk{"", {}, ""};
    chunk.header.src = address("gamma");
    chunk.header.flags = IPC_FLAG_FILE | IPC_FLAG_NEED_ACK;
    tav_ipc_st *ipc = adopt(tav_ipc_create_temp("alpha", 1));
    tav_ipc_file_recv(ipc, on_file, nullptr);
    for (int times = 0; times < 2; ++times) receive(ipc, chunk);
    EXPECT_EQ(sent(0).payload + sent(1).payload, bytes_of(0) + bytes_of(-108));
    chunk.header.cmd = 1;
    then = [&](tav_ipc_st *own) { sweep(w.clock.wall_s + 301), close(own), open("alpha"); };
    receive(ipc, chunk);
    EXPECT_THAT(received, ElementsAre(path_of(1) + " 0", path_of(2) + " 2")) << "the path stays valid";
    EXPECT_EQ(w.event.sends.size(), 2u);
}

TEST_F(Files, WithANameAreAnnouncedAndReportProgress) {
    tav_ipc_st *ipc = open();
    append(64'034);
    for (const std::string &bad :
         std::vector<std::string>{"", "..", "a/b", "a\nb", "\x7f", std::string(256, 'a')})
        EXPECT_TRUE(begin(ipc, bad.c_str()) == 0 && errno == EINVAL) << bad;
    const uint64_t id = begin(ipc, "a \xc3\xa4");
    w.event.advance(3000); // not confirmed: the peer may not know announcements
    for (int chunk = 0; chunk < 3; ++chunk) acknowledge(ipc, 0);
    EXPECT_THAT(events, ElementsAre("64000/64034", "64034/64034", "0"));
    EXPECT_EQ(sent(0).header.flags, IPC_FLAG_PROBE | IPC_FLAG_NEED_ACK);
    EXPECT_EQ(sent(0).payload, announcement(1, 64'034, "a \xc3\xa4"));
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(sent(i).header.cmd, static_cast<uint32_t>(id));
    EXPECT_EQ(tav_ipc_file_cancel(ipc, id), -1) << "it has ended";
    begin(ipc, nullptr), acknowledge(ipc, -107); // without an announcement
    EXPECT_EQ(last_sent().flags, IPC_FLAG_FILE | IPC_FLAG_NEED_ACK);
    begin(ipc, "x");
    w.event.complete(w.event.sends.size() - 1, CL_EV_NO_PEER), w.event.advance(0);
    EXPECT_THAT(std::vector(events.begin() + 3, events.end()), ElementsAre("-107", "-114"));
}

TEST_F(Files, EndOnceWhereverTheyAreCancelled) {
    tav_ipc_st *ipc = open();
    append(200'000);
    uint64_t id = 0;
    const auto transfer = [&] {
        events = {}, id = begin(ipc, "x"), acknowledge(ipc, 0), acknowledge(ipc, 0);
        EXPECT_LE(std::count_if(events.begin(), events.end(), [](auto &e) { return e[0] == '-'; }), 1);
    };
    const std::function<void()> cancel = [&] { tav_ipc_file_cancel(ipc, id); },
                                reopen = [&] { close(std::exchange(ipc, nullptr)), ipc = open(); };
    transfer(), cancel();
    EXPECT_THAT(events, ElementsAre("64000/200000", "-113"));
    EXPECT_EQ(sent(w.event.sends.size() - 1).payload, announcement(2, UINT64_MAX, ""));
    for (const auto &[action, code] : {std::pair(cancel, "-113"), {reopen, "-103"}}) {
        reopen(), then = [&](auto) { action(); }, transfer();
        EXPECT_THAT(events, ElementsAre("64000/200000", code)) << "in the progress callback";
        EXPECT_GE(at_each_line(ipc, transfer, action), 4u); // of a log that each send writes
    }
}

TEST_F(Files, TellTheReceiverWhatTheyAre) {
    tav_ipc_st *ipc = adopt(tav_ipc_create_temp("alpha", 1)), *other = open("beta");
    tav_ipc_on_file(ipc, on_event<'='>, on_event<'+'>, nullptr);
    EXPECT_EQ(deliver(other, IPC_FLAG_PROBE, announcement(1, 9, "x")), bytes_of(-109));
    EXPECT_EQ(deliver(ipc, IPC_FLAG_PROBE, announcement(1, 5, "bad/name")), bytes_of(0));
    for (const char *chunk : {"abc", "de", ""}) deliver(ipc, IPC_FLAG_FILE, chunk);
    EXPECT_THAT(std::exchange(events, {}), ElementsAre("+gamma  3/5", "+gamma  5/5", "=gamma  5/5"));
    sweep(w.clock.wall_s + 301);
    deliver(ipc, IPC_FLAG_FILE, "x"); // announced late, and by a stranger
    EXPECT_EQ(deliver(ipc, IPC_FLAG_PROBE, announcement(1, 1, "evil"), "delta"), bytes_of(-106));
    EXPECT_EQ(deliver(ipc, IPC_FLAG_PROBE, announcement(1, 1, "good")), bytes_of(0));
    deliver(ipc, IPC_FLAG_PROBE, announcement(2, 0, ""), "delta"); // withdraws nothing
    then = [](auto) { EXPECT_EQ(tav_ipc_file_drop(1), 0); };
    for (const char *chunk : {"y", "z"}) EXPECT_EQ(deliver(ipc, IPC_FLAG_FILE, chunk), bytes_of(-108));
    EXPECT_EQ(tav_ipc_get_file_path(nullptr, 1), nullptr);
    EXPECT_THAT(events, ElementsAre("+gamma  1/-1", "+gamma good 2/1"));
    for (const uint32_t id : {2, 3}) save("gamma", id, "x");
    EXPECT_EQ(tav_ipc_file_drop_unfinished(), 2u);
    EXPECT_FALSE(fs::exists(path_of(made)));
}
