// What the agent's own files tell: configuration, sockets, allow-list.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

#include "allowlist.h"
#include "doctor.h"
#include "files.h"
#include "identity.h"
#include "module.h"
#include "processes.h"
#include "signed_list.h"
#include "sockets.h"
#include "tavaux.h"
#include "tavbase.h"
#include "tavipc/tav_agentid.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

constexpr size_t kLongestPath = 107;

std::string owner_text(const struct stat &file) {
    char mode[16];
    snprintf(mode, sizeof mode, "%04o", file.st_mode & 07777);
    return "owner " + user_name(file.st_uid) + ", mode " + mode;
}

void check_configuration(Findings &findings) {
    const std::string path = config_directory(), how = how_found(configuration_directory());
    struct stat directory {};
    if (stat(path.c_str(), &directory) != 0)
        return findings.fail("configuration", path + ", " + how + ": " + std::strerror(errno),
                             "mkdir -p " + quoted(path) + "\ntavctl allowlist add --key PRIVATE.pem --dir " +
                                 quoted(path) + " NAME...");
    const std::string seen = path + ", " + how + ", " + owner_text(directory);
    std::string open_files; // what everybody may write
    for (const char *name :
         {"agent.ini", "server.ini", "server_port.ini", "linux.json", "linux_sign.json", "machineid"}) {
        struct stat file {};
        const std::string file_path = path + "/" + name;
        if (stat(file_path.c_str(), &file) == 0 && (file.st_mode & S_IWOTH))
            open_files += " " + quoted(file_path);
    }
    if (directory.st_mode & S_IWOTH) open_files += " " + quoted(path);
    if (!open_files.empty())
        findings.fail("configuration", seen + "; everybody may write" + open_files,
                      as_root("chmod o-w" + open_files));
    else if ((directory.st_mode & S_IWGRP) && directory.st_gid != 0)
        findings.warn("configuration", seen + ": its group may write", as_root("chmod g-w " + quoted(path)));
    else
        findings.ok("configuration", seen);
}

void check_agent_ini(Findings &findings) {
    const std::string path = config_beside(executable()) + "/agent.ini";
    const std::unique_ptr<ini_file_t, decltype(&ini_file_free)> file(ini_file_load(path.c_str()),
                                                                     ini_file_free);
    const char *used = GetDeployTypeStr();
    const std::string holds =
        "location " + std::to_string(tav_get_location()) + ", deployment type " + (used ? used : "none");
    const std::string edit = "${EDITOR:-vi} " + quoted(path);
    if (!file && errno == ENOENT)
        return findings.warn("agent.ini", "there is no " + path + ", so: " + holds,
                             "printf '[agent]\\nlocation = 1\\n' > " + quoted(path));
    if (!file) return findings.fail("agent.ini", path + ": " + std::strerror(errno), edit);
    const char *location = ini_file_get(file.get(), "agent", "location");
    const char *type = ini_file_get(file.get(), "agent", "deploy_type");
    if (location && (number_of(location) < 0 || number_of(location) > 255))
        findings.fail("agent.ini", std::string("location = ") + location + " is no number from 0 to 255",
                      edit);
    else if (type && *type && !used)
        findings.fail("agent.ini",
                      std::string("deploy_type = ") + type +
                          " is not accepted: it is a path relative to /var of at most 64 bytes, without ..",
                      edit);
    else if (!location)
        findings.warn("agent.ini", path + " has no [agent] location, so: " + holds, edit);
    else
        findings.ok("agent.ini", holds);
}

// Whether this user could make the directory.
bool may_make(const std::string &path) {
    fs::path above = fs::path(path).parent_path();
    while (access(above.c_str(), F_OK) != 0 && above.has_relative_path()) above = above.parent_path();
    return access(above.c_str(), W_OK | X_OK) == 0;
}

