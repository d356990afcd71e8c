// The allow-list check. A stand-in decides what the signature holds; the real function gets it if that is
// nothing. Signatures of a real key are in the tests of the built libraries.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <optional>
#include <sys/stat.h>
#include <thread>

#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include "agentid/whole_file.h"
#include "fakes.h"
#include "tavipc/tav_agentid.h"
#include "temp_dir.h"

static std::string exe_link;                   // target of the executable's link; empty: it cannot be read
static std::optional<std::string> signed_text; // what the signature holds
static std::function<void()> between_readings; // of the list

extern "C" ssize_t readlink(const char *, char *out, size_t size) noexcept {
    return exe_link.empty() ? -1 : static_cast<ssize_t>(exe_link.copy(out, size));
}
extern "C" int RSA_public_decrypt(int size, const unsigned char *from, unsigned char *to, RSA *key,
                                  int padding) {
    if (between_readings) between_readings();
    const auto real = reinterpret_cast<decltype(&::RSA_public_decrypt)>(dlsym(RTLD_NEXT, __func__));
    if (!signed_text) return real(size, from, to, key, padding);
    return static_cast<int>(signed_text->copy(reinterpret_cast<char *>(to), static_cast<size_t>(size)));
}

namespace fs = std::filesystem;
using std::string_literals::operator""s;

std::string sha256(const std::string &text) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    char hex[65] = "";
    return Hex_Encode_Lower(digest, sizeof digest, hex, 64), hex;
}
std::string list_of(const std::string &entry) {
    return "{\"linux\": [\"other\", 5, \"" + entry + "\", \"last\"]}";
}
const std::string kName = sha256("the_name"), kList = list_of(kName), kDigest = sha256(kList),
                  kSignature = std::string(342, 'A') + "=="; // 256 bytes in base64

struct AllowList : FakeWorld {
    AllowList() {
        for (const char *name : {"bin", "config"}) fs::create_directories(root / name);
        w.deployment.base = root / "bin";
        exe_link = "/opt/somewhere/the_name";
        between_readings = nullptr;
    }

    void install(const std::string &list, const std::string &in_base64,
                 const std::optional<std::string> &text) {
        std::ofstream(list_file) << list;
        std::ofstream(signature_file) << (signature = in_base64);
        signed_text = text;
        w.log.lines.clear();
    }
    // The lines of a level, with LIST, SIGN and ~ for the paths of the files and for the signature.
    std::string logged(int level) {
        std::string text;
        for (const auto &line : w.log.lines)
            if (line.level == level && line.source == "ipc_crypt") text += line.text + "\n";
        const std::string at = root / "bin/../config/linux";
        for (const auto &[name, mark] :
             {std::pair(at + ".json", "LIST"), {at + "_sign.json", "SIGN"}, {signature, "~"}})
            for (size_t i; !name.empty() && (i = text.find(name)) != text.npos;)
                text.replace(i, name.size(), mark);
        return text;
    }
    // Expects a refusal with these log lines, followed by the last ones of the usual lines.
    void refuses(std::string lines, size_t usual) {
        const std::string last[] = {"process [the_name] is not white process\n",
                                    "file LIST verify failed, sign file is SIGN\n",
                                    "file LIST verify failed, sign is: ~\n"};
        while (usual > 0) lines += last[--usual];
        ERR_raise(ERR_LIB_USER, 77); // the error queue of libcrypto belongs to the application
        EXPECT_EQ(c_get_process(), -1);
        EXPECT_EQ(logged(1), lines);
        EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 77);
        EXPECT_EQ(ERR_get_error(), 0u);
        w.log.lines.clear();
    }
    void refuses_list(const std::string &list, const std::string &lines) {
        install(list, kSignature, sha256(list));
        refuses(lines, 1);
    }

    const TempDir place;
    const fs::path root = place / "agent";
    const fs::path list_file = root / "config/linux.json", signature_file = root / "config/linux_sign.json";
    std::string signature;
};

TEST_F(AllowList, AllowsANameInTheSignedList) {
    for (const std::string &text : {kDigest + "\0rest"s, kDigest}) {
        install(kList, kSignature, text);
        EXPECT_EQ(c_get_process(), 0);
    }
    EXPECT_EQ(logged(4), "process name is the_name\nname the_name sha256 " + kName +
                             "\nfile SIGN size is 344\nsign is ~, length is 344\nfile LIST sha256 is " +
                             kDigest + "\nfile LIST size is " + std::to_string(kList.size()) + "\n");
}

TEST_F(AllowList, RefusesByTheSignedList) {
    std::string upper = kName;
    for (char &c : upper) c = static_cast<char>(toupper(c));
    for (const std::string &list : {list_of(upper), list_of(kName + "0"), "{\"linux\": \"" + kName + "\"}"})
        refuses_list(list, "process [the_name] is not allowed to use ipc\n");
    refuses_list("{}", "parse object linux json failed, content is {}\n");
    refuses_list("no json", "parse json failed, content is no json\n");
    refuses_list(std::string(10'485'761, ' '),
                 "get file size LIST faild size is 10485761\nread file LIST failed\n");
}

TEST_F(AllowList, RefusesWithoutAValidSignature) {
    for (const std::string &text : {sha256("x"), kDigest + "0", ""s}) {
        install(kList, kSignature, text);
        refuses("file LIST verify failed, sha256 " + kDigest + ", decrypt_txt is " + text + "\n", 3);
    }
    for (const std::string &not_base64 : {"!"s, std::string(344, 'A')}) {
        install(kList, not_base64, kDigest);
        refuses("base64 decode failed, sign is ~\n", 3);
    }
    install(kList, kSignature, std::nullopt);
    refuses("ret is -1, file LIST decrypt failed, sign is: ~, sign len is 344, decrypt_txt is \n", 3);
    install(kList, "\0x"s, kDigest);
    signature = "";
    refuses("param wrong\nfile LIST verify failed, sign is: \n", 2);
    install(kList, "", kDigest);
    refuses("get file size SIGN faild size is 0\nread file SIGN failed\n", 2);
}

TEST_F(AllowList, RefusesAListThatChangesOrIsMissing) {
    between_readings = [&] { std::ofstream(list_file, std::ios::app) << " "; };
    refuses_list(kList, "file LIST verify failed, sign file is SIGN\n");
    between_readings = [&] { fs::remove(list_file); };
    refuses_list(kList, "open file LIST faild\nread file LIST failed\n");
    ASSERT_EQ(mkfifo(list_file.c_str(), 0600), 0); // opening it must not wait for its other end
    refuses("fopen LIST failed\ncal file LIST sha256 failed\ncal file LIST base64 failed\n", 3);
}

TEST_F(AllowList, RefusesAProcessWithoutAName) {
    exe_link = "";
    refuses("get process path failed, ret -1\nget process name failed\n", 0);
    exe_link = "no_slash";
    refuses("get process name failed\nget process name failed\n", 0);
    EXPECT_FALSE(tavipc::read_whole_file("/", 10'485'761));
}

TEST_F(AllowList, AForkWaitsUntilNoThreadIsInsideLibcrypto) {
    static std::atomic<int> stage; // 1: a thread is inside, 2: a fork begins, 3: the thread leaves
    install(kList, kSignature, kDigest);
    between_readings = [] { stage = 1, stage.wait(1), usleep(20'000), stage = 3; };
    pthread_atfork([] { stage = 2, stage.notify_all(); }, nullptr, nullptr);
    const std::jthread other(c_get_process);
    while (stage == 0) usleep(100);
    EXPECT_EXIT(_exit(stage), testing::ExitedWithCode(3), "");
}
