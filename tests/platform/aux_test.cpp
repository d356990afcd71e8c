// Deployment facts. They are read once per process, so each case asks in a child of its own.
#include <thread>
#include <vector>

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

// Whichever thread asks first, what this agent.ini (empty: there is none) says, in the order of tavaux.h.
void expect_facts(const std::string &ini, const std::string &expected) {
    const TempDir dir;
    for (const char *part : {"bin", "config"}) std::filesystem::create_directory(dir / part);
    if (!ini.empty()) dir.write("config/agent.ini", ini);
    const auto check = [&] {
        g_base = dir / "bin";
        std::vector<std::pair<const char *, const char *>> texts(8);
        std::vector<std::jthread> threads;
        for (auto &text : texts)
            threads.emplace_back([&] { text = {GetDeployTypeStr(), tav_location_name(4)}; });
        threads.clear();
        std::filesystem::remove(dir / "config/agent.ini");
        const std::pair again(GetDeployTypeStr(), tav_location_name(4));
        EXPECT_EQ(texts, std::vector(8, again));
        char type[12] = "###########", facts[256];
        int size = 1, length = -1; // the least size that is enough
        while (size < 12 && (length = GetAgentType(type, size)) < 0) ++size;
        snprintf(facts, sizeof facts, "%d %s %s %s %d %u %d %d %s%s", tav_get_location(), again.second,
                 tav_location_name(-2), again.first ? again.first : "none", IsCNAPPAgent(), get_hostid(),
                 size, length, type, size < 12 ? type + size : "");
        EXPECT_EQ(facts, expected) << ini;
        exit(testing::Test::HasFailure());
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
}

using namespace std::string_literals;

TEST(Deployment, FactsOfTheFileOrDefaults) {
    const std::string longest(64, 'd');
    for (const std::string &agent : {"location = 5x\ncnapp = yes\nhostid = -1\ndeploy_type ="s,
                                     "location = 99999999999\nhostid = 4294967296\ndeploy_type = /tmp"s,
                                     "deploy_type = a/../../etc"s, "deploy_type = d" + longest})
        expect_facts("[agent]\n" + agent, "1 4 -2 none 0 0 6 5 linux#####");
    expect_facts("", "1 4 -2 none 0 0 6 5 linux#####");
    expect_facts("[agent]\nagent_type =\ndeploy_type = " + longest,
                 "1 4 -2 " + longest + " 0 0 12 -1 ###########");
    expect_facts("[agent]\nlocation = 4\ndeploy_type = tmp/demo\nagent_type = container\ncnapp = 1\nhostid = "
                 "4294967295\n[locations]\n4 = cloud\n",
                 "4 cloud -2 tmp/demo 1 4294967295 10 9 container#");
}

} // namespace
