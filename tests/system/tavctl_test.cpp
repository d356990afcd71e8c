// The tool as its user has it: the built program, an agent's directory, modules as processes.
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "installation.h"

namespace {

using namespace tavipc::stage;
using testing::HasSubstr;
using Words = std::vector<std::string>;

class Tavctl : public ::testing::Test {
  protected:
    Tavctl() { place_.allow({"tavctl", "alpha"}); }
    Outcome tavctl(const Words &words, std::string_view input = {}) const {
        Words command{tool_};
        command.insert(command.end(), words.begin(), words.end());
        return run(command, input, {"TAV_LOG_LEVEL=1"});
    }
    const Installation place_{Installation::Setup{}};
    const std::string tool_ = place_.tool();
};

#define EXPECT_ENDS(status_expected, outcome)                                                                \
    EXPECT_EQ((outcome).status, status_expected) << (outcome).output << (outcome).errors

TEST_F(Tavctl, ProbesAndSaysWhyNobodyAnswers) {
    Process alpha = place_.start("alpha");
    alpha.ask("open alpha", "opened ");
    const Outcome there = tavctl({"probe", "alpha", "-c", "2", "-i", "0"});
    EXPECT_ENDS(0, there);
    EXPECT_THAT(there.output, HasSubstr("2 sent, 2 answered, 0 % lost"));
    EXPECT_EQ(alpha.kill(), -9);
    const Outcome stale = tavctl({"send", "alpha", "text", "-t", "1"});
    EXPECT_ENDS(3, stale);
    EXPECT_THAT(stale.errors, HasSubstr("is stale, its process is gone"));
    const Outcome plain = tavctl({"send", "nobody", "text", "--no-confirm"});
    EXPECT_ENDS(1, plain);
    EXPECT_THAT(plain.errors, HasSubstr("dropped: "));
    EXPECT_THAT(tavctl({"request", "nobody", "x", "-t", "1"}).errors,
                HasSubstr("there is no socket " + place_.sockets().string()));
}

TEST_F(Tavctl, ListensAndSends) {
    Process listener(tool_, {}, {"listen", "ear", "-c", "4", "--json"});
    EXPECT_THAT(listener.expect("{\"type\":\"ready\""), HasSubstr("ear@2"));
    const std::string body(1000, 'x');
    for (const Words &words :
         {Words{"send", "ear", "two words", "--cmd", "7"}, Words{"send", "ear", "--hex", "00 FF"},
          Words{"send", "ear", body, "--compress", "--priority", "9"}, Words{"send", "ear"}}) {
        const Outcome sent = tavctl(words, "from\ninput");
        EXPECT_ENDS(0, sent);
        if (words.size() == 6) {
            EXPECT_THAT(sent.output, HasSubstr("ear: 1,020 bytes, compressed to "));
        }
    }
    std::string heard;
    for (int i = 0; i < 4; ++i) heard += listener.expect("{\"type\":\"message\"");
    for (const std::string fact :
         {"\"cmd\":7,\"size\":9,\"app\":false,\"text\":\"two words\"", "\"hex\":\"00ff\"",
          "\"size\":1020,\"app\":true,\"priority\":9,\"body_size\":1000,\"text\":\"xxx",
          "\"text\":\"from\\ninput\""})
        EXPECT_THAT(heard, HasSubstr(fact));
    EXPECT_EQ(listener.finish(), 0);
    EXPECT_FALSE(std::filesystem::exists(place_.sockets() / "ear")) << "its socket file is removed";
}

TEST_F(Tavctl, AsksAndAnswers) {
    Process server(tool_, {}, {"reply", "mirror", "--echo", "-c", "2"});
    server.expect("answering as mirror@2");
    const std::string large(200'000, 'z');
    const Outcome raw = tavctl({"request", "mirror", "--raw"}, large);
    EXPECT_ENDS(0, raw);
    EXPECT_EQ(raw.output, large);
    EXPECT_THAT(tavctl({"request", "mirror", "hello", "--cmd", "4"}).output,
                HasSubstr("cmd 5, 5 bytes\n  hello\n"));
    EXPECT_EQ(server.finish(), 0);
}

TEST_F(Tavctl, IsRefusedLikeAnyModuleAndSaysWhy) {
    place_.allow({"alpha"});
    const Outcome refused = tavctl({"probe", "alpha"});
    EXPECT_ENDS(4, refused);
    EXPECT_THAT(refused.errors, HasSubstr("the name \"tavctl\" is not in "));
    EXPECT_THAT(refused.errors, HasSubstr("what to do: tavctl allowlist add --key"));
    Process alpha = place_.start("alpha");
    alpha.ask("open alpha", "opened ");
    EXPECT_ENDS(0, tavctl({"allowlist", "why", "alpha"}));
    EXPECT_ENDS(1, tavctl({"allowlist", "why", "tavctl"}));
    EXPECT_ENDS(0, tavctl({"allowlist", "why", std::to_string(alpha.pid())}));
    place_.allow({"tavctl"});
    const Outcome taken = tavctl({"listen", "alpha", "-c", "1"});
    EXPECT_ENDS(1, taken);
    EXPECT_THAT(taken.errors, HasSubstr("the endpoint name alpha is in use"));
}

TEST_F(Tavctl, ShowsTheIdentityAndMakesNoneUnasked) {
    EXPECT_THAT(tavctl({"id"}).output, HasSubstr("4242, from the platform"));
    std::ofstream(place_.config() / "agent.ini") << "[agent]\nlocation = 2\n";
    const Outcome none = tavctl({"id", "--json"});
    EXPECT_ENDS(1, none);
    EXPECT_THAT(none.output, HasSubstr("\"agent_id\":0,\"source\":\"none\""));
    EXPECT_THAT(tavctl({"probe", "alpha"}).errors, HasSubstr("there is no agent id"));
    EXPECT_FALSE(std::filesystem::exists(place_.config() / "machineid"));
    std::ofstream(place_.config() / "machineid") << "\x01\x02\x03\x04"
                                                    "manager"
                                                    "hostma";
    EXPECT_THAT(tavctl({"id"}).output, HasSubstr("67305985, made from MAC addresses: 6d:61:6e:61:67:65"));
}

TEST_F(Tavctl, ExplainsADatagram) {
    std::string hex(120, '0');
    hex.replace(112, 8, "a599d619"); // the check value of an all-zero header, 0x19D699A5
    EXPECT_ENDS(0, tavctl({"explain", hex}));
    hex.replace(88, 8, "01000000"); // size 1: nothing follows, and the check value differs
    const Outcome wrong = tavctl({"explain"}, hex);
    EXPECT_ENDS(1, wrong);
    EXPECT_THAT(wrong.output, HasSubstr("WRONG: it should be 0x1C7621AC"));
    EXPECT_ENDS(1, tavctl({"explain", "00"}));
    EXPECT_ENDS(2, tavctl({"explain", "0g"}));
}

TEST_F(Tavctl, KeepsTheSignedList) {
    const std::string here = place_.config().parent_path(), key = here + "/my.pem", open = here + "/my.pub",
                      dir = here + "/new/config";
    const Words with_key{"--key", key, "--dir", dir};
    const auto list = [&](Words words) {
        words.insert(words.begin(), "allowlist");
        words.insert(words.end(), with_key.begin(), with_key.end());
        return tavctl(words);
    };
    EXPECT_ENDS(0, tavctl({"allowlist", "keygen", "--private", key, "--public", open}));
    struct stat info {};
    EXPECT_TRUE(stat(key.c_str(), &info) == 0 && (info.st_mode & 0777) == 0600);
    EXPECT_ENDS(1, tavctl({"allowlist", "keygen", "--private", key, "--public", open + "2"}))
        << "never replaced";
    EXPECT_ENDS(0, list({"add", "alpha", "beta"}));
    EXPECT_ENDS(1, tavctl({"allowlist", "sign", "--key", key})) << "the library would refuse its own list";
    EXPECT_ENDS(0, tavctl({"allowlist", "verify"}));
    EXPECT_ENDS(0, list({"add", "beta", "gamma"}));
    EXPECT_ENDS(0, list({"remove", "alpha"}));
    EXPECT_ENDS(1, list({"remove", "alpha"}));
    const auto verify = [&](const Words &names) {
        Words words{"allowlist", "verify", "--key", open, "--dir", dir};
        words.insert(words.end(), names.begin(), names.end());
        return tavctl(words);
    };
    EXPECT_ENDS(0, verify({"beta", "gamma"}));
    const Outcome partly = verify({"beta", "alpha"});
    EXPECT_ENDS(1, partly);
    EXPECT_THAT(partly.output, HasSubstr("2 names\nbeta: allowed\nalpha: NOT in the list\n"));
    EXPECT_ENDS(1, tavctl({"allowlist", "verify", "--dir", dir})) << "the library's own key";
    std::ofstream(dir + "/linux.json") << "{\"linux\":[1],  \"other\":{}}";
    EXPECT_ENDS(1, verify({}));
    EXPECT_ENDS(1, list({"add", "delta"})) << "what nobody signed is not signed along";
    EXPECT_ENDS(0, list({"sign"}));
    EXPECT_ENDS(0, verify({}));
    EXPECT_ENDS(0, list({"add", "alpha"}));
    std::ifstream file(dir + "/linux.json");
    EXPECT_THAT(std::string(std::istreambuf_iterator<char>(file), {}), HasSubstr("\"other\"")) << "kept";
}

TEST_F(Tavctl, TellsWrongUsageFromFailure) {
    for (const Words &wrong : {Words{},
                               {"allowlist"},
                               {"allowlist", "forge"},
                               {"probe"},
                               {"probe", "far too long"},
                               {"probe", "alpha@256"},
                               {"probe", ".."},
                               {"probe", "alpha", "-c", "-1"},
                               {"--agent", "", "id"},
                               {"send", "alpha", "x", "--file", "y"},
                               {"trace", "maybe"},
                               {"allowlist", "add", "--key", "k", "bin/alpha"},
                               {"listen", "a@3"}}) {
        const Outcome outcome = tavctl(wrong);
        EXPECT_ENDS(2, outcome);
        EXPECT_NE(outcome.errors, "");
    }
    EXPECT_THAT(tavctl({"send", "--help"}).output, HasSubstr("--compress"));
    EXPECT_THAT(tavctl({"--agent", "/nonexistent", "id"}).errors, HasSubstr("an agent has its own tavctl"));
    EXPECT_THAT(tavctl({"--agent", place_.config().parent_path(), "id"}).output, HasSubstr("4242"));
}

TEST_F(Tavctl, CompletesCommandsOptionsAndEndpoints) {
    Process alpha = place_.start("alpha");
    alpha.ask("open alpha", "opened ");
    const std::string script = tavctl({"completion"}).output;
    const auto complete = [&](const std::string &line) { // the last word is being completed
        return run({"/bin/bash", "-c",
                    script + "COMP_WORDS=(" + line +
                        ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                        "_tavctl\nprintf '%s\\n' \"${COMPREPLY[@]}\""})
            .output;
    };
    EXPECT_EQ(complete("tavctl pro"), "probe\n");
    EXPECT_EQ(complete("tavctl allowlist ver"), "verify\n");
    EXPECT_EQ(complete("tavctl --json probe --inter"), "--interval\n");
    EXPECT_EQ(complete("tavctl trace o"), "on\noff\n");
    EXPECT_EQ(complete(tool_ + " send -c 3 al"), "alpha\n");
}

} // namespace
