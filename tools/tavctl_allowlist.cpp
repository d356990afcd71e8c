// Allow-lists: DIR/linux.json names the executables that may use IPC by the SHA-256 of their names, and
// DIR/linux_sign.json is the base64 of an RSA signature (PKCS #1 v1.5, no digest information) over the
// hexadecimal SHA-256 of the list file.
#include "tavctl.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <iostream>

#include <cjson/cJSON.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

namespace tavctl {
namespace {

namespace fs = std::filesystem;

constexpr const char *kListName = "linux.json";
constexpr const char *kSignatureName = "linux_sign.json";
constexpr const char *kListMember = "linux";

using Json = std::unique_ptr<cJSON, Releaser<cJSON_Delete>>;

std::string sha256_hex(std::string_view bytes) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), digest);
    std::string hex;
    for (const unsigned char byte : digest) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

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

std::string sign(EVP_PKEY *private_key, std::string_view list) {
    std::string signature = rsa(private_key, sha256_hex(list), EVP_PKEY_sign_init, EVP_PKEY_sign);
    if (signature.empty()) throw_crypto_error("cannot sign");
    return base64_encode(signature);
}

bool signature_matches(EVP_PKEY *public_key, std::string_view list, const std::string &signature_text) {
    std::string signed_text =
        rsa(public_key, base64_decode(signature_text), EVP_PKEY_verify_recover_init, EVP_PKEY_verify_recover);
    ERR_clear_error();
    // The library compares up to the first NUL.
    return std::string_view(signed_text.c_str()) == sha256_hex(list);
}

std::string make_list(const std::vector<std::string> &names) {
    std::string text = "{\n  \"linux\": [";
    for (size_t i = 0; i < names.size(); ++i)
        text += std::string(i ? "," : "") + "\n    \"" + sha256_hex(names[i]) + '"';
    return text + "\n  ]\n}\n";
}

// The entries of the list; throws when it is not a list that the library could use.
std::vector<std::string> entries_of(const std::string &list, const std::string &path) {
    const Json root(cJSON_Parse(list.c_str()));
    if (!root) throw Error(path + " is not JSON");
    const cJSON *array = cJSON_GetObjectItem(root.get(), kListMember);
    if (!cJSON_IsArray(array)) throw Error(path + " has no array \"linux\"");
    std::vector<std::string> entries;
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, array) if (cJSON_IsString(entry)) entries.emplace_back(entry->valuestring);
    return entries;
}

void check_names(const std::vector<std::string> &names) {
    for (const std::string &name : names)
        if (name.empty() || name.find('/') != std::string::npos)
            throw UsageError("\"" + name + "\" is not the name of an executable (without its directory)");
}

int allowlist_sign(const Arguments &arguments) {
    const auto given_list = arguments.find("--list");
    const auto &names = arguments.plain();
    check_names(names);
    if (given_list.has_value() != names.empty())
        throw UsageError("give either --list or the names of the executables");
    const std::string key_path = arguments.required("--key");
    const fs::path directory = arguments.find("--out").value_or(".");

    const Key key = load_private_key(key_path);
    const std::string list = given_list ? read_file(*given_list) : make_list(names);
    if (list.empty()) throw Error(*given_list + " is empty");
    const std::string signature = sign(key.get(), list);
    fs::create_directories(directory);
    const std::string list_path = directory / kListName;
    std::error_code ignored;
    if (!given_list || !fs::equivalent(*given_list, list_path, ignored)) write_file(list_path, list);
    write_file(directory / kSignatureName, signature);
    std::cout << "signed " << list_path << ", "
              << (given_list ? "as it is" : std::to_string(names.size()) + " name(s)") << '\n';
    return kSuccess;
}

int allowlist_verify(const Arguments &arguments) {
    const Key key = load_public_key(arguments.required("--key"));
    const fs::path directory = arguments.required("--dir");
    check_names(arguments.plain());
    const std::string list_path = directory / kListName, signature_path = directory / kSignatureName;
    const std::string list = read_file(list_path);
    if (!signature_matches(key.get(), list, read_file(signature_path)))
        throw Error(signature_path + " is not this key's signature of " + list_path);
    const auto entries = entries_of(list, list_path);
    std::cout << list_path << ": signature is valid, " << entries.size() << " name(s)\n";
    int status = kSuccess;
    for (const std::string &name : arguments.plain()) {
        const bool allowed = std::ranges::count(entries, sha256_hex(name)) > 0;
        std::cout << name << ": " << (allowed ? "allowed" : "NOT in the list") << '\n';
        if (!allowed) status = kFailure;
    }
    return status;
}

} // namespace

std::span<const Command> allowlist_commands() {
    static const std::array commands{
        Command{"allowlist",
                "sign",
                "--key PRIVATE.pem [--out DIR] (--list FILE | NAME...)",
                "      Writes DIR/linux.json and its signature DIR/linux_sign.json (DIR: the current\n"
                "      directory). NAME is an executable's name; --list signs an existing list as it is.",
                {"--key", "--list", "--out"},
                {},
                allowlist_sign},
        Command{"allowlist",
                "verify",
                "--key PUBLIC.pem --dir DIR [NAME...]",
                "      Checks the signature of DIR/linux.json, and that each NAME is in the list.",
                {"--key", "--dir"},
                {},
                allowlist_verify},
    };
    return commands;
}

} // namespace tavctl
