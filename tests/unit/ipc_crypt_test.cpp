#define OPENSSL_SUPPRESS_DEPRECATED

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include "fakes.h"
#include "ipc/whole_file.h"
#include "tavipc/tav_agentid.h"

// Two functions that the gate calls, with a hand on each.
static std::optional<std::string> exe_link; // what the link holds ("": it cannot be read)
static std::function<void()> before_decode; // runs between the two readings of the list

template <class Function> static Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

extern "C" ssize_t readlink(const char *path, char *out, size_t size) noexcept {
    if (!exe_link) return real<decltype(::readlink)>("readlink")(path, out, size);
    return exe_link->empty() ? -1 : static_cast<ssize_t>(exe_link->copy(out, size));
}
extern "C" int Base64_Decode(const char *in, int in_len, unsigned char *out, int out_max) noexcept {
    if (before_decode) before_decode();
    return real<decltype(::Base64_Decode)>("Base64_Decode")(in, in_len, out, out_max);
}

namespace {

namespace fs = std::filesystem;
using std::string_literals::operator""s;

std::string sha256(const std::string &bytes) {
    unsigned char digest[32];
    SHA256(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), digest);
    std::string hex;
    for (unsigned char b : digest) (hex += "0123456789abcdef"[b >> 4]) += "0123456789abcdef"[b & 15];
    return hex;
}

std::string slurp(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void spill(const fs::path &path, const std::string &bytes) { std::ofstream(path, std::ios::binary) << bytes; }

std::string base64(const std::string &bytes) {
    unsigned char text[1024];
    const auto *in = reinterpret_cast<const unsigned char *>(bytes.data());
    return {text, text + EVP_EncodeBlock(text, in, static_cast<int>(bytes.size()))};
}

const std::string kName = "ipc_crypt_test";
std::string list_of(const std::string &entries) { return "{\"version\": 7, \"linux\": [" + entries + "]}"; }
const std::string kGoodList = list_of("\"" + sha256("other") + "\", 5, \"" + sha256(kName) + "\", \"last\"");

class Gate : public FakeWorld {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/ipc_crypt.XXXXXX";
        root_ = mkdtemp(pattern);
        for (const char *name : {"bin", "config"}) fs::create_directory(root_ / name);
        w.deployment.base = root_ / "bin";
        exe_link = "/opt/somewhere/" + kName;
    }
    void TearDown() override {
        fs::remove_all(root_);
        exe_link.reset();
        before_decode = nullptr;
    }

    void install(const std::string &list, const std::string &signature) {
        spill(list_file(), list);
        spill(signature_file(), signature);
    }
    fs::path list_file() { return root_ / "config/linux.json"; }
    fs::path signature_file() { return root_ / "config/linux_sign.json"; }

    // Asks the gate. Its lines of level 1 must be these, and it must refuse exactly when there are some. In
    // them {L} and {S} stand for the paths of the list and the signature, {T} for the signature.
    void expect(std::vector<std::string> lines) {
        w.log.lines.clear();
        const std::pair<std::string, std::string> marks[] = {{"{L}", root_ / "bin/../config/linux.json"},
                                                             {"{S}", root_ / "bin/../config/linux_sign.json"},
                                                             {"{T}", slurp(signature_file()).c_str()}};
        for (std::string &line : lines)
            for (const auto &[mark, text] : marks)
                for (size_t at; (at = line.find(mark)) != std::string::npos;)
                    line.replace(at, mark.size(), text);
        EXPECT_EQ(c_get_process(), lines.empty() ? 0 : -1);
        std::vector<std::string> refusals;
        for (const auto &line : w.log.lines) {
            EXPECT_EQ(line.source, "ipc_crypt");
            EXPECT_TRUE(line.level == 1 || line.level == 4);
            if (line.level == 1) refusals.push_back(line.text);
        }
        EXPECT_EQ(refusals, lines);
        EXPECT_EQ(ERR_peek_error(), 0u) << "libcrypto's queue is the application's";
    }

    fs::path root_;
};

// With the private half of the library's key, which only a build with a development pair has.
class SignedGate : public Gate {
  protected:
    void SetUp() override {
        // Read with the real link, before the base class puts its own in place.
        const fs::path build = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
        const std::string header = slurp(build / "generated/allowlist_key.h");
        ASSERT_NE(header, "");
        FILE *file = fopen((build / "devkey/private.pem").c_str(), "r");
        if (!file) GTEST_SKIP() << "the library has a key whose private half is not here";
        key_.reset(PEM_read_RSAPrivateKey(file, nullptr, nullptr, nullptr));
        fclose(file);
        ASSERT_TRUE(key_);
        if (header.find(slurp(build / "devkey/public.pem")) == std::string::npos)
            GTEST_SKIP() << "the library has another key than the development pair";
        Gate::SetUp();
    }
    // The signature file's text for what the signature shall carry.
    std::string signature_of(const std::string &text) {
        std::string out(256, '\0');
        EXPECT_EQ(RSA_private_encrypt(
                      static_cast<int>(text.size()), reinterpret_cast<const unsigned char *>(text.data()),
                      reinterpret_cast<unsigned char *>(out.data()), key_.get(), RSA_PKCS1_PADDING),
                  256);
        return base64(out);
    }
    using Gate::install;
    void install(const std::string &list) { install(list, signature_of(sha256(list))); }

