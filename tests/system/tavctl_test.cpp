// Messages, requests, the allow-list, the identity, and how the tool takes its words.
#include <sstream>

#include "tavctl_fixture.h"

namespace {

using namespace tavipc::stage;

class Tavctl : public TavctlTest {};

TEST_F(Tavctl, ProbesAndSaysWhyNobodyAnswers) {
    const auto alpha = start("alpha");
    std::istringstream lines(expect(0, {"probe", "alpha", "-c", "2", "-i", "0"}));
    std::string all;
    for (std::string line; std::getline(lines, line); all += line) EXPECT_LE(line.size(), 80u) << line;
    EXPECT_THAT(all, ContainsRegex("2 sent, 2 answered, 0 % lost  min .*median .*mean .*max .*std dev "));
    EXPECT_EQ(alpha->kill(), -9);
    EXPECT_THAT(expect(3, {"request", "alpha", "x", "-t", "1"}), HasSubstr("is stale, its process is gone"));
    EXPECT_THAT(expect(1, {"send", "nobody", "text", "--no-confirm"}), HasSubstr("dropped: "));
}

TEST_F(Tavctl, ListensAndSends) {
    Process listener(tool_, {}, {"listen", "ear", "-c", "4", "--json"});
    EXPECT_THAT(listener.expect("{\"type\":\"ready\""), HasSubstr("ear@2"));
    expect(0, {"send", "ear", "two words", "--cmd", "7"});
    expect(0, {"send", "ear", "--hex", "00 FF"});
    EXPECT_THAT(expect(0, {"send", "ear", std::string(1000, 'x'), "--compress", "--priority=9"}),
                HasSubstr("ear: 1,020 bytes, compressed to "));
    expect(0, {"send", "ear"}, "from\ninput");
    std::string heard;
    for (int i = 0; i < 4; ++i) heard += listener.expect("{\"type\":\"message\"");
    for (const char *fact :
         {"\"cmd\":7,\"size\":9,\"app\":false,\"text\":\"two words\"", "\"hex\":\"00ff\"",
          "\"app\":true,\"priority\":9,\"body_size\":1000,\"text\":\"xxx", "\"text\":\"from\\ninput\""})
        EXPECT_THAT(heard, HasSubstr(fact));
    EXPECT_THAT(heard, ContainsRegex("\"time\":\"20[0-9-]+T[0-9:]+\\.[0-9]{3}[+-][0-9]{2}:[0-9]{2}\""));
    EXPECT_EQ(listener.finish(), 0);
    EXPECT_FALSE(fs::exists(sockets_ / "ear")) << "its socket file is removed";
}

TEST_F(Tavctl, AsksAndAnswers) {
    Process server(tool_, {}, {"reply", "mirror", "--echo", "-c", "2"});
    server.expect("answering as mirror@2");
    const std::string large(200'000, 'z');
    EXPECT_EQ(expect(0, {"request", "mirror", "--raw"}, large), large);
    EXPECT_THAT(expect(0, {"request", "mirror", "hello", "--cmd", "4"}),
                HasSubstr("cmd 5, 5 bytes\n  hello\n"));
    EXPECT_EQ(server.finish(), 0);
}

TEST_F(Tavctl, SaysWhyAProcessIsRefused) {
    const auto alpha = start("alpha");
    const std::string pid = std::to_string(alpha->pid());
    expect(0, {"allowlist", "why", pid});
    EXPECT_THAT(expect(1, {"listen", "alpha", "-c", "1"}), HasSubstr("the endpoint name alpha is in use"));
    fs::remove(root_ / "bin/alpha");
    EXPECT_THAT(expect(1, {"allowlist", "why", pid}), HasSubstr("bin/alpha: refused, it was removed"));
    std::ofstream(root_ / "bin/alpha") << "new";
    EXPECT_THAT(expect(1, {"allowlist", "why", pid}),
                ContainsRegex("bin/alpha: refused, it was replaced .*\n  what to do: restart the process"));
    place_.allow({"alpha"});
    EXPECT_THAT(expect(4, {"probe", "alpha"}),
                ContainsRegex("the name \"tavctl\" is not in .*\n  what to do: tavctl allowlist add --key"));
}

TEST_F(Tavctl, ShowsTheIdentityAndMakesNoneUnasked) {
    EXPECT_THAT(expect(0, {"id"}), HasSubstr("4242, from the platform"));
    std::ofstream(config_ / "agent.ini") << "[agent]\nlocation = 2\n";
    EXPECT_THAT(expect(1, {"id", "--json"}), HasSubstr("\"agent_id\":0,\"source\":\"none\""));
    EXPECT_THAT(expect(1, {"probe", "alpha"}), HasSubstr("there is no agent id"));
    EXPECT_FALSE(fs::exists(config_ / "machineid"));
    std::ofstream(config_ / "machineid") << "\x01\x02\x03\x04managerhostma";
    EXPECT_THAT(expect(0, {"id"}), HasSubstr("67305985, made from MAC addresses: 6d:61:6e:61:67:65"));
}

TEST_F(Tavctl, ExplainsADatagram) {
    std::string hex(120, '0');
    hex.replace(112, 8, "a599d619"); // the check value of an all-zero header, 0x19D699A5
    expect(0, {"explain", hex});
    hex.replace(88, 8, "01000000"); // size 1: nothing follows, and the check value differs
    EXPECT_THAT(expect(1, {"explain"}, hex), HasSubstr("WRONG: it should be 0x1C7621AC"));
}

TEST_F(Tavctl, KeepsTheSignedList) {
    const std::string key = root_ / "my.pem", open = root_ / "my.pub", dir = root_ / "new/config";
    const auto list = [&](int status, Words words) {
        words.insert(words.begin(), "allowlist");
        words.insert(words.end(), {"--key", words[1] == "verify" ? open : key, "--dir", dir});
        return expect(status, words);
    };
    expect(0, {"allowlist", "keygen", "--private", key, "--public", open});
    EXPECT_EQ(fs::status(key).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    expect(1, {"allowlist", "keygen", "--private", key, "--public", open + "2"}); // never replaced
    expect(1, {"allowlist", "sign", "--key", key}); // the library would refuse its own list
    list(0, {"add", "alpha", "beta", "gamma"});
    list(0, {"remove", "alpha"});
    EXPECT_THAT(list(1, {"verify", "beta", "alpha"}),
                HasSubstr("2 names\nbeta: allowed\nalpha: NOT in the list\n"));
    expect(1, {"allowlist", "verify", "--dir", dir}); // signed by another key than the library's
    std::ofstream(dir + "/linux.json") << "{\"linux\":[1]}";
    list(1, {"verify"});
    list(1, {"add", "delta"}); // what nobody signed is not signed along
    list(0, {"sign"});
    list(0, {"verify"});
}

TEST_F(Tavctl, TellsWrongUsageFromFailure) {
    const std::pair<Words, const char *> cases[] = {
        {{}, "Usage: tavctl [OPTIONS] COMMAND"},
        {{"prob", "alpha"}, "unknown command 'prob'; did you mean 'probe'?"},
        {{"allowlist", "veriy"}, "did you mean 'verify'?"},
        {{"xyz"}, "unknown command 'xyz'\n"},
        {{"list", "-i", "3"}, "not expected: -i 3\n"},
        {{"probe"}, "NAME is missing"},
        {{"probe", "far too long"}, "is not an endpoint"},
        {{"probe", "alpha@256"}, "a location is a number"},
        {{"probe", "alpha", "-c", "-1"}, "-c: \"-1\" is not a valid number"},
        {{"send", "alpha", "x", "--file", "y"}, "not both"},
        {{"allowlist", "add", "beta"}, "--key is missing"},
        {{"allowlist", "add", "--key", "k", "bin/alpha"}, "not the name of an executable"}};
    for (const auto &[words, reason] : cases) EXPECT_THAT(expect(2, words), HasSubstr(reason));
    EXPECT_THAT(expect(0, {"send", "--help"}), HasSubstr("--compress"));
    EXPECT_THAT(expect(1, {"--agent", "/nonexistent", "id"}), HasSubstr("an agent has its own tavctl"));
    EXPECT_THAT(expect(0, {"--agent", root_, "id"}), HasSubstr("4242"));
}

TEST_F(Tavctl, CompletesCommandsOptionsAndEndpoints) {
    const auto alpha = start("alpha");
    const std::string script = expect(0, {"completion"});
    const auto complete = [&](const std::string &words) { // the last word is being completed
        const std::string line =
            "COMP_WORDS=(" + tool_ + " " + words + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n";
        return run({"/bin/bash", "-c", script + line + "_tavctl; echo \"${COMPREPLY[@]}\""}).output;
    };
    EXPECT_EQ(complete("pro"), "probe\n");
    EXPECT_EQ(complete("allowlist ver"), "verify\n");
    EXPECT_EQ(complete("--json probe --inter"), "--interval\n");
    EXPECT_EQ(complete("send -c 3 al"), "alpha\n");
}

} // namespace
