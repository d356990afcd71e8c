// tavctl - the command-line tool. A command is a group and a verb ("allowlist sign"); each group lives in a
// file of its own, which offers a table of its commands, and tavctl.cpp finds and runs the right one.
//
// Commands throw: UsageError ends the tool with status 2, Error with status 1. It is run while the library
// is being built, so nothing here may need the library.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

namespace tavctl {

inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kMisuse = 2;

struct Error : std::runtime_error {
    using runtime_error::runtime_error;
};
struct UsageError : Error {
    using Error::Error;
};

// The words after the verb: "--name value", "--name=value", "--flag", plain words, and "--", after which
// every word is plain.
class Arguments {
  public:
    Arguments(std::span<char *const> words, std::span<const std::string_view> options,
              std::span<const std::string_view> flags);
    std::string required(std::string_view option) const;
    std::optional<std::string> find(std::string_view option) const;
    bool flag(std::string_view name) const { return find(name).has_value(); }
    const std::vector<std::string> &plain() const { return plain_; }
    void no_plain() const; // refuses plain words

  private:
    std::map<std::string, std::string, std::less<>> options_;
    std::vector<std::string> plain_;
};

struct Command {
    std::string_view group, verb;
    std::string_view synopsis; // what follows "tavctl GROUP VERB"
    std::string_view summary;  // one or more indented lines
    std::vector<std::string_view> options, flags;
    int (*run)(const Arguments &);
};

std::span<const Command> key_commands();
std::span<const Command> allowlist_commands();

// --- files (tavctl_files.cpp)
inline constexpr size_t kMaxFileSize = 10'485'760; // what the library reads of a list or a signature

std::string read_file(const std::string &path);
// All or nothing: a reader sees the old file or the whole new one. The process's umask applies to mode.
void write_file(const std::string &path, std::string_view content, unsigned mode = 0644);

// --- keys (tavctl_key.cpp)
template <auto release> struct Releaser {
    template <class T> void operator()(T *object) const { release(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;

Key load_public_key(const std::string &path); // both refuse everything but RSA with 2,048 bits
Key load_private_key(const std::string &path);
[[noreturn]] void throw_crypto_error(const std::string &what);

} // namespace tavctl
