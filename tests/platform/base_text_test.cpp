// Bounded strings, encodings, INI files and the log.
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tavbase.h"
#include "temp_dir.h"

using namespace std::string_literals;

TEST(Strings, AreBoundedAndFound) {
    char out[8] = "???????";
    EXPECT_EQ(str_snprintf(out, 4, "%d", 123456), 3);
    EXPECT_EQ(str_strlcpy(out + 4, "abcdef", 3), 6u);
    EXPECT_EQ(str_strlcpy(out, "xyz", 0), 3u);
    EXPECT_EQ(std::string(out, 8), "123\0ab\0\0"s);
    EXPECT_EQ(str_snprintf(nullptr, 0, "%s", "ab"), 0);
    const auto find = [](const std::string &needle, int start) {
        return str_find(needle.data(), static_cast<int>(needle.size()), "abab", 4, start);
    };
    EXPECT_EQ(find("b", 2), 3);
    EXPECT_EQ(find("", 4), 4);
    EXPECT_EQ(find("\0a"s, 0), -1);
    for (const int start : {-1, 3, 5}) EXPECT_EQ(find("ab", start), -1);
}

// Decodes into the smallest buffer that is accepted. Returns "-" if none is.
std::string decode(const std::string &text) {
    for (int size = 0; size < 2200; ++size) {
        std::vector<unsigned char> buffer(static_cast<size_t>(size) + 1, '#');
        const int length = Base64_Decode(text.data(), static_cast<int>(text.size()), buffer.data(), size);
        EXPECT_EQ(buffer.back(), '#') << text;
        if (length == size) return std::string(buffer.begin(), buffer.end() - 1);
    }
    return "-";
}

TEST(Encodings, CrcHexAndBase64) {
    EXPECT_EQ(orlask_crc32("123456789", 9), 0xCBF43926u);
    const unsigned char bytes[] = {0x00, 0x9F, 0xAB, 0xFF};
    char out[9] = "########";
    EXPECT_EQ(Hex_Encode_Lower(bytes, 4, out, 7), -1);
    EXPECT_EQ(Hex_Encode_Lower(bytes, INT_MAX, out, INT_MAX), -1);
    EXPECT_EQ(Hex_Encode_Lower(bytes, 3, out, 6), 6);
    EXPECT_STREQ(out, "009fab##");
    EXPECT_EQ(decode("\n"), "");
    EXPECT_EQ(decode("QQ==\r\n"), "A");
    EXPECT_EQ(decode("QUJDREU="), "ABCDE");
    for (const char *text : {"Q===", "QQ=Q", "QQ", "QQ==QUJD", "QUJD\nQUJD", " QUJD", "QU-_", "QUJ\xC3"})
        EXPECT_EQ(decode(text), "-") << text;
    EXPECT_EQ(decode(std::string(2800, 'A')), std::string(2100, '\0')); // several blocks
}

// Returns the values of an INI file at these places ("section/key") and what has not been used, or the errno
// of its loading.
std::string read(const std::string &path, std::initializer_list<std::string> places = {}) {
    const std::shared_ptr<ini_file_t> file(ini_file_load(path.c_str()), ini_file_free);
    if (!file) return strerrorname_np(errno);
    std::string values;
    for (const std::string &place : places) {
        const size_t slash = place.find('/');
        const char *value = ini_file_get(file.get(), place.substr(0, slash).c_str(), &place[slash + 1]);
        values += (value ? value : "-") + "|"s;
    }
    while (const char *unused = ini_file_next_unused(file.get())) values += unused;
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
        "0|a b;c # d|7||upper|other|-|3|" + value +
            "|-|-|-|1|[\x01] big[\x01] nameline 14a second [ipc] addra second [ipc] addr");
    EXPECT_EQ(read(dir.write("a", "k=1\n\n[a]\nk=1\nl=1\nk=2\n[b"), {"a/k"}),
              "1|[] k[a] lline 7a second [a] k");
    EXPECT_EQ(read(dir.write("a", "\n" + big + "\n\nno separator\n")), "line 2");
}

TEST(Ini, OddFilesFailWithTheirErrno) {
    const TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0); // whose writer is not waited for
    EXPECT_EQ(read(dir / "missing") + read(dir / ".") + read(dir / "fifo") + read("/dev/zero"),
              "ENOENTEISDIREINVALEINVAL");
    EXPECT_EQ(read(dir.write("a", std::string((1 << 20) + 1, '\n'))), "EFBIG");
    EXPECT_EQ(read(dir.write("a", std::string((1 << 20) - 4, '\n') + "k=1\n"), {"/k"}), "1|");
}

TEST(Log, ThresholdComesFromTheEnvironmentOrIsOne) {
    const auto count_levels = [](const char *threshold) {
        setenv("TAV_LOG_LEVEL", threshold, 1);
        int level = 0;
        while (error_output_check(level)) ++level;
        _exit(level);
    };
    for (const auto &[text, count] : {std::pair{"", 2}, {"3", 4}, {"-1", 0}, {"9", 5}, {"3x", 2}})
        EXPECT_EXIT(count_levels(text), testing::ExitedWithCode(count), "") << text;
}

TEST(Log, SinkGetsOneLineAtATimeCutOnACharacter) {
    std::vector<std::string> texts;
    const auto keep = [](int, const char *, int, const char *text, void *to) {
        EXPECT_EQ(error_output_in_sink(), 1);
        static_cast<std::vector<std::string> *>(to)->emplace_back(text);
    };
    error_output_set_sink(keep, &texts);
    error_output(4, "x", 1, "a\nb\x1B[m\tc\n");
    std::string umlauts;
    while (umlauts.size() < 10'000) umlauts += "\xC3\xA4";
    for (const char *shift : {"", "."}) error_output(1, "x", 1, "%s%s", shift, umlauts.c_str());
    const auto flood = [] {
        for (int i = 0; i < 5000; ++i) error_output(1, "x", i, "line %d", i);
    };
    for (std::jthread threads[4]; auto &thread : threads) thread = std::jthread(flood);
    error_output_set_sink(nullptr, nullptr);
    EXPECT_EQ(error_output_in_sink(), 0);
    ASSERT_EQ(texts.size(), 20003u);
    EXPECT_EQ(texts[0], "a?b?[m\tc");
    for (const int cut : {1, 2}) EXPECT_TRUE(texts[cut].ends_with("\xC3\xA4...")) << cut;
}

TEST(Log, WithoutASinkALineIsOneWriteThatAPipeTakesWhole) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_DIRECT), 0); // gives each write to a read of its own
    const int kept = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    const auto leave = [](int, const char *, int, const char *, void *) {
        error_output(1, "sink", 1, "inside");
        error_output_set_sink(nullptr, nullptr);
    };
    error_output_set_sink(leave, nullptr);
    error_output(1, "x", 1, "taken");
    error_output(2, "ipc_queue", 12, "%s\n", std::string(5000, 'a').c_str());
    for (const int fd : {STDERR_FILENO, ends[1]}) close(fd);
    errno = 33;
    error_output(2, "x", 1, "nowhere to go");
    EXPECT_EQ(errno, 33);
    dup2(kept, STDERR_FILENO);
    for (const char *expected : {"1 sink:1 .[0-9]+. inside\n", "2 ipc_queue:12 .[0-9]+. a{3000,}[.]{3}\n"}) {
        char line[PIPE_BUF + 1] = "";
        EXPECT_GT(::read(ends[0], line, sizeof line), 0);
        EXPECT_THAT(line, testing::MatchesRegex("[0-9-]{10} [0-9:]{8}[.][0-9]{3}Z L"s + expected));
    }
}
