#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tavbase.h"

namespace {

TEST(Log, ThresholdComesFromTheEnvironmentOrIsOne) {
    const auto count_levels = [](const char *threshold) {
        setenv("TAV_LOG_LEVEL", threshold, 1);
        int level = 0;
        while (error_output_check(level)) ++level;
        _exit(level);
    };
    for (const auto &[text, count] : {std::pair{"", 2}, {"3", 4}, {"-1", 0}, {"9", 5}, {"two", 2}, {"3x", 2}})
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
    for (const std::string expected :
         {"1 sink:1 .[0-9]+. inside\n", "2 ipc_queue:12 .[0-9]+. a{3000,}[.]{3}\n"}) {
        char line[PIPE_BUF + 1] = "";
        EXPECT_GT(read(ends[0], line, sizeof line), 0);
        EXPECT_THAT(line, testing::MatchesRegex("[0-9-]{10} [0-9:]{8}[.][0-9]{3}Z L" + expected));
    }
}

} // namespace
