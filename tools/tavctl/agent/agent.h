// An agent's own files: its signed allow-list with the keys, its identity, and what tavctl doctor finds.
#pragma once

#include <array>
#include <atomic>
#include <memory>

#include <openssl/evp.h>

#include "cli/cli.h"

namespace tavctl {

// --- keys of the allow-list (keys.cpp): an RSA pair of 2,048 bits. The private half signs lists and stays
// with the signer; the public half is compiled into the library.
template <auto release> struct Releaser {
    template <class T> void operator()(T *object) const { release(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;

// All throw Problem. A key other than RSA with 2,048 bits is refused.
Key load_public_key(const std::string &path);
Key load_private_key(const std::string &path);
Key parse_public_key(const std::string &pem, const std::string &name);
std::string public_pem(EVP_PKEY *key);

// Makes a pair, and never replaces a private key. With if_missing an existing one is kept, and a missing
// public half is made from it.
void make_key_pair(const std::string &private_path, const std::string &public_path, bool if_missing);

[[noreturn]] void throw_crypto_problem(const std::string &what);

// --- the signed allow-list (allowlist.cpp): config/linux.json, an object with the array "linux" of SHA-256
// digests of executables' names, and config/linux_sign.json, the base64 of an RSA signature (PKCS #1 v1.5, no
// digest information) over the hexadecimal SHA-256 of the list file. What reads or writes throws Problem.
class SignedList {
  public:
    explicit SignedList(const std::string &config)
        : directory(config), list_path(config + "/linux.json"), signature_path(config + "/linux_sign.json") {}
    const std::string directory, list_path, signature_path;

    std::string read_list() const { return read_regular_file(list_path); }
    bool is_signed_by(EVP_PKEY *public_key, std::string_view list) const;
    // Writes the list with its signature by this key.
    void write(std::string_view list, EVP_PKEY *private_key) const;

    std::vector<std::string> entries_of(const std::string &list) const; // the digests in a list
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

std::string config_beside(const std::string &executable); // the configuration directory beside its directory
std::string own_executable();

struct FileDigest {
    std::string sha256;
    uint64_t size = 0; // bytes that were read
    int error = 0;     // errno where reading ended early, or 0
};
// Reads the file from its beginning without moving the descriptor's position. Stops early when stop is set.
FileDigest digest_of(int fd, const std::atomic<bool> &stop = false);

// --- identity
std::string how_found(const std::string &directory); // "beside the directory of this executable"

// The result of GetMgrAddr, and what is missing in the files that it reads.
struct Manager {
    Manager();
    std::string address; // empty: none
    unsigned short port = 0;
    bool named = false;      // server.ini has [config] addr
    bool port_given = false; // server_port.ini has [port] ipc
    std::string text;        // "192.0.2.1, port 8083", or "none: ..."
};

// --- tavctl doctor
struct Finding {
    enum Verdict { kOk, kWarn, kFail, kSkipped, kVerdicts };
    Verdict verdict;
    std::string seen;
    std::string remedy; // commands, one per line, or a sentence
};
inline Finding ok(const std::string &seen) { return {Finding::kOk, seen, {}}; }
inline Finding warn(std::string seen, std::string remedy) { return {Finding::kWarn, seen, remedy}; }
inline Finding fail(std::string seen, std::string remedy) { return {Finding::kFail, seen, remedy}; }
inline Finding skip(const std::string &why) { return {Finding::kSkipped, why, {}}; }

class Findings {
  public:
    explicit Findings(Console &out) : out_(out) {}
    void add(const char *check, const Finding &finding); // prints and counts it
    bool summarize() const;                              // false when something failed

    bool directory = false; // the socket directory is there, and this user may make sockets in it
    bool allowed = false;   // the library's check permits the tool
    bool has_id = false;    // from the platform or stored: an endpoint need not make one

  private:
    Console &out_;
    std::array<size_t, Finding::kVerdicts> counts_{};
};

std::string as_root(const std::string &command); // with sudo for other users
std::string this_user();
std::string config_directory(); // as the library finds it, without ".."

void check_agent(Findings &findings); // doctor_agent.cpp

} // namespace tavctl
