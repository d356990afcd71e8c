// tavctl allowlist: makes keys, keeps the signed list, and explains why a process is refused.

#include <sys/file.h>

#include "agent/agent.h"
#include "commands.h"

namespace tavctl {
namespace {

// The list that --dir names, or the one beside the tool.
SignedList files_of(const Args &args) {
    for (const std::string &name : args.all("NAME"))
        if (name.empty() || name.find('/') != std::string::npos)
            throw misuse("\"" + name + "\" is not the name of an executable",
                         "give it without its directory");
    return SignedList(args.has("dir") ? args.text("dir") : config_beside(own_executable()));
}

// A list that is being changed, locked against other instances of the tool, and the key that signs it.
class Change {
  public:
    Change(Console &out, const Args &args)
        : files(files_of(args)), key(load_private_key(args.text("key"))), out_(out) {
        std::error_code error;
        fs::create_directories(files.directory, error);
        if (error)
            throw Problem("cannot make " + files.directory + ": " + error.message(),
                          "run it as the owner, or as root");
        lock_ = UniqueFd(open(files.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!lock_ || flock(lock_.get(), LOCK_EX) != 0)
            throw system_problem("cannot lock " + files.directory);
    }
    // The list as it is; empty when there is none. It must be signed by this key: its entries are about to be
    // signed again, and nobody without the key may have added to it.
    std::string trusted_list() const {
        if (!fs::exists(files.list_path)) return {};
        std::string list = files.read_list();
        if (!fs::exists(files.signature_path) || !files.is_signed_by(key.get(), list))
            throw Problem(files.list_path +
                              " is not signed by this key: it was changed, or signed by another key",
                          "look at it, then sign it as it is: " + files.command("sign"));
        return list;
    }
    int store(const std::string &list) const {
        files.write(list, key.get());
        const bool accepted = files.is_signed_by(built_in_key().get(), list);
        if (!accepted)
            std::cerr
                << "tavctl: warning: the library on this machine was built with another key and refuses "
                   "this list\n";
        const size_t count = files.entries_of(list).size();
        out_.say(Record("list", files.list_path, "names", count, "signed", true, "accepted", accepted),
                 "{list}: signed, {names,name}");
        return kSuccess;
    }
    const SignedList files;
    const Key key;

  private:
    Console &out_;
    UniqueFd lock_;
};

// The link /proc/PID/exe ends with this when the file that the process runs is no longer at its path.
constexpr std::string_view kDeleted = " (deleted)";

// What the library would decide about a process whose executable is no longer there: it takes the link's text
// for the name, so only a restart helps.
Verdict judge_replaced(const std::string &executable, const std::string &process) {
    if (fs::exists(executable))
        return {false, "it was replaced after process " + process + " started, which still runs the old file",
                "restart the process: the check goes by the file that it runs"};
    return {false, "it was removed after process " + process + " started",
            "install it again, then restart the process"};
}

} // namespace

int keygen(Console &out, const Args &args) {
    const std::string path = args.text("public");
    make_key_pair(args.text("private"), path, false);
    out.say(Record("private", args.text("private"), "public", path),
            "private key: {private} (signs allow-lists: keep it secret)\npublic key:  {public}");
    out.tell("Build the library with it: ./dev build -DTAVIPC_ALLOWLIST_KEY=" + fs::absolute(path).string());
    return kSuccess;
}

int allowlist_add(Console &out, const Args &args) {
    const Change change(out, args);
    const std::string before = change.trusted_list();
    auto entries = before.empty() ? std::vector<std::string>() : change.files.entries_of(before);
    for (const std::string &name : args.all("NAME"))
        if (!contains(entries, name)) entries.push_back(sha256_hex(name));
    return change.store(change.files.with_entries(before, entries));
}

int allowlist_remove(Console &out, const Args &args) {
    const Change change(out, args);
    const std::string before = change.trusted_list();
    if (before.empty()) throw Problem("there is no list " + change.files.list_path);
    auto entries = change.files.entries_of(before);
    for (const std::string &name : args.all("NAME"))
        if (std::erase(entries, sha256_hex(name)) == 0)
            throw Problem("\"" + name + "\" is not in " + change.files.list_path,
                          "tavctl allowlist verify NAME tells whether a name is in it");
    return change.store(change.files.with_entries(before, entries));
}

int allowlist_sign(Console &out, const Args &args) {
    const Change change(out, args);
    const SignedList &files = change.files;
    const std::string list = files.read_list();
    files.entries_of(list); // throws for a list that the library could not use
    const Key library_key = built_in_key();
    if (EVP_PKEY_eq(change.key.get(), library_key.get()) != 1 && fs::exists(files.signature_path) &&
        files.is_signed_by(library_key.get(), list))
        throw Problem(files.list_path + " is signed by the library's key; with " + args.text("key") +
                          " the library would refuse every module",
                      "if the modules get a library with that key: rm " + quoted(files.signature_path) +
                          ", then sign");
    return change.store(list);
}

int allowlist_verify(Console &out, const Args &args) {
    const SignedList files = files_of(args);
    const Key key = args.has("key") ? load_public_key(args.text("key")) : built_in_key();
    const std::string list = files.read_list();
    if (!files.is_signed_by(key.get(), list))
        throw Problem(files.signature_path + " is not this key's signature of " + files.list_path,
                      "sign it: " + files.command("sign"));
    const auto entries = files.entries_of(list);
    out.say(Record("list", files.list_path, "names", entries.size(), "valid", true),
            "{list}: the signature is valid, {names,name}");
    int status = kSuccess;
    for (const std::string &name : args.all("NAME")) {
        const bool allowed = contains(entries, name);
        out.say(Record("name", name, "allowed", allowed),
                allowed ? "{name}: allowed" : "{name}: NOT in the list");
        if (!allowed) status = kFailure;
    }
    return status;
}

int allowlist_why(Console &out, const Args &args) {
    const std::string process = args.text("PROCESS");
    std::string executable = process;
    bool replaced = false;
    if (number_of(process) >= 0) {
        std::error_code error;
        executable = fs::read_symlink("/proc/" + process + "/exe", error);
        if (error)
            throw Problem("process " + process + ": " + error.message(),
                          "give a process of this user, or a path");
        replaced = executable.ends_with(kDeleted) && !fs::exists(executable);
        if (replaced) executable.resize(executable.size() - kDeleted.size());
    } else if (process.find('/') == std::string::npos) {
        executable = fs::path(own_executable()).parent_path() / process;
    }
    const Verdict verdict = replaced ? judge_replaced(executable, process) : judge_executable(executable);
    Record record("executable", executable, "allowed", verdict.allowed, "reason", verdict.reason);
    if (!verdict.allowed) record.add("remedy", verdict.remedy);
    out.say(record, verdict.allowed ? "{executable}: allowed, {reason}" : "{executable}: refused, {reason}");
    if (!verdict.allowed) out.tell_remedy(verdict.remedy);
    return verdict.allowed ? kSuccess : kFailure;
}

} // namespace tavctl
