#include "ipc/msg_trace.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fakes.h"
#include "ipc/wire.h"

static bool switch_exists;
static int looks;

// A stand-in for the switch file: the real one would switch on the traces of every program on the machine.
extern "C" int open(const char *path, int flags, ...) {
    if (strcmp(path, "/tmp/ipc_debug") != 0)
        return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0600));
    ++looks;
    return switch_exists && (flags & O_NONBLOCK) ? dup(0) : -1;
}

// The line about a header of any alignment.
static std::string trace(const tav_ipc_hdr_st &header, const std::string &text = "x") {
    alignas(8) char bytes[sizeof header + 1];
    std::memcpy(bytes + 1, &header, sizeof header);
    auto &lines = fake::world().log.lines;
    lines.assign(1, {});
    TAV_TRACE(reinterpret_cast<const tav_ipc_hdr_st *>(bytes + 1), "<%s>", text.c_str());
    return lines.back().source + lines.back().text;
}

struct TraceTest : FakeWorld {
    TraceTest() { tavipc::reset_msg_trace(), looks = 0; }
};

TEST_F(TraceTest, LineDescribesTheHeader) {
    w.clock.loop_ms = 5000;
    tav_ipc_hdr_st header{
        {4000000000u, "beta", 3, 8}, {17, "012345678", 2, 0x80}, 21, 0x241, 0xF, 42, 100, 64100, {}, 77, 0};
    header.src.name[9] = '9'; // no terminator
    tavipc::set_fragment(header, 5);
    const std::string line =
        "tav_ipc[MSG TRACE] [0123456789@17:loc2:80]->[beta@4000000000:loc3:8], reqid:21, flags:0x241, "
        "rflags: 0xf, frag:1:77:5, cmd: 42, size: 100(64100), <x>\n";
    EXPECT_EQ(trace(header), line) << "not stamped yet";
    header.magic = tav_ipc_hdr_magic(&header);
    EXPECT_EQ(trace(header), line) << "stamped";
    EXPECT_EQ(trace(header, std::string(5000, 'x')).size(), strlen("tav_ipc[MSG TRACE] ") + 1023 + 1);
    ++header.magic;
    EXPECT_EQ(trace(header), "tav_ipc[MSG TRACE] [Invalid message header] <x>\n");
}

TEST_F(TraceTest, SwitchFileIsLookedForAfterTenSeconds) {
    // Loop clock, does the file exist, looks so far, is a plain message traced. Once the clock goes back.
    const int steps[][4] = {
        {10'000, 1, 0, 0}, {10'001, 1, 1, 1}, {20'001, 0, 1, 1}, {5'000, 0, 1, 1}, {15'001, 0, 2, 0}};
    for (const auto &[now, exists, looked, traced] : steps) {
        w.clock.loop_ms = static_cast<uint64_t>(now);
        switch_exists = exists;
        EXPECT_EQ(!trace({}).empty(), traced) << now;
        EXPECT_EQ(looks, looked) << now;
    }
}
