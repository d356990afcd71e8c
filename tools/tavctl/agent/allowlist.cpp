#include <cjson/cJSON.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include "agent/agent.h"
#include "allowlist_key.h"
#include "tavbase.h"

namespace tavctl {
namespace {

const unsigned char *bytes_of(std::string_view text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}
unsigned char *bytes_of(std::string &text) { return reinterpret_cast<unsigned char *>(text.data()); }

std::string base64_encode(const std::string &bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0'); // with the NUL that is written too
    text.resize(static_cast<size_t>(
        EVP_EncodeBlock(bytes_of(text), bytes_of(std::string_view(bytes)), static_cast<int>(bytes.size()))));
    return text;
}

// Empty when the text is not base64.
std::string base64_decode(const std::string &text) {
    std::string bytes(text.size(), '\0');
    const int size = Base64_Decode(text.data(), static_cast<int>(text.size()), bytes_of(bytes),
                                   static_cast<int>(bytes.size()));
    bytes.resize(static_cast<size_t>(std::max(size, 0)));
    return bytes;
}

// Applies one RSA operation with PKCS #1 padding and no digest to the input. Empty when it fails.
template <class Init, class Operation>
std::string rsa(EVP_PKEY *key, const std::string &input, Init init, Operation operation) {
    const KeyContext context(EVP_PKEY_CTX_new(key, nullptr));
    std::string output(static_cast<size_t>(EVP_PKEY_get_size(key)), '\0');
    size_t size = output.size();
    if (!context || init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        operation(context.get(), bytes_of(output), &size, bytes_of(std::string_view(input)), input.size()) !=
            1)
        return {};
    output.resize(size);
    return output;
}

using Json = std::unique_ptr<cJSON, Releaser<cJSON_Delete>>;

Json parse(const std::string &list, const std::string &path) {
    Json root(cJSON_Parse(list.c_str()));
    const bool has_array = cJSON_IsArray(cJSON_GetObjectItem(root.get(), "linux"));
    if (!has_array)
        throw Problem(path + (root ? " has no array \"linux\"" : " is not JSON"),
                      "make a new list: mv " + quoted(path) + " " + quoted(path + ".bad") +
                          "; tavctl allowlist add ...");
    return root;
}

Verdict judge(const fs::path &executable) {
    const std::string name = executable.filename();
    const SignedList files(config_beside(executable));
    std::string remedy = files.command("add", {name}); // of the step that throws
    try {
        const std::string list = files.read_list();
        remedy = files.command("sign");
        if (!files.is_signed_by(built_in_key().get(), list))
            throw Problem(files.signature_path + " is not a signature of " + files.list_path +
                          " by the key compiled into the library");
        remedy.clear(); // the problem has one
        const auto entries = files.entries_of(list);
        remedy = files.command("add", {name});
        if (!contains(entries, name)) throw Problem("the name \"" + name + "\" is not in " + files.list_path);
    } catch (const Problem &problem) {
        return {false, problem.what(), remedy.empty() ? problem.remedy() : remedy};
    }
    return {true, "the name \"" + name + "\" is in " + files.list_path + ", whose signature is valid", {}};
}

} // namespace

bool SignedList::is_signed_by(EVP_PKEY *public_key, std::string_view list) const {
    const std::string signed_text = rsa(public_key, base64_decode(read_regular_file(signature_path)),
                                        EVP_PKEY_verify_recover_init, EVP_PKEY_verify_recover);
    ERR_clear_error();
    return std::string_view(signed_text.c_str()) == sha256_hex(list); // up to a NUL, as the library compares
}

void SignedList::write(std::string_view list, EVP_PKEY *private_key) const {
    const std::string signature = rsa(private_key, sha256_hex(list), EVP_PKEY_sign_init, EVP_PKEY_sign);
    if (signature.empty()) throw_crypto_problem("cannot sign");
    NewFile list_file(list_path, list), signature_file(signature_path, base64_encode(signature));
    list_file.put();
    signature_file.put();
}

std::vector<std::string> SignedList::entries_of(const std::string &list) const {
    const Json root = parse(list, list_path);
    std::vector<std::string> entries;
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, cJSON_GetObjectItem(root.get(), "linux")) if (cJSON_IsString(entry))
        entries.emplace_back(entry->valuestring);
    return entries;
}

std::string SignedList::with_entries(const std::string &list, const std::vector<std::string> &entries) const {
    const Json root = list.empty() ? Json(cJSON_CreateObject()) : parse(list, list_path);
    cJSON *array = cJSON_CreateArray();
    for (const std::string &entry : entries) cJSON_AddItemToArray(array, cJSON_CreateString(entry.c_str()));
    if (!cJSON_ReplaceItemInObject(root.get(), "linux", array))
        cJSON_AddItemToObject(root.get(), "linux", array);
    const std::unique_ptr<char, Releaser<cJSON_free>> text(cJSON_Print(root.get()));
    return std::string(text.get()) + "\n";
}

std::string SignedList::command(const char *verb, const std::vector<std::string> &names) const {
    std::string text =
        std::string("tavctl allowlist ") + verb + " --key PRIVATE.pem --dir " + quoted(directory);
    if (std::ranges::any_of(names, [](const std::string &name) { return name.starts_with('-'); }))
        text += " --";
    for (const std::string &name : names) text += " " + quoted(name);
    return text;
}

std::string sha256_hex(std::string_view bytes) {
    std::string digest(SHA256_DIGEST_LENGTH, '\0');
    SHA256(bytes_of(bytes), bytes.size(), bytes_of(digest));
    return hex_of(digest);
}

bool contains(const std::vector<std::string> &entries, const std::string &name) {
    return std::ranges::count(entries, sha256_hex(name)) > 0;
}

Key built_in_key() { return parse_public_key(tavipc::kAllowlistKey, "the key compiled into the library"); }

std::string config_beside(const std::string &executable) {
    return (fs::path(executable).parent_path().parent_path() / "config").string();
}

std::string own_executable() { return fs::read_symlink("/proc/self/exe"); }

Verdict judge_executable(const std::string &path) {
    std::error_code error;
    const fs::path executable = fs::canonical(path, error);
    if (error)
        return {false, "there is no executable " + path, "give the path of an executable, or a process id"};
    if (!fs::is_regular_file(executable, error) || access(executable.c_str(), X_OK) != 0)
        return {false, executable.string() + " is not an executable file",
                "chmod +x it, or give another path"};
    return judge(executable);
}

FileDigest digest_of(int fd, const std::atomic<bool> &stop) {
    const std::unique_ptr<EVP_MD_CTX, Releaser<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
    bool done = context && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1;
    FileDigest digest;
    std::vector<char> buffer(1u << 20);
    while (done && !stop) {
        const ssize_t got = pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(digest.size));
        if (got < 0) digest.error = errno;
        if (got <= 0) break;
        done = EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(got)) == 1;
        digest.size += static_cast<uint64_t>(got);
    }
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (!done || EVP_DigestFinal_ex(context.get(), bytes, &length) != 1) throw_crypto_problem("SHA-256");
    digest.sha256 = hex_of({reinterpret_cast<const char *>(bytes), length});
    return digest;
}

} // namespace tavctl
