#include "ipc/wire.h"

#include "fakes.h"
#include "ipc/out_of_memory.h"

using namespace tavipc;
using Wire = FakeWorld;

static tav_ipc_hdr_st make_header(std::string_view src, std::string_view dest, uint32_t reqid, uint32_t cmd,
                                  uint32_t size) {
    tav_ipc_hdr_st header{{}, {}, reqid, 0, 0, cmd, size, 0, {}, 0, 0};
    memcpy(header.src.name, src.data(), src.size());
    memcpy(header.dest.name, dest.data(), dest.size());
    return header;
}

TEST_F(Wire, CheckValueCoversTheNamesReqidCmdAndSizeAlone) {
    const std::pair<tav_ipc_hdr_st, uint32_t> known[] = {
        {make_header("alpha", {"beta\0x", 6}, 1, 2, 3), 0xBD7EBA4F},
        {make_header("", "", 0, 0, 0), 0x19D699A5},
        {make_header(std::string(9, '\xFF'), std::string(9, '\x80'), 7, 9, 11), 0x51E2A7DF},
        {make_header("ABCDEFGHIJ", "abcdefghij", 1, 0, 4), 0x1C468F0C},
    };
    for (const auto &[header, magic] : known) EXPECT_EQ(tav_ipc_hdr_magic(&header), magic);
    for (size_t i = 0; i < kHeaderSize; ++i) {
        tav_ipc_hdr_st changed = known[3].first;
        reinterpret_cast<unsigned char *>(&changed)[i] ^= 0xFF;
        const bool name = (i >= 4 && i < 14) || (i >= 20 && i < 30);
        const bool covered = name || (i >= 32 && i < 36) || (i >= 40 && i < 48);
        EXPECT_EQ(tav_ipc_hdr_magic(&changed) != known[3].second, covered) << "byte " << i;
    }
}

TEST_F(Wire, FragmentWordBytes) {
    const uint16_t cases[][3] = {{0, 0, 0x0001},   {127, 0, 0x00FF},  {128, 0, 0x0101},
                                 {511, 0, 0x03FF}, {1022, 0, 0x07FD}, {300, 0xF8, 0xFA59}};
    for (const auto &[sequence, byte53, word] : cases) {
        tav_ipc_hdr_st header{};
        header.frag_word[1] = static_cast<uint8_t>(byte53);
        set_fragment(header, sequence);
        EXPECT_EQ(header.frag_word[0] | header.frag_word[1] << 8, word);
        EXPECT_EQ(fragment_sequence(header), sequence);
    }
}

TEST_F(Wire, Addresses) {
    tav_addr_st *made = tav_addr_create2("123456789", 7, 5, ADDR_FLAG_TEMP);
    const tav_addr_st bytes{5, "123456789", 7, ADDR_FLAG_TEMP};
    EXPECT_EQ(memcmp(made, &bytes, sizeof bytes), 0);
    EXPECT_EQ(tav_addr_create("1234567890", 1, 0), nullptr);
    const tav_addr_st others[] = {
        {5, "123456789", 7, 0}, {5, "12345678", 7, 0}, {6, "123456789", 7, 0}, {5, "123456789", 8, 0}};
    for (const auto &other : others) EXPECT_EQ(tav_addr_cmp(made, &other), &other == others ? 0 : -1);
    tav_addr_destroy(made);
}

TEST_F(Wire, ShortMemoryEndsTheProcessInGoodOrder) {
    const auto show_log = [] { fputs(fake::world().log.lines.at(0).text.c_str(), stderr); };
    EXPECT_EXIT((std::atexit(show_log), out_of_memory("tav_ipc", 1)), testing::ExitedWithCode(0),
                "^Out of memory\n$");
}