// True when an endpoint could be opened there.
bool check_socket_directory(Findings &findings) {
    const std::string path = socket_directory(tav_get_location());
    const std::string make = "start a module of the agent, or as its user: install -d " + quoted(path);
    struct stat directory {};
    if (stat(path.c_str(), &directory) != 0) {
        const std::string reason = std::strerror(errno);
        if (errno == ENOENT && may_make(path))
            findings.warn("socket directory", path + " is not there; the first endpoint makes it", make);
        else
            findings.fail("socket directory",
                          path + ": " + reason + ", and the user " + this_user() + " cannot make it", make);
        return false;
    }
    const std::string longest = path + "/ipc" + std::to_string(INT32_MAX) + "_99999";
    const std::string seen = path + ", " + owner_text(directory);
    if (!S_ISDIR(directory.st_mode))
        return findings.fail("socket directory", path + " is no directory",
                             "mv " + quoted(path) + " " + quoted(path + ".old")),
               false;
    if (access(path.c_str(), W_OK | X_OK) != 0)
        return findings.fail(
                   "socket directory", seen + ": the user " + this_user() + " cannot make sockets in it",
                   "run it as the agent's user: sudo -u " + user_name(directory.st_uid) + " tavctl doctor"),
               false;
    if (longest.size() > kLongestPath)
        return findings.fail("socket directory",
                             seen + ": paths of " + std::to_string(longest.size()) +
                                 " bytes, and a socket's has at most " + std::to_string(kLongestPath),
                             "set a shorter deploy_type in agent.ini"),
               false;
    if ((directory.st_mode & S_IWOTH) && !(directory.st_mode & S_ISVTX))
        findings.warn("socket directory", seen + ": everybody may replace its sockets",
                      as_root("chmod o-w " + quoted(path)));
    else
        findings.ok("socket directory", seen);
    return true;
}

void check_sockets(Findings &findings) {
    size_t live = 0, stale = 0, forbidden = 0;
    std::string strange;
    for (const SocketDirectory &directory : scan_known({}).directories) {
        if (!directory.own) continue;
        live += directory.count(SocketState::kLive);
        stale += directory.count(SocketState::kStale);
        forbidden += directory.count(SocketState::kForbidden);
        if (directory.strange > 0) strange += " " + quoted(directory.path);
    }
    const std::string seen =
        grouped(live) + " live, " + grouped(stale) + " stale" +
        (forbidden ? ", " + grouped(forbidden) + " that this user cannot tell" : std::string());
    if (stale > 0)
        findings.warn("sockets", seen + ": files of processes that were killed",
                      as_root("tavctl list --clean"));
    else
        findings.ok("sockets", seen);
    if (!strange.empty())
        findings.warn("sockets", "files that are no sockets keep endpoints of their names from opening",
                      "find" + strange + " -mindepth 1 ! -type s");
}

// Executables beside the tool that could not open an endpoint. In a directory of all kinds of programs that
// is as it should be.
void check_modules(Findings &findings) {
    constexpr size_t kMostModules = 32;
    const fs::path self = executable(), bin = self.parent_path();
    const std::string directory = config_beside(self);
    const auto entries = entries_of(read_file(directory + "/linux.json"), directory);
    size_t allowed = 0;
    std::vector<std::string> refused;
    std::error_code error;
    for (auto entry = fs::directory_iterator(bin, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        std::error_code gone;
        const std::string name = entry->path().filename();
        if (entry->symlink_status(gone).type() != fs::file_type::regular ||
            access(entry->path().c_str(), X_OK) != 0)
            continue;
        if (std::ranges::count(entries, sha256_hex(name)) > 0)
            ++allowed;
        else
            refused.push_back(name);
    }
    const std::string seen = grouped(allowed) + " of " + grouped(allowed + refused.size()) +
                             " executables in " + bin.string() + " are in the list";
    if (refused.empty() || allowed + refused.size() > kMostModules) return findings.ok("modules", seen);
    std::ranges::sort(refused);
    std::string names, command = "tavctl allowlist add --key PRIVATE.pem --dir " + quoted(directory);
    for (const std::string &name : refused) {
        names += (names.empty() ? ": not " : ", ") + name;
        command += " " + quoted(name);
    }
    findings.warn("modules", seen + names, command);
}

bool check_allow_list(Findings &findings) {
    const Verdict verdict = judge_executable("/proc/self/exe");
    if (verdict.allowed)
        findings.ok("allow-list", verdict.reason);
    else
        findings.fail("allow-list", "tavctl may not open an endpoint: " + verdict.reason, verdict.remedy);
    take_log();
    const bool allowed = c_get_process() == 0;
    const auto log = take_log();
    if (allowed == verdict.allowed)
        findings.ok("library's gate", allowed ? "it lets the tool pass" : "it refuses the tool as well");
    else
        findings.fail("library's gate",
                      allowed
                          ? std::string("it lets the tool pass all the same")
                          : "it refuses the tool: " + (log.empty() ? std::string("no reason") : log.back()),
                      "install library and tool of the same build: ldd " + quoted(executable()));
    if (verdict.allowed) check_modules(findings);
    return allowed;
}

} // namespace

AgentState check_agent(Findings &findings) {
    AgentState agent;
    check_configuration(findings);
    check_agent_ini(findings);
    agent.directory = check_socket_directory(findings);
    check_sockets(findings);
    agent.allowed = check_allow_list(findings);
    agent.has_id = check_identity(findings);
    return agent;
}

} // namespace tavctl
