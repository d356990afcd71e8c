// The list is config/linux.json, an object with the array "linux" of SHA-256 digests of executables' names.
// Its signature, config/linux_sign.json, is the base64 of an RSA signature (PKCS #1 v1.5, no digest
// information) over the hexadecimal SHA-256 of the list file.
#include "allowlist.h"

#include <algorithm>
#include <filesystem>

#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <unistd.h>

#include "allowlist_key.h"
#include "console.h"
#include "files.h"
#include "problem.h"
#include "signed_list.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

const unsigned char *bytes_of(const std::string &text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}
unsigned char *bytes_of(std::string &text) { return reinterpret_cast<unsigned char *>(text.data()); }

std::string base64_encode(const std::string &bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0'); // room for the NUL that is written too
    text.resize(static_cast<size_t>(
        EVP_EncodeBlock(bytes_of(text), bytes_of(bytes), static_cast<int>(bytes.size()))));
    return text;
}

// Empty when the text is not base64.
std::string base64_decode(std::string text) {
    while (text.ends_with('\n') || text.ends_with('\r')) text.pop_back();
    std::string bytes(text.size() / 4 * 3 + 3, '\0');
    const int size = EVP_DecodeBlock(bytes_of(bytes), bytes_of(text), static_cast<int>(text.size()));
    if (size < 0) return {};
    const auto padding = std::min<ptrdiff_t>(std::count(text.begin(), text.end(), '='), size);
    bytes.resize(static_cast<size_t>(size - padding));
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
        operation(context.get(), bytes_of(output), &size, bytes_of(input), input.size()) != 1)
        return {};
    output.resize(size);
    return output;
}

using Json = std::unique_ptr<cJSON, Releaser<cJSON_Delete>>;

Json parse_list(const std::string &text, const std::string &path) {
    Json root(cJSON_Parse(text.c_str()));
    if (!root)
        throw Problem(path + " is not JSON", "make the list anew: mv " + quoted(path) + " " +
                                                 quoted(path + ".bad") + "; tavctl allowlist add ...");
    if (!cJSON_IsArray(cJSON_GetObjectItem(root.get(), "linux")))
        throw Problem(path + " has no array \"linux\"", "make the list anew: mv " + quoted(path) + " " +
                                                            quoted(path + ".bad") +
                                                            "; tavctl allowlist add ...");
    return root;
}

Verdict refused(std::string reason, std::string remedy) {
    return {false, std::move(reason), std::move(remedy)};
}

std::string sign_command(const std::string &directory) {
    return "tavctl allowlist sign --key PRIVATE.pem --dir " + quoted(directory);
}

} // namespace

std::string sha256_hex(std::string_view bytes) {
    std::string digest(SHA256_DIGEST_LENGTH, '\0');
    SHA256(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), bytes_of(digest));
    return hex_of(digest);
}

Key built_in_key() { return parse_public_key(tavipc::kAllowlistKey, "the key compiled into the library"); }

std::string sign(EVP_PKEY *private_key, std::string_view list) {
    const std::string signature = rsa(private_key, sha256_hex(list), EVP_PKEY_sign_init, EVP_PKEY_sign);
    if (signature.empty()) throw_crypto_problem("cannot sign");
    return base64_encode(signature);
}

bool signature_matches(EVP_PKEY *public_key, std::string_view list, const std::string &signature_text) {
    const std::string signed_text =
        rsa(public_key, base64_decode(signature_text), EVP_PKEY_verify_recover_init, EVP_PKEY_verify_recover);
    ERR_clear_error();
    // The library compares up to the first NUL.
    return std::string_view(signed_text.c_str()) == sha256_hex(list);
}

std::vector<std::string> entries_of(const std::string &list, const std::string &path) {
    const Json root = parse_list(list, path);
    std::vector<std::string> entries;
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, cJSON_GetObjectItem(root.get(), "linux")) if (cJSON_IsString(entry))
        entries.emplace_back(entry->valuestring);
    return entries;
}

std::string with_entries(const std::string &list, const std::string &path,
                         const std::vector<std::string> &entries) {
    const Json root = list.empty() ? Json(cJSON_CreateObject()) : parse_list(list, path);
    cJSON *array = cJSON_CreateArray();
    for (const std::string &entry : entries) cJSON_AddItemToArray(array, cJSON_CreateString(entry.c_str()));
    if (!cJSON_ReplaceItemInObject(root.get(), "linux", array))
        cJSON_AddItemToObject(root.get(), "linux", array);
    const std::unique_ptr<char, Releaser<cJSON_free>> text(cJSON_Print(root.get()));
    return std::string(text.get()) + "\n";
}

std::string config_beside(const std::string &executable) {
    return (fs::path(executable).parent_path().parent_path() / "config").string();
}

Verdict judge_executable(const std::string &path) {
    std::error_code error;
    const fs::path executable = fs::canonical(path, error);
    if (error)
        return refused("there is no executable " + path, "give the path of an executable, or a process id");
    if (!fs::is_regular_file(executable, error) || access(executable.c_str(), X_OK) != 0)
        return refused(executable.string() + " is no executable file", "chmod +x it, or give another path");
    const std::string name = executable.filename(), directory = config_beside(executable);
    const std::string list_path = directory + "/linux.json", signature_path = directory + "/linux_sign.json";
    const std::string add = "tavctl allowlist add --key PRIVATE.pem --dir " + quoted(directory) +
                            (name.starts_with('-') ? " -- " : " ") + quoted(name);
    std::string list, signature;
    try {
        list = read_regular_file(list_path);
    } catch (const Problem &problem) {
        return refused(std::string(problem.what()) + " (the list lies beside the executable's directory)",
                       add);
    }
    try {
        signature = read_regular_file(signature_path);
    } catch (const Problem &problem) {
        return refused(problem.what(), sign_command(directory));
    }
    if (!signature_matches(built_in_key().get(), list, signature))
        return refused(signature_path + " is no signature of " + list_path +
                           " by the key compiled into the library",
                       "sign the list with that key's private half: " + sign_command(directory));
    try {
        const auto entries = entries_of(list, list_path);
        if (std::ranges::count(entries, sha256_hex(name)) == 0)
            return refused("the name \"" + name + "\" is not in " + list_path, add);
    } catch (const Problem &problem) {
        return refused(problem.what(), problem.remedy());
    }
    return {true, "the name \"" + name + "\" is in " + list_path + ", whose signature is valid", {}};
}

} // namespace tavctl
