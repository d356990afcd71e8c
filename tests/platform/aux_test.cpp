// Deployment facts. They are read once per process, so each case asks in a child of its own.
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tavaux.h"
#include "tavbase.h"
#include "temp_dir.h"

static std::string g_base; // what "@" stands for

// In place of the base library's: the library under test asks for its file through this symbol.
int dirutils_path_transform(const char *path, char *out, int size) noexcept {
    return str_snprintf(out, static_cast<size_t>(size), "%s%s", g_base.c_str(), path + 1) > 0 ? 0 : -1;
}

// Exits with 0 if these are the facts, in the order of tavaux.h, whichever thread asks first.
void check_facts(const std::string &expected) {
    for (std::jthread threads[8]; auto &thread : threads)
        thread = std::jthread([] { EXPECT_STREQ(tav_location_name(-2), "-2"); });
    std::filesystem::remove(g_base + "/../config/agent.ini");
    char type[12] = "-";
    int size = 1; // the least that is enough for the type
    while (size < 12 && GetAgentType(type, size) < 0) ++size;
    const char *deploy_type = GetDeployTypeStr() ? GetDeployTypeStr() : "none";
    std::ostringstream facts;
    facts << tav_get_location() << ' ' << tav_location_name(4) << ' ' << deploy_type << ' ' << IsCNAPPAgent()
          << ' ' << get_hostid() << ' ' << type << ' ' << size;
    EXPECT_EQ(facts.str(), expected);
    exit(testing::Test::HasFailure());
}

// An empty text stands for a missing file.
void expect_facts(const std::string &ini, const std::string &expected) {
    const TempDir dir;
    for (const char *part : {"bin", "config"}) std::filesystem::create_directory(dir / part);
    if (!ini.empty()) dir.write("config/agent.ini", "[agent]\n" + ini);
    g_base = dir / "bin";
    EXPECT_EXIT(check_facts(expected), testing::ExitedWithCode(0), "") << ini;
}

TEST(Deployment, FactsOfTheFileOrDefaults) {
    const std::string longest(64, 'd');
    for (const std::string ini :
         {"", "location = 5x\ncnapp = yes\nhostid = -1\ndeploy_type =",
          "location = 99999999999\nhostid = 4294967296\ndeploy_type = /tmp", "deploy_type = a/../../etc"})
        expect_facts(ini, "1 4 none 0 0 linux 6");
    expect_facts("deploy_type = d" + longest, "1 4 none 0 0 linux 6");
    expect_facts("agent_type =\ndeploy_type = " + longest, "1 4 " + longest + " 0 0 - 12");
    expect_facts("location = 4\ndeploy_type = tmp/demo\nagent_type = container\ncnapp = 1\n"
                 "hostid = 4294967295\n[locations]\n4 = cloud\n",
                 "4 cloud tmp/demo 1 4294967295 container 10");
}

TEST(Deployment, AForkedChildNeedsNoLockOfAThreadThatItHasNot) {
    const std::jthread asking([](const std::stop_token &stop) {
        while (!stop.stop_requested()) tav_location_name(-2);
    });
    for (int i = 0, status = -1; i < 10; ++i) {
        if (fork() == 0) alarm(20), _exit(*tav_location_name(-2) != '-');
        ASSERT_GT(wait(&status), 0);
        ASSERT_EQ(status, 0);
    }
}