    std::unique_ptr<RSA, decltype(&RSA_free)> key_{nullptr, RSA_free};
};

const std::string kFinal = "process [" + kName + "] is not white process";
const std::string kBadSign = "file {L} verify failed, sign is: {T}";
const std::string kBadFile = "file {L} verify failed, sign file is {S}";

TEST_F(SignedGate, AllowsANameOfTheSignedList) {
    install(kGoodList);
    setenv("TAV_INSTALL_ROOT", "/nonexistent", 1); // must not lead to another list
    expect({});
    unsetenv("TAV_INSTALL_ROOT");
    std::vector<std::string> details;
    for (const auto &line : w.log.lines) details.push_back(line.text);
    const std::string list = w.deployment.base + "/../config/linux.json", signature = slurp(signature_file());
    const std::string sign_path = w.deployment.base + "/../config/linux_sign.json";
    EXPECT_EQ(details, (std::vector<std::string>{
                           "process name is " + kName, "name " + kName + " sha256 " + sha256(kName),
                           "file " + sign_path + " size is 344", "sign is " + signature + ", length is 344",
                           "file " + list + " sha256 is " + sha256(kGoodList),
                           "file " + list + " size is " + std::to_string(kGoodList.size())}));
    install(kGoodList, signature_of(sha256(kGoodList) + "\0rest"s));
    expect({});
}

TEST_F(SignedGate, RefusesBySignedList) {
    std::string upper = sha256(kName);
    for (char &c : upper) c = static_cast<char>(toupper(c));
    const std::string not_allowed = "process [" + kName + "] is not allowed to use ipc";
    const std::pair<std::string, std::string> cases[] = {
        {list_of("\"" + upper + "\""), not_allowed},
        {list_of("\"" + sha256(kName) + "0\""), not_allowed},
        {list_of(""), not_allowed},
        {"{\"linux\": \"" + sha256(kName) + "\"}", not_allowed},
        {"{\"other\": []}", "parse object linux json failed, content is {\"other\": []}"},
        {"no json", "parse json failed, content is no json"},
    };
    for (const auto &[list, line] : cases) {
        install(list);
        expect({line, kFinal});
    }
    install(std::string(10'485'761, ' '));
    expect({"get file size {L} faild size is 10485761", "read file {L} failed", kFinal});
}

TEST_F(SignedGate, RefusesWithoutAValidSignature) {
    const std::string digest = sha256(kGoodList);
    const auto differs = [&](const std::string &text) {
        return "file {L} verify failed, sha256 " + digest + ", decrypt_txt is " + text;
    };
    const struct {
        std::string signature;
        std::vector<std::string> lines;
    } cases[] = {
        {"", {"get file size {S} faild size is 0", "read file {S} failed"}},
        {"\0x"s, {"param wrong", kBadSign}},
        {"!", {"base64 decode failed, sign is {T}", kBadSign}},
        {base64(std::string(257, 'x')), {"base64 decode failed, sign is {T}", kBadSign}},
        {base64(std::string(256, '\1')),
         {"ret is -1, file {L} decrypt failed, sign is: {T}, sign len is 344, decrypt_txt is ", kBadSign}},
        {signature_of(sha256("x")), {differs(sha256("x")), kBadSign}},
        {signature_of(digest + "0"), {differs(digest + "0"), kBadSign}},
        {signature_of(digest.substr(1)), {differs(digest.substr(1)), kBadSign}},
        {signature_of(""), {differs(""), kBadSign}},
    };
    for (const auto &c : cases) {
        install(kGoodList, c.signature);
        auto lines = c.lines;
        lines.insert(lines.end(), {kBadFile, kFinal});
        expect(lines);
    }
    fs::remove(signature_file());
    expect({"open file {S} faild", "read file {S} failed", kBadFile, kFinal});
}

TEST_F(SignedGate, RefusesAListThatIsMissingOrChanges) {
    install(kGoodList);
    before_decode = [&] { spill(list_file(), list_of("\"" + sha256(kName) + "\" ")); };
    expect({kBadFile, kFinal});
    install(kGoodList);
    before_decode = [&] { fs::remove(list_file()); };
    expect({"open file {L} faild", "read file {L} failed", kFinal});
    expect({"fopen {L} failed", "cal file {L} sha256 failed", "cal file {L} base64 failed", kBadSign,
            kBadFile, kFinal});
}

TEST_F(Gate, RefusesAProcessWithoutAName) {
    exe_link = "";
    expect({"get process path failed, ret -1", "get process name failed"});
    exe_link = "no_slash";
    expect({"get process name failed", "get process name failed"});
    exe_link = "/" + std::string(4095, 'n'); // the longest there can be
    expect({"open file {S} faild", "read file {S} failed", kBadFile,
            "process [" + std::string(4095, 'n') + "] is not white process"});
}

TEST_F(Gate, WholeFileRefusesWrongParameters) {
    for (const auto &[path, limit] : {std::pair<const char *, long>{nullptr, 1}, {"/", 0}, {"/", 10'485'761}})
        EXPECT_FALSE(tavipc::read_whole_file(path, limit));
    EXPECT_EQ(w.log.count("param wrong", 1), 3);
}

} // namespace
