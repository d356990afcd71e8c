#define OPENSSL_SUPPRESS_DEPRECATED

#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include "fakes.h"
#include "ipc/whole_file.h"
#include "tavipc/tav_agentid.h"

static std::string exe_link;                // what the executable's link holds; empty: it cannot be read
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
    Hex_Encode_Lower(SHA256(bytes(text), text.size(), nullptr), 32, hex, 64);
    return hex;
}
std::string base64(const std::string &text) {
    unsigned char out[1024];
    return {out, out + EVP_EncodeBlock(out, bytes(text), static_cast<int>(text.size()))};
}
std::string list_of(const std::string &entry) {
    return "{\"version\": 7, \"linux\": [\"other\", 5, \"" + entry + "\", \"last\"]}";
}
const std::string kName = sha256("the_name"), kList = list_of(kName), kDigest = sha256(kList);

class Gate : public FakeWorld {
  protected:
    // Only a build with a development pair has the private half of the library's key.
    void SetUp() override {
        const fs::path build = fs::canonical("/proc/self/exe").parent_path().parent_path();
        const std::string pem = slurp(build / "devkey/private.pem");
        if (pem.empty() ||
            slurp(build / "generated/allowlist_key.h").find(slurp(build / "devkey/public.pem")) == pem.npos)
            GTEST_SKIP() << "the key is not of the development pair";
        const std::shared_ptr<BIO> bio(BIO_new_mem_buf(pem.data(), -1), BIO_free);
        key.reset(PEM_read_bio_RSAPrivateKey(bio.get(), nullptr, nullptr, nullptr), RSA_free);
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
        EXPECT_EQ(RSA_private_encrypt(static_cast<int>(text.size()), bytes(text), out, key.get(),
                                      RSA_PKCS1_PADDING),
                  256);
        return base64({out, out + 256});
    }
    // Lines of a level, "~" in the places of the directory and of the signature.
    std::string logged(int level) {
        std::string text;
        for (const auto &line : w.log.lines)
            if (line.level == level && line.source == "ipc_crypt") text += line.text + "\n";
        for (const std::string &name : {(root / "bin/../config/").string(), slurp(signature_file)})
            for (size_t at; !name.empty() && (at = text.find(name)) != text.npos;)
                text.replace(at, name.size(), "~");
        return text;
    }
    // What a refusal tells: these lines and so many of the usual ones.
    void expect_refusal(std::string lines, size_t usual) {
        const std::string last[] = {"process [the_name] is not white process\n",
                                    "file ~linux.json verify failed, sign file is ~linux_sign.json\n",
                                    "file ~linux.json verify failed, sign is: ~\n"};
        while (usual > 0) lines += last[--usual];
        w.log.lines.clear();
        EXPECT_EQ(c_get_process(), -1);
        EXPECT_EQ(logged(1), lines);
        EXPECT_EQ(ERR_peek_error(), 0u) << "libcrypto's queue is the application's";
    }

    const fs::path root = fs::temp_directory_path() / ("ipc_crypt." + std::to_string(getpid()));
    const fs::path list_file = root / "config/linux.json", signature_file = root / "config/linux_sign.json";
    std::shared_ptr<RSA> key;
};

TEST_F(Gate, AllowsANameOfTheSignedList) {
    setenv("TAV_INSTALL_ROOT", "/nonexistent", 1); // must not lead to another list
    for (const std::string &text : {kDigest + "\0rest"s, kDigest}) {
        w.log.lines.clear();
        install(kList, signature_of(text));
        EXPECT_EQ(c_get_process(), 0);
    }
    unsetenv("TAV_INSTALL_ROOT");
    EXPECT_EQ(
        logged(4),
        "process name is the_name\nname the_name sha256 " + kName +
            "\nfile ~linux_sign.json size is 344\nsign is ~, length is 344\nfile ~linux.json sha256 is " +
            kDigest + "\nfile ~linux.json size is " + std::to_string(kList.size()) + "\n");
}

TEST_F(Gate, RefusesByTheSignedList) {
    const auto refuses = [&](const std::string &list, const std::string &lines) {
        install(list, signature_of(sha256(list)));
        expect_refusal(lines, 1);
    };
    std::string upper = kName;
    for (char &c : upper) c = static_cast<char>(toupper(c));
    for (const std::string &entry : {upper, kName + "0"})
        refuses(list_of(entry), "process [the_name] is not allowed to use ipc\n");
    refuses("{\"linux\": \"" + kName + "\"}", "process [the_name] is not allowed to use ipc\n");
    refuses("{\"linux\": []}", "process [the_name] is not allowed to use ipc\n");
    refuses("{}", "parse object linux json failed, content is {}\n");
    refuses("no json", "parse json failed, content is no json\n");
    refuses(std::string(10'485'761, ' '),
            "get file size ~linux.json faild size is 10485761\nread file ~linux.json failed\n");
}

TEST_F(Gate, RefusesWithoutAValidSignature) {
    const auto refuses = [&](const std::string &signature, const std::string &lines, size_t usual = 3) {
        install(kList, signature);
        expect_refusal(lines, usual);
    };
    for (const std::string &text : {sha256("x"), kDigest + "0", kDigest.substr(1), ""s})
        refuses(signature_of(text),
                "file ~linux.json verify failed, sha256 " + kDigest + ", decrypt_txt is " + text + "\n");
    for (const std::string &text : {"!"s, base64(std::string(257, 'x'))})
        refuses(text, "base64 decode failed, sign is ~\n");
    refuses(base64(std::string(256, '\1')),
            "ret is -1, file ~linux.json decrypt failed, sign is: ~, sign len is 344, decrypt_txt is \n");
    refuses("\0x"s, "param wrong\nfile ~linux.json verify failed, sign is: \n", 2);
    refuses("", "get file size ~linux_sign.json faild size is 0\nread file ~linux_sign.json failed\n", 2);
    fs::remove(signature_file);
    expect_refusal("open file ~linux_sign.json faild\nread file ~linux_sign.json failed\n", 2);
}

TEST_F(Gate, RefusesAListThatChangesOrIsMissing) {
    install(kList, signature_of(kDigest));
    before_decode = [&] { std::ofstream(list_file, std::ios::app) << " "; };
    expect_refusal("file ~linux.json verify failed, sign file is ~linux_sign.json\n", 1);
    install(kList, signature_of(kDigest));
    before_decode = [&] { fs::remove(list_file); };
    expect_refusal("open file ~linux.json faild\nread file ~linux.json failed\n", 1);
    expect_refusal(
        "fopen ~linux.json failed\ncal file ~linux.json sha256 failed\ncal file ~linux.json base64 failed\n",
        3);
}

TEST_F(Gate, RefusesAProcessWithoutAName) {
    exe_link = "";
    expect_refusal("get process path failed, ret -1\nget process name failed\n", 0);
    exe_link = "no_slash";
    expect_refusal("get process name failed\nget process name failed\n", 0);
    install(kList, signature_of(kDigest));
    exe_link = "/" + std::string(4095, 'n'); // the longest there can be
    const std::string process = "process [" + exe_link.substr(1) + "] ";
    expect_refusal(process + "is not allowed to use ipc\n" + process + "is not white process\n", 0);
}

TEST_F(Gate, WholeFileRefusesWrongParameters) {
    for (const auto &[path, limit] : {std::pair<const char *, long>{nullptr, 1}, {"/", 0}, {"/", 10'485'761}})
        EXPECT_FALSE(tavipc::read_whole_file(path, limit));
    EXPECT_EQ(w.log.count("param wrong", 1), 3);
}

} // namespace
