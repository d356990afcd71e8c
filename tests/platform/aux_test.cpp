// Deployment facts. They are read once per process, so each case asks in a child of its own.
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tavaux.h"
#include "tavbase.h"
#include "temp_dir.h"

namespace {

std::string g_base; // what "@" stands for

void with_config(const std::string &text, const std::function<void()> &checks) {
    const TempDir dir;
    for (const char *part : {"bin", "config"}) std::filesystem::create_directory(dir / part);
    if (!text.empty()) dir.write("config/agent.ini", text);
    const pid_t pid = fork();
    if (pid == 0) {
        g_base = dir / "bin";
        checks();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << text;
}

TEST(Deployment, DefaultsWithoutFileOrKeysOrWithSenselessNumbers) {
    for (const char *text :
         {"", "[agent]\ndeploy_type =\n", "[agent]\nlocation = 5x\ncnapp = yes\nhostid = -1\n",
          "[agent]\nlocation = 99999999999\nhostid = 4294967296\n"})
        with_config(text, [] {
            EXPECT_EQ(tav_get_location(), 1);
            EXPECT_STREQ(tav_location_name(7), "7");
            EXPECT_STREQ(tav_location_name(-2), "-2");
            EXPECT_EQ(GetDeployTypeStr(), nullptr);
            EXPECT_EQ(IsCNAPPAgent(), 0);
            EXPECT_EQ(get_hostid(), 0u);
            char type[6];
            EXPECT_EQ(GetAgentType(type, sizeof type), 5);
            EXPECT_STREQ(type, "linux");
        });
}

TEST(Deployment, FactsOfTheFile) {
    with_config("[agent]\nlocation = 4\ndeploy_type = tmp/demo\nagent_type = container\ncnapp = 1\n"
                "hostid = 4294967295\n[locations]\n4 = cloud\n",
                [] {
                    EXPECT_EQ(tav_get_location(), 4);
                    EXPECT_STREQ(tav_location_name(4), "cloud");
                    EXPECT_STREQ(tav_location_name(5), "5");
                    EXPECT_STREQ(GetDeployTypeStr(), "tmp/demo");
                    EXPECT_NE(IsCNAPPAgent(), 0);
                    EXPECT_EQ(get_hostid(), 4294967295u);
                    char type[12] = "###########";
                    EXPECT_EQ(GetAgentType(type, 9), -1);
                    EXPECT_EQ(GetAgentType(type, 10), 9);
                    EXPECT_EQ(std::string(type, 12), std::string("container\0#\0", 12));
                });
}

TEST(Deployment, DeployTypeStaysBelowVar) {
    const std::string longest(64, 'd');
    for (const std::string &bad : {std::string("/tmp"), std::string("a/../../etc"), longest + "d"})
        with_config("[agent]\ndeploy_type = " + bad, [] { EXPECT_EQ(GetDeployTypeStr(), nullptr); });
    with_config("[agent]\nagent_type =\ndeploy_type = " + longest, [&] {
        EXPECT_EQ(GetDeployTypeStr(), longest);
        char type[32];
        EXPECT_EQ(GetAgentType(type, sizeof type), -1);
    });
}

TEST(Deployment, FirstUseByManyThreadsGivesTheSameConstants) {
    with_config("[agent]\ndeploy_type = one\n", [] {
        std::vector<std::pair<const char *, const char *>> answers(8);
        std::vector<std::jthread> threads;
        for (auto &answer : answers)
            threads.emplace_back([&answer] { answer = {GetDeployTypeStr(), tav_location_name(9)}; });
        threads.clear();
        std::filesystem::remove(g_base + "/../config/agent.ini");
        for (const auto &answer : answers)
            EXPECT_EQ(answer, std::pair(GetDeployTypeStr(), tav_location_name(9)));
        EXPECT_STREQ(GetDeployTypeStr(), "one");
    });
}

} // namespace

// In place of the base library's: the library under test asks for its file through this symbol.
int dirutils_path_transform(const char *path_template, char *out, int size) noexcept {
    return snprintf(out, static_cast<size_t>(size), "%s%s", g_base.c_str(), path_template + 1) < size ? 0
                                                                                                      : -1;
}
