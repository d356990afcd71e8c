// Bounded strings, encodings and INI files.
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "tavbase.h"
#include "temp_dir.h"

namespace {

using namespace std::string_literals;

TEST(Strings, AreBoundedAndFound) {
    char out[8] = "???????";
    EXPECT_EQ(str_snprintf(out, 4, "%d", 123456), 3);
    EXPECT_EQ(str_strlcpy(out + 4, "abcdef", 3), 6u);
    EXPECT_EQ(str_strlcpy(out, "xyz", 0), 3u);
    EXPECT_EQ(std::string(out, 8), "123\0ab\0\0"s);
    EXPECT_EQ(str_snprintf(nullptr, 0, "%s", "ab"), 0);
    for (const auto &[needle, start, found] : {std::tuple{"b"s, 2, 3},
                                               {"\0a"s, 0, -1},
                                               {"", 4, 4},
                                               {"c", 0, -1},
                                               {"ab", 3, -1},
                                               {"a", 5, -1},
                                               {"a", -1, -1},
                                               {"abab", 0, 0}})
        EXPECT_EQ(str_find(needle.data(), static_cast<int>(needle.size()), "abab", 4, start), found)
            << needle;
}

TEST(Encodings, CrcHexAndBase64) {
    EXPECT_EQ(orlask_crc32("123456789", 9), 0xCBF43926u);
    const unsigned char bytes[] = {0x00, 0x9F, 0xAB, 0xFF};
    char out[9] = "########";
    EXPECT_EQ(Hex_Encode_Lower(bytes, 4, out, 7), -1);
    EXPECT_EQ(Hex_Encode_Lower(bytes, INT_MAX, out, INT_MAX), -1);
    EXPECT_EQ(Hex_Encode_Lower(bytes, 3, out, 6), 6);
    EXPECT_STREQ(out, "009fab##");
    const auto decode = [](const std::string &text) { // into the smallest buffer that it accepts
        for (int size = 0; size < 2200; ++size) {
            std::vector<unsigned char> buffer(static_cast<size_t>(size) + 1, '#');
            const int length = Base64_Decode(text.data(), static_cast<int>(text.size()), buffer.data(), size);
            EXPECT_EQ(buffer.back(), '#') << text;
            if (length == size) return std::string(buffer.begin(), buffer.end() - 1);
        }
        return "-"s;
    };
    std::string all;
    for (const char *text : {"", "\n", "QUJD", "QUI=", "QQ==\r\n", "QUJDREU=", "Q===", "====", "QQ=Q", "QQ",
                             "QQ==QUJD", "QUJD\nQUJD", " QUJD", "QU-_", "QUJ\xC3"})
        all += decode(text) + "|";
    EXPECT_EQ(all, "||ABC|AB|A|ABCDE|-|-|-|-|-|-|-|-|-|");
    EXPECT_EQ(decode(std::string(2800, 'A')), std::string(2100, '\0')); // several blocks
}

// Returns the values of an INI file at these places ("section/key"), or the errno of its loading.
std::string read(const std::string &path, std::initializer_list<std::string> places = {}) {
    const std::shared_ptr<ini_file_t> file(ini_file_load(path.c_str()), ini_file_free);
    if (!file) return strerrorname_np(errno);
    std::string values;
    for (const std::string &place : places) {
        const size_t slash = place.find('/');
        const char *value = ini_file_get(file.get(), place.substr(0, slash).c_str(), &place[slash + 1]);
        values += (value ? value : "-") + "|"s;
    }
    return values;
}

TEST(Ini, KeepsValuesAndSkipsOtherLinesWhole) {
    const TempDir dir;
    const std::string value(2000, 'v'), big(9000, 'x'), name(60, 'n');
    dir.write("a", "\xEF\xBB\xBF# head\r\ntop=0\r\n[ipc]\r\n; remark\r\n  addr \t=  a b;c # d \t\r\n"
                   "\tport = 7 ; why\r\nempty =\r\nADDR = upper\r\naddr = again\r\n[IPC]\r\naddr = other\r\n"
                   "[ipc]\r\naddr = late\r\nno separator\n" +
                       big + "k = 1\nk = 2\0z\n"s + "k = 3\nlong = " + value + "\n[" + big + "]\nbig = 1\n[" +
                       name + "]\nname = 1\n[a]\nend = 1");
    EXPECT_EQ(
        read(dir / "a", {"/top", "ipc/addr", "ipc/port", "ipc/empty", "ipc/ADDR", "IPC/addr", "IPC/k",
                         "ipc/k", "ipc/long", "ipc/big", "ipc/name", name.substr(0, 49) + "/name", "a/end"}),
        "0|a b;c # d|7||upper|other|-|3|" + value + "|-|-|-|1|");
}

TEST(Ini, OddFilesFailWithTheirErrno) {
    const TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0); // whose writer is not waited for
    EXPECT_EQ(read(dir / "missing") + read(dir / ".") + read(dir / "fifo") + read("/dev/zero"),
              "ENOENTEISDIREINVALEINVAL");
    EXPECT_EQ(read(dir.write("a", std::string((1 << 20) + 1, '\n'))), "EFBIG");
    EXPECT_EQ(read(dir.write("a", std::string((1 << 20) - 4, '\n') + "k=1\n"), {"/k"}), "1|");
}

} // namespace
