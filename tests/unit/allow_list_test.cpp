#define OPENSSL_SUPPRESS_DEPRECATED

#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include "agentid/whole_file.h"
#include "fakes.h"
#include "tavipc/tav_agentid.h"

static std::string exe_link;                // target of the executable's link; empty: it cannot be read
static std::function<void()> before_decode; // runs between the two readings of the list

extern "C" ssize_t readlink(const char *, char *out, size_t size) noexcept {
    return exe_link.empty() ? -1 : static_cast<ssize_t>(exe_link.copy(out, size));
}
extern "C" int Base64_Decode(const char *in, int in_len, unsigned char *out, int out_max) noexcept {
    if (before_decode) before_decode();
    return reinterpret_cast<decltype(&::Base64_Decode)>(dlsym(RTLD_NEXT, __func__))(in, in_len, out, out_max);
}

namespace {

namespace fs = std::filesystem;
using std::string_literals::operator""s;

std::string slurp(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
auto bytes(const std::string &text) { return reinterpret_cast<const unsigned char *>(text.data()); }
std::string sha256(const std::string &text) {
    char hex[65] = "";
    return Hex_Encode_Lower(SHA256(bytes(text), text.size(), nullptr), 32, hex, 64), hex;
}
std::string base64(const std::string &text) {
    unsigned char out[1024];
    return {out, out + EVP_EncodeBlock(out, bytes(text), static_cast<int>(text.size()))};
}
std::string list_of(const std::string &entry) {
    return "{\"linux\": [\"other\", 5, \"" + entry + "\", \"last\"]}";
}
const std::string kName = sha256("the_name"), kList = list_of(kName), kDigest = sha256(kList);

class AllowList : public FakeWorld {
  protected:
    void SetUp() override { // only a build with a development key pair has the private key
        const fs::path build = fs::canonical("/proc/self/exe").parent_path().parent_path();
        const std::string pem = slurp(build / "devkey/private.pem");
        const std::shared_ptr<BIO> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
        key.reset(PEM_read_bio_RSAPrivateKey(bio.get(), nullptr, nullptr, nullptr), RSA_free);
        if (!key ||
            slurp(build / "generated/allowlist_key.h").find(slurp(build / "devkey/public.pem")) == pem.npos)
            GTEST_SKIP() << "the library has another key";
        for (const char *name : {"bin", "config"}) fs::create_directories(root / name);
        w.deployment.base = root / "bin";
        exe_link = "/opt/somewhere/the_name";
        before_decode = nullptr;
    }
    void TearDown() override { fs::remove_all(root); }

    void install(const std::string &list, const std::string &signature) {
        std::ofstream(list_file) << list;
        std::ofstream(signature_file) << signature;
    }
    std::string signature_of(const std::string &text) {
        unsigned char out[256];
        RSA_private_encrypt(static_cast<int>(text.size()), bytes(text), out, key.get(), RSA_PKCS1_PADDING);
        return base64({out, out + 256});
    }
    // The lines of a level, with LIST, SIGN and ~ for the paths of the files and for the signature.
    std::string logged(int level) {
        std::string text;
        for (const auto &line : w.log.lines)
            if (line.level == level && line.source == "ipc_crypt") text += line.text + "\n";
        const std::string at = root / "bin/../config/linux", signature = slurp(signature_file);
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
        w.log.lines.clear();
        ERR_raise(ERR_LIB_USER, 77); // the error queue of libcrypto belongs to the application
        EXPECT_EQ(c_get_process(), -1);
        EXPECT_EQ(logged(1), lines);
        EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 77);
        EXPECT_EQ(ERR_get_error(), 0u);
    }
    void refuses_list(const std::string &list, const std::string &lines) {
        install(list, signature_of(sha256(list)));
        refuses(lines, 1);
    }
    void refuses_signature(const std::string &signature, const std::string &lines, size_t usual = 3) {
        install(kList, signature);
        refuses(lines, usual);
    }

    const fs::path root = fs::temp_directory_path() / ("allow_list." + std::to_string(getpid()));
    const fs::path list_file = root / "config/linux.json", signature_file = root / "config/linux_sign.json";
    std::shared_ptr<RSA> key;
};

TEST_F(AllowList, AllowsANameInTheSignedList) {
    for (const std::string &text : {kDigest + "\0rest"s, kDigest}) {
        w.log.lines.clear();
        install(kList, signature_of(text));
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
    for (const std::string &text : {sha256("x"), kDigest + "0", ""s})
        refuses_signature(signature_of(text),
                          "file LIST verify failed, sha256 " + kDigest + ", decrypt_txt is " + text + "\n");
    for (const std::string &text : {"!"s, base64(std::string(257, 'x'))})
        refuses_signature(text, "base64 decode failed, sign is ~\n");
    refuses_signature(base64(std::string(256, '\1')),
                      "ret is -1, file LIST decrypt failed, sign is: ~, sign len is 344, decrypt_txt is \n");
    refuses_signature("\0x"s, "param wrong\nfile LIST verify failed, sign is: \n", 2);
    refuses_signature("", "get file size SIGN faild size is 0\nread file SIGN failed\n", 2);
}

TEST_F(AllowList, RefusesAListThatChangesOrIsMissing) {
    before_decode = [&] { std::ofstream(list_file, std::ios::app) << " "; };
    refuses_list(kList, "file LIST verify failed, sign file is SIGN\n");
    before_decode = [&] { fs::remove(list_file); };
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

} // namespace
