// tavctl allowlist: the life of the signed list, from the key pair to why a process is refused.
#include <algorithm>
#include <filesystem>
#include <iostream>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "allowlist.h"
#include "commands.h"
#include "files.h"
#include "problem.h"
#include "signed_list.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

struct Paths {
    std::string directory, list, signature;
    explicit Paths(const std::string &given)
        : directory(given.empty() ? config_beside(fs::read_symlink("/proc/self/exe")) : given),
          list(directory + "/linux.json"), signature(directory + "/linux_sign.json") {}
};

void check_names(const std::vector<std::string> &names) {
    for (const std::string &name : names)
        if (name.empty() || name.find('/') != std::string::npos)
            throw misuse("\"" + name + "\" is not the name of an executable",
                         "give it without its directory");
}

// Only one at a time changes a list.
Descriptor lock(const Paths &paths) {
    std::error_code error;
    fs::create_directories(paths.directory, error);
    if (error)
        throw Problem("cannot make " + paths.directory + ": " + error.message(),
                      "run it as the owner, or as root");
    Descriptor directory(open(paths.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || flock(directory.get(), LOCK_EX) != 0)
        throw system_problem("cannot lock " + paths.directory);
    return directory;
}

// The list as it is; empty when there is none. Its entries are about to be signed again: nobody may have
// added to it without the key.
std::string trusted_list(const Paths &paths, EVP_PKEY *key) {
    if (!fs::exists(paths.list)) return {};
    std::string list = read_regular_file(paths.list);
    const std::string signature = fs::exists(paths.signature) ? read_regular_file(paths.signature) : "";
    if (!signature_matches(key, list, signature))
        throw Problem(paths.list + " is not signed by this key: somebody changed it, or it is another key's",
                      "look at it, then sign it as it is: tavctl allowlist sign --key PRIVATE.pem --dir " +
                          quoted(paths.directory));
    return list;
}

std::string count_text(size_t count) { return grouped(count) + (count == 1 ? " name" : " names"); }

// Writes the list and its signature, and says so.
int store(Console &out, const Paths &paths, const std::string &list, EVP_PKEY *key) {
    const std::string signature = sign(key, list);
    const bool accepted = signature_matches(built_in_key().get(), list, signature);
    if (!accepted)
        std::cerr << "tavctl: warning: the library on this machine was built with another key and refuses "
                     "this list\n";
    NewFile list_file(paths.list, list), signature_file(paths.signature, signature);
    list_file.put();
    signature_file.put();
    const size_t count = entries_of(list, paths.list).size();
    out.say(
        Record().add("list", paths.list).add("names", count).add("signed", true).add("accepted", accepted),
        paths.list + ": signed, " + count_text(count));
    return kSuccess;
}

// The executable that is meant: a path, a process id, or a module in the directory of the tool.
std::string find_executable(const std::string &process) {
    if (process.find('/') != std::string::npos) return process;
    if (!process.empty() && std::ranges::all_of(process, [](char c) { return c >= '0' && c <= '9'; })) {
        const std::string link = "/proc/" + process + "/exe";
        std::error_code error;
        const fs::path executable = fs::read_symlink(link, error);
        if (error)
            throw Problem("process " + process + ": " + error.message(),
                          "give a process of this user, or a path");
        return executable;
    }
    return fs::read_symlink("/proc/self/exe").parent_path() / process;
}

} // namespace

int allowlist_keygen(Console &out, const KeygenOptions &options) {
    make_key_pair(options.private_path, options.public_path, false);
    out.say(Record().add("private", options.private_path).add("public", options.public_path),
            "private key: " + options.private_path + " (signs allow-lists: keep it secret)\n" +
                "public key:  " + options.public_path);
    out.tell("Build the library with it: ./dev build -DTAVIPC_ALLOWLIST_KEY=" +
             fs::absolute(options.public_path).string());
    return kSuccess;
}

int allowlist_add(Console &out, const ListOptions &options) {
    check_names(options.names);
    const Paths paths(options.directory);
    const Key key = load_private_key(options.key);
    const Descriptor locked = lock(paths);
    const std::string before = trusted_list(paths, key.get());
    auto entries = before.empty() ? std::vector<std::string>() : entries_of(before, paths.list);
    for (const std::string &name : options.names)
        if (const std::string digest = sha256_hex(name); std::ranges::count(entries, digest) == 0)
            entries.push_back(digest);
    return store(out, paths, with_entries(before, paths.list, entries), key.get());
}

int allowlist_remove(Console &out, const ListOptions &options) {
    check_names(options.names);
    const Paths paths(options.directory);
    const Key key = load_private_key(options.key);
    const Descriptor locked = lock(paths);
    const std::string before = trusted_list(paths, key.get());
    if (before.empty()) throw Problem("there is no list " + paths.list);
    auto entries = entries_of(before, paths.list);
    for (const std::string &name : options.names)
        if (std::erase(entries, sha256_hex(name)) == 0)
            throw Problem("\"" + name + "\" is not in " + paths.list,
                          "tavctl allowlist verify NAME tells who is in it");
    return store(out, paths, with_entries(before, paths.list, entries), key.get());
}

int allowlist_sign(Console &out, const ListOptions &options) {
    const Paths paths(options.directory);
    const Key key = load_private_key(options.key);
    const Descriptor locked = lock(paths);
    const std::string list = read_regular_file(paths.list);
    entries_of(list, paths.list); // refuses what the library could not use
    const Key library_key = built_in_key();
    if (EVP_PKEY_eq(key.get(), library_key.get()) != 1 && fs::exists(paths.signature) &&
        signature_matches(library_key.get(), list, read_regular_file(paths.signature)))
        throw Problem(paths.list + " is signed by the library's key; with " + options.key +
                          " the library would refuse every module",
                      "if the modules get a library with that key: rm " + quoted(paths.signature) +
                          ", then sign");
    return store(out, paths, list, key.get());
}

int allowlist_verify(Console &out, const ListOptions &options) {
    check_names(options.names);
    const Paths paths(options.directory);
    const Key key = options.key.empty() ? built_in_key() : load_public_key(options.key);
    const std::string list = read_regular_file(paths.list);
    if (!signature_matches(key.get(), list, read_regular_file(paths.signature)))
        throw Problem(paths.signature + " is not this key's signature of " + paths.list,
                      "sign it: tavctl allowlist sign --key PRIVATE.pem --dir " + quoted(paths.directory));
    const auto entries = entries_of(list, paths.list);
    out.say(Record().add("list", paths.list).add("names", entries.size()).add("valid", true),
            paths.list + ": the signature is valid, " + count_text(entries.size()));
    int status = kSuccess;
    for (const std::string &name : options.names) {
        const bool allowed = std::ranges::count(entries, sha256_hex(name)) > 0;
        out.say(Record().add("name", name).add("allowed", allowed),
                name + ": " + (allowed ? "allowed" : "NOT in the list"));
        if (!allowed) status = kFailure;
    }
    return status;
}

int allowlist_why(Console &out, const WhyOptions &options) {
    const std::string executable = find_executable(options.process);
    const Verdict verdict = judge_executable(executable);
    Record record;
    record.add("executable", executable).add("allowed", verdict.allowed).add("reason", verdict.reason);
    if (!verdict.allowed) record.add("remedy", verdict.remedy);
    out.say(record, executable + (verdict.allowed ? ": allowed, " : ": refused, ") + verdict.reason);
    if (!verdict.allowed) out.tell("  what to do: " + verdict.remedy);
    return verdict.allowed ? kSuccess : kFailure;
}

} // namespace tavctl
