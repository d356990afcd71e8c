#include <cerrno>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tavbase.h"

namespace {

using Texts = std::vector<std::string>;

class LogTest : public ::testing::Test {
  protected:
    LogTest() {
        const auto keep = [](int, const char *, int, const char *text, void *context) {
            static_cast<Texts *>(context)->emplace_back(text);
        };
        error_output_set_sink(keep, &texts);
    }
    ~LogTest() override { error_output_set_sink(nullptr, nullptr); }
    Texts texts;
};

TEST_F(LogTest, ThresholdComesFromTheEnvironmentOrIsOne) {
    const std::pair<const char *, int> cases[] = {{"", 1},  {"3", 3},   {"-1", -1},
                                                  {"9", 4}, {"two", 1}, {"3x", 1}};
    for (const auto &[text, threshold] : cases)
        EXPECT_EXIT(
            {
                setenv("TAV_LOG_LEVEL", text, 1);
                bool right = true;
                for (int level = 0; level <= 4; ++level)
                    right = right && (error_output_check(level) != 0) == (level <= threshold);
                _exit(right ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), "")
            << text;
}

TEST_F(LogTest, TextIsOneLineCutOnACharacter) {
    error_output(4, "x", 1, "end\n");
    error_output(1, "x", 1, "a\nb\x1B[m\tc");
    std::string umlauts;
    while (umlauts.size() < 10'000) umlauts += "\xC3\xA4";
    for (const char *shift : {"", "."}) error_output(1, "x", 1, "%s%s", shift, umlauts.c_str());
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0], "end");
    EXPECT_EQ(texts[1], "a?b?[m\tc");
    for (size_t i : {2u, 3u}) EXPECT_TRUE(texts[i].ends_with("\xC3\xA4..."));
}

TEST_F(LogTest, SinkIsCalledOneAtATimeAndMayLogItself) {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 500; ++i) error_output(1, "x", i, "line %d", i);
        });
    threads.clear();
    EXPECT_EQ(texts.size(), 2000u);

    const auto leaving = [](int, const char *, int, const char *, void *) {
        error_output(1, "sink", 1, "from the sink");
        error_output_set_sink(nullptr, nullptr);
    };
    error_output_set_sink(leaving, nullptr);
    ::testing::internal::CaptureStderr();
    for (const char *text : {"taken", "after"}) error_output(1, "x", 1, "%s", text);
    const std::string output = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(output.find("from the sink\n"), output.npos);
    EXPECT_NE(output.find("after\n"), output.npos);
    EXPECT_EQ(output.find("taken"), output.npos);
}

TEST(LogStderr, LineIsOneWriteThatAPipeTakesWhole) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_DIRECT), 0); // gives each write to a read of its own
    const int kept = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    error_output(2, "ipc_queue", 12, "%s\n", std::string(5000, 'a').c_str());
    close(STDERR_FILENO);
    errno = 33;
    error_output(2, "x", 1, "nowhere to go");
    const int error = errno;
    dup2(kept, STDERR_FILENO);
    EXPECT_EQ(error, 33);
    char line[PIPE_BUF + 1];
    const ssize_t length = read(ends[0], line, sizeof line);
    for (const int fd : {ends[0], ends[1], kept}) close(fd);
    ASSERT_GT(length, 3000);
    EXPECT_THAT(
        std::string(line, static_cast<size_t>(length)),
        ::testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}Z L2 "
                                "ipc_queue:12 .[0-9]+. a+[.]{3}\n"));
}

} // namespace
