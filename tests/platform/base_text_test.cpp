// Bounded strings, encodings and INI files.
#include <cerrno>
#include <climits>
#include <memory>
#include <string>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "tavbase.h"
#include "temp_dir.h"

namespace {

TEST(Strings, BoundedWritersTellWhatTheyStore) {
    char buffer[8] = "???????";
    EXPECT_EQ(str_snprintf(buffer, 4, "%d", 123456), 3);
    EXPECT_EQ(std::string(buffer, 8), std::string("123\0???\0", 8));
    EXPECT_EQ(str_snprintf(buffer, 1, "%s", "ab"), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(str_snprintf(nullptr, 0, "%s", "ab"), 0);
    EXPECT_EQ(str_strlcpy(buffer, "abcdef", 4), 6u);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(str_strlcpy(buffer, "xyz", 0), 3u);
    EXPECT_STREQ(buffer, "abc");
}

TEST(Strings, Find) {
    const struct {
        std::string needle, haystack;
        int start, position;
    } cases[] = {{"127.0.0.1", "127.0.0.1", 0, 0},
                 {"b", "abab", 2, 3},
                 {"abc", "ab", 0, -1},
                 {{"\0b", 2}, {"a\0b", 3}, 0, 1},
                 {"", "ab", 2, 2},
                 {"a", "ab", 3, -1},
                 {"a", "ab", -1, -1},
                 {"b", "ab", 0, 1},
                 {"a", "ab", 1, -1}};
    for (const auto &c : cases)
        EXPECT_EQ(str_find(c.needle.data(), static_cast<int>(c.needle.size()), c.haystack.data(),
                           static_cast<int>(c.haystack.size()), c.start),
                  c.position)
            << c.needle << " in " << c.haystack << " from " << c.start;
    EXPECT_EQ(str_find("a", -1, "ab", 2, 0), -1);
    EXPECT_EQ(str_find("b", 1, "ab", 1, 0), -1); // nothing behind the given length
}

TEST(Encodings, Crc32AndHexKnownAnswers) {
    EXPECT_EQ(orlask_crc32("123456789", 9), 0xCBF43926u);
    EXPECT_EQ(orlask_crc32("123", 3), 2286445522u);
    EXPECT_EQ(orlask_crc32("1", 1), 2212294583u);
    const unsigned char bytes[] = {0x00, 0x9F, 0xAB, 0xFF};
    char out[9] = "########";
    EXPECT_EQ(Hex_Encode_Lower(bytes, 4, out, 7), -1);
    EXPECT_EQ(Hex_Encode_Lower(bytes, INT_MAX, out, INT_MAX), -1);
    EXPECT_STREQ(out, "########");
    EXPECT_EQ(Hex_Encode_Lower(bytes, 3, out, 6), 6);
    EXPECT_STREQ(out, "009fab##");
}

TEST(Encodings, Base64WithinItsBounds) {
    const std::string long_text(4 * 700, 'A'); // several blocks
    const struct {
        std::string text;
        int out_max, result;
        std::string bytes;
    } cases[] = {
        {"", 0, 0, ""},
        {"\n", 0, 0, ""},
        {"QUJD", 3, 3, "ABC"},
        {"QUJD", 2, -1, ""},
        {"QUI=", 2, 2, "AB"},
        {"QUI=", 1, -1, ""},
        {"QQ==\r\n", 1, 1, "A"},
        {"QQ==", 0, -1, ""},
        {"QUJDREU=", 5, 5, "ABCDE"},
        {"Q===", 9, -1, ""},
        {"====", 9, -1, ""},
        {"QQ=Q", 9, -1, ""},
        {"QQ", 9, -1, ""},
        {"QQ==QUJD", 9, -1, ""},
        {"QUJD\nQUJD", 9, -1, ""},
        {" QUJD", 9, -1, ""},
        {"QU-_", 9, -1, ""},
        {"QUJ\xC3", 9, -1, ""},
        {long_text, 2099, -1, ""},
        {long_text, 2100, 2100, std::string(2100, '\0')},
    };
    for (const auto &c : cases) {
        std::string out(static_cast<size_t>(c.out_max) + 8, '#');
        EXPECT_EQ(Base64_Decode(c.text.data(), static_cast<int>(c.text.size()),
                                reinterpret_cast<unsigned char *>(out.data()), c.out_max),
                  c.result)
            << c.text;
        EXPECT_EQ(out.substr(static_cast<size_t>(c.out_max)), "########") << c.text;
        if (c.result > 0) {
            EXPECT_EQ(out.substr(0, c.bytes.size()), c.bytes);
        }
    }
}

class IniTest : public ::testing::Test {
  protected:
    void load(std::string_view text) {
        file.reset(ini_file_load(dir.write("a.ini", text).c_str()));
        ASSERT_NE(file, nullptr);
    }
    std::string get(const char *section, const char *key) const {
        const char *value = ini_file_get(file.get(), section, key);
        return value ? value : "(none)";
    }
    static int load_error(const std::string &path) {
        errno = 0;
        EXPECT_EQ(ini_file_load(path.c_str()), nullptr);
        return errno;
    }

    TempDir dir;
    std::unique_ptr<ini_file_t, decltype(&ini_file_free)> file{nullptr, ini_file_free};
};

TEST_F(IniTest, ReadsSectionsKeysCommentsAndBlanks) {
    load(
        "\xEF\xBB\xBF# head\r\ntop=0\r\n[ipc]\r\n; remark\r\n  addr \t=  a b;c # d \t\r\n\tport = 7 ; why\r\n"
        "empty =\r\nADDR = upper\r\naddr = again\r\n[IPC]\r\naddr = other\r\n[ipc]\r\naddr = late\r\nlast = "
        "end");
    const char *const expected[][3] = {
        {"", "top", "0"},       {"ipc", "addr", "a b;c # d"}, {"ipc", "port", "7"},
        {"ipc", "empty", ""},   {"ipc", "ADDR", "upper"},     {"IPC", "addr", "other"},
        {"ipc", "last", "end"}, {"IPC", "last", "(none)"},    {"ipca", "ddr", "(none)"}};
    errno = 77;
    for (const auto &[section, key, value] : expected) EXPECT_EQ(get(section, key), value) << section << key;
    EXPECT_EQ(errno, 77);
}

TEST_F(IniTest, LinesThatAreNoIniAreSkippedWhole) {
    using namespace std::string_literals;
    const std::string long_value(2000, 'v'), too_long(9000, 'x'), long_name(60, 'n');
    load("[a]\nno separator\n" + too_long + "k = 1\nz\0k = 2\n"s + "k = 3\nlong = " + long_value + "\n[" +
         too_long + "]\nin_long = 1\n[" + long_name + "]\nin_name = 1\n[a]\nend = 1\n");
    EXPECT_EQ(get("a", "k"), "3");
    EXPECT_EQ(get("a", "long"), long_value);
    EXPECT_EQ(get("a", "in_long"), "(none)");
    EXPECT_EQ(get("a", "in_name"), "(none)");
    EXPECT_EQ(get(long_name.substr(0, 49).c_str(), "in_name"), "(none)");
    EXPECT_EQ(get("a", "end"), "1");
}

TEST_F(IniTest, OddFilesFailWithTheirErrno) {
    EXPECT_EQ(load_error(dir / "missing"), ENOENT);
    EXPECT_EQ(load_error(dir / "."), EISDIR);
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(load_error(dir / "fifo"), EINVAL); // and does not wait for a writer
    EXPECT_EQ(load_error("/dev/zero"), EINVAL);
    EXPECT_EQ(load_error(dir.write("large", std::string((1 << 20) + 1, '\n'))), EFBIG);
    load(std::string((1 << 20) - 4, '\n') + "k=1\n");
    EXPECT_EQ(get("", "k"), "1");
}

} // namespace
