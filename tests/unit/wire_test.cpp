#include "ipc/wire.h"

#include <gtest/gtest.h>

using namespace tavipc;

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
