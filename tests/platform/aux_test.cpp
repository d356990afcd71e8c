// Deployment facts. They are read once per process, so each case asks in a child of its own.
#include <thread>

#include <gtest/gtest.h>

#include "tavaux.h"
#include "tavbase.h"
#include "temp_dir.h"

static std::string g_base; // what "@" stands for

// In place of the base library's: the library under test asks for its file through this symbol.
int dirutils_path_transform(const char *path, char *out, int size) noexcept {
    return str_snprintf(out, static_cast<size_t>(size), "%s%s", g_base.c_str(), path + 1) > 0 ? 0 : -1;
}

namespace {

// The facts of an agent.ini (empty: no file), in the order of tavaux.h, whichever thread asks first.
void expect_facts(const std::string &ini, const std::string &expected) {
    const TempDir dir;
    for (const char *part : {"bin", "config"}) std::filesystem::create_directory(dir / part);
    if (!ini.empty()) dir.write("config/agent.ini", ini);
    const auto check = [&] {
        g_base = dir / "bin";
        for (std::jthread threads[8]; auto &thread : threads)
            thread = std::jthread([] { EXPECT_STREQ(tav_location_name(-2), "-2"); });
        std::filesystem::remove(dir / "config/agent.ini");
        char type[12] = "###########", facts[256];
        int size = 1, length = -1; // the least size that is enough
        while (size < 12 && (length = GetAgentType(type, size)) < 0) ++size;
        snprintf(facts, sizeof facts, "%d %s %s %d %u %d %d %s%s", tav_get_location(), tav_location_name(4),
                 GetDeployTypeStr() ? GetDeployTypeStr() : "none", IsCNAPPAgent(), get_hostid(), size, length,
                 type, size < 12 ? type + size : "");
        EXPECT_EQ(facts, expected) << ini;
        exit(testing::Test::HasFailure());
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
}

TEST(Deployment, FactsOfTheFileOrDefaults) {
    const std::string longest(64, 'd');
    for (const char *agent : {"", "[agent]\nlocation = 5x\ncnapp = yes\nhostid = -1\ndeploy_type =",
                              "[agent]\nlocation = 99999999999\nhostid = 4294967296\ndeploy_type = /tmp",
                              "[agent]\ndeploy_type = a/../../etc"})
        expect_facts(agent, "1 4 none 0 0 6 5 linux#####");
    expect_facts("[agent]\ndeploy_type = d" + longest, "1 4 none 0 0 6 5 linux#####");
    expect_facts("[agent]\nagent_type =\ndeploy_type = " + longest,
                 "1 4 " + longest + " 0 0 12 -1 ###########");
    expect_facts("[agent]\nlocation = 4\ndeploy_type = tmp/demo\nagent_type = container\ncnapp = 1\nhostid = "
                 "4294967295\n[locations]\n4 = cloud\n",
                 "4 cloud tmp/demo 1 4294967295 10 9 container#");
}

} // namespace
