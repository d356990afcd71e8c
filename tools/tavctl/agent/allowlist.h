// The signed allow-list of an agent: config/linux.json, an object with the array "linux" of SHA-256 digests
// of executables' names, and config/linux_sign.json, the base64 of an RSA signature (PKCS #1 v1.5, no digest
// information) over the hexadecimal SHA-256 of the list file. All functions that read or write throw Problem.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "agent/keys.h"

namespace tavctl {

class SignedList {
  public:
    // Of a configuration directory.
    explicit SignedList(const std::string &config)
        : directory(config), list_path(config + "/linux.json"), signature_path(config + "/linux_sign.json") {}
    const std::string directory, list_path, signature_path;

    std::string read_list() const;
    std::string read_signature() const;
    bool is_signed_by(EVP_PKEY *public_key, std::string_view list) const;
    // Writes the list with its signature by this key.
    void write(std::string_view list, EVP_PKEY *private_key) const;

    // The digests in a list.
    std::vector<std::string> entries_of(const std::string &list) const;
    // The list (empty: a new one) with these entries; everything else in it is kept.
    std::string with_entries(const std::string &list, const std::vector<std::string> &entries) const;
    // "tavctl allowlist VERB --key PRIVATE.pem --dir DIRECTORY NAME..."
    std::string command(const char *verb, const std::vector<std::string> &names = {}) const;
};

std::string sha256_hex(std::string_view bytes);
bool contains(const std::vector<std::string> &entries, const std::string &name);
Key built_in_key(); // the public key that the library verifies with

struct Verdict {
    bool allowed = false;
    std::string reason; // one line
    std::string remedy; // empty when allowed
};
// What the check of a library compiled with this key decides about an executable, by the list in "../config"
// beside its directory. The path may be a link, /proc/PID/exe for example.
Verdict judge_executable(const std::string &path);

// The configuration directory beside an executable's directory.
std::string config_beside(const std::string &executable);
std::string own_executable();

} // namespace tavctl
