// The header of a datagram, and the lines that trace it.
#include "ipc/msg_trace.h"

#include <sys/syscall.h>

#include "fakes.h"
#include "ipc/wire.h"

using namespace tavipc;

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
    TraceTest() { reset_msg_trace(), looks = 0; }
};

TEST_F(TraceTest, LineDescribesTheHeader) {
    w.clock.loop_ms = 5000;
    tav_ipc_hdr_st header{
        {4000000000u, "beta", 3, 8}, {17, "012345678", 2, 0x80}, 21, 0x241, 0xF, 42, 100, 64100, {}, 77, 0};
    header.src.name[9] = '9'; // no terminator
    set_fragment(header, 5);
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

TEST(Wire, CheckValueCoversTheNamesReqidCmdAndSizeAlone) {
    alignas(8) unsigned char bytes[kHeaderSize + 1]; // the header has any alignment
    const auto *unaligned = reinterpret_cast<const tav_ipc_hdr_st *>(bytes + 1);
    const tav_ipc_hdr_st ended{{0, "beta\0xxxx", 0, 0}, {0, "alpha", 0, 0}, 1, 0, 0, 2, 3, 0, {}, 0, 0};
    EXPECT_EQ(tav_ipc_hdr_magic(&ended), 0xBD7EBA4F);
    tav_ipc_hdr_st full{{}, {}, 1, 0, 0, 0, 4, 0, {}, 0, 0}; // names without a terminator
    std::memcpy(full.src.name, "ABCDEFGHIJ", 10);
    std::memcpy(full.dest.name, "abcdefghij", 10);
    std::memcpy(bytes + 1, &full, sizeof full);
    EXPECT_EQ(tav_ipc_hdr_magic(unaligned), 0x1C468F0C);
    const char *covered = "....xxxxxxxxxx......xxxxxxxxxx..xxxx....xxxxxxxx............";
    for (size_t i = 0; i < kHeaderSize; ++i) {
        bytes[1 + i] ^= 0xFF;
        EXPECT_EQ(tav_ipc_hdr_magic(unaligned) != 0x1C468F0C, covered[i] == 'x') << "byte " << i;
        bytes[1 + i] ^= 0xFF;
    }
}

TEST(Wire, FragmentWordKeepsFiveBits) {
    tav_ipc_hdr_st header{};
    header.frag_word[1] = 0xFA;
    for (const auto &[sequence, word] : {std::pair{127, 0xF8FF}, {128, 0xF901}, {1022, 0xFFFD}}) {
        set_fragment(header, static_cast<uint16_t>(sequence));
        EXPECT_EQ(header.frag_word[0] | header.frag_word[1] << 8, word);
        EXPECT_EQ(fragment_sequence(header), sequence);
    }
}

TEST(Wire, AddressesCompareWithoutTheirFlags) {
    const tav_addr_st made{5, "123456789", 7, ADDR_FLAG_TEMP};
    const tav_addr_st others[] = {
        {5, "123456789", 7, 0}, {5, "12345678", 7, 0}, {6, "123456789", 7, 0}, {5, "123456789", 8, 0}};
    for (const auto &other : others) EXPECT_EQ(tav_addr_cmp(&made, &other), &other == others ? 0 : -1);
    EXPECT_EQ(tav_addr_create("1234567890", 1, 0), nullptr);
}
