// The agent's own files: configuration, sockets, allow-list, identity.

#include <semaphore.h>

#include "agent/agent.h"
#include "common/facts.h"
#include "common/socket_directory.h"
#include "look/sockets.h"
#include "module/module.h"
#include "tavaux.h"
#include "tavbase.h"
#include "tavipc/tav_agentid.h"

namespace tavctl {
namespace {

std::string owner_text(const struct stat &file) {
    char mode[16];
    snprintf(mode, sizeof mode, "%04o", file.st_mode & 07777);
    return "owner " + user_name(file.st_uid) + ", mode " + mode;
}

Finding check_configuration() {
    const std::string path = config_directory(), how = path + ", " + how_found(configuration_directory());
    struct stat directory {};
    if (stat(path.c_str(), &directory) != 0)
        return fail(how + ": " + std::strerror(errno),
                    "mkdir -p " + quoted(path) + "\n" + SignedList(path).command("add") + " NAME...");
    const std::string seen = how + ", " + owner_text(directory);
    std::string open_files; // that everybody may write
    for (const char *name : {"/agent.ini", "/server.ini", "/server_port.ini", "/linux.json",
                             "/linux_sign.json", "/machineid", ""}) {
        struct stat file {};
        if (stat((path + name).c_str(), &file) == 0 && (file.st_mode & S_IWOTH))
            open_files += " " + quoted(path + name);
    }
    if (!open_files.empty())
        return fail(seen + "; everybody may write" + open_files, as_root("chmod o-w" + open_files));
    if ((directory.st_mode & S_IWGRP) && directory.st_gid != 0)
        return warn(seen + ": its group may write", as_root("chmod g-w " + quoted(path)));
    return ok(seen);
}

Finding check_agent_ini() {
    const std::string path = config_beside(own_executable()) + "/agent.ini";
    const std::unique_ptr<ini_file_t, Releaser<ini_file_free>> file(ini_file_load(path.c_str()));
    const char *used = GetDeployTypeStr();
    const std::string holds =
        "location " + std::to_string(tav_get_location()) + ", deployment type " + (used ? used : "none");
    const std::string edit = "${EDITOR:-vi} " + quoted(path);
    if (!file && errno == ENOENT)
        return warn("there is no " + path + ", so: " + holds,
                    "printf '[agent]\\nlocation = 1\\n' > " + quoted(path));
    if (!file) return fail(path + ": " + std::strerror(errno), edit);
    const char *location = ini_file_get(file.get(), "agent", "location");
    const char *type = ini_file_get(file.get(), "agent", "deploy_type");
    if (location && (number_of(location) < 0 || number_of(location) > 255))
        return fail(std::string("location = ") + location + " is not a number from 0 to 255", edit);
    if (type && *type && !used)
        return fail(std::string("deploy_type = ") + type +
                        " is not accepted: it is a path relative to /var of at most 64 bytes, without ..",
                    edit);
    if (!location) return warn(path + " has no [agent] location, so: " + holds, edit);
    return ok(holds);
}

// Whether this user could make the directory.
bool may_make(const std::string &path) {
    fs::path above = fs::path(path).parent_path();
    while (access(above.c_str(), F_OK) != 0 && above.has_relative_path()) above = above.parent_path();
    return access(above.c_str(), W_OK | X_OK) == 0;
}

// Sets usable when an endpoint could be opened there.
Finding check_socket_directory(bool &usable) {
    const std::string path = tavipc::socket_directory(GetDeployTypeStr(), tav_get_location()),
                      user = "the user " + this_user();
    const std::string make = "start a module of the agent, or as its user: install -d " + quoted(path);
    struct stat directory {};
    if (stat(path.c_str(), &directory) != 0) {
        const std::string reason = std::strerror(errno);
        if (errno == ENOENT && may_make(path))
            return warn(path + " is not there; the first endpoint makes it", make);
        return fail(path + ": " + reason + ", and " + user + " cannot make it", make);
    }
    const size_t longest = path.size() + std::strlen("/ipc2147483647_99999"); // a sending socket's path
    const std::string seen = path + ", " + owner_text(directory);
    if (!S_ISDIR(directory.st_mode))
        return fail(path + " is not a directory", "mv " + quoted(path) + " " + quoted(path + ".old"));
    if (access(path.c_str(), W_OK | X_OK) != 0)
        return fail(seen + ": " + user + " cannot make sockets in it",
                    "run it as the agent's user: sudo -u " + user_name(directory.st_uid) + " tavctl doctor");
    if (longest > tavipc::kLongestSocketPath)
        return fail(seen + ": paths of " + std::to_string(longest) + " bytes, but a socket's has at most " +
                        std::to_string(tavipc::kLongestSocketPath),
                    "set a shorter deploy_type in agent.ini");
    usable = true;
    if ((directory.st_mode & S_IWOTH) && !(directory.st_mode & S_ISVTX))
        return warn(seen + ": everybody may replace its sockets", as_root("chmod o-w " + quoted(path)));
    return ok(seen);
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
    std::string seen = grouped(live) + " live, " + grouped(stale) + " stale";
    if (forbidden) seen += ", " + grouped(forbidden) + " forbidden to this user";
    findings.add("sockets", stale == 0 ? ok(seen)
                                       : warn(seen + ": files of processes that were killed",
                                              as_root("tavctl list --clean")));
    if (!strange.empty())
        findings.add("sockets", warn("files that are not sockets keep endpoints of their names from opening",
                                     "find" + strange + " -mindepth 1 ! -type s"));
}

// Executables beside the tool that could not open an endpoint. Among many programs that is no fault.
Finding check_modules() {
    constexpr size_t kMostModules = 32; // executables: a bin directory with more is not an agent's own
    const fs::path self = own_executable(), bin = self.parent_path();
    const SignedList files(config_beside(self));
    const auto entries = files.entries_of(files.read_list());
    size_t allowed = 0;
    std::vector<std::string> refused;
    for (const fs::path &path : files_in(bin)) {
        std::error_code gone;
        const std::string name = path.filename();
        if (!fs::is_regular_file(fs::symlink_status(path, gone)) || access(path.c_str(), X_OK) != 0) continue;
        if (contains(entries, name))
            ++allowed;
        else
            refused.push_back(name);
    }
    const size_t all = allowed + refused.size();
    std::string seen =
        grouped(allowed) + " of " + grouped(all) + " executables in " + bin.string() + " are in the list";
    if (refused.empty() || all > kMostModules) return ok(seen);
    std::ranges::sort(refused);
    for (const std::string &name : refused) seen += (&name == &refused[0] ? ": not " : ", ") + name;
    return warn(seen, files.command("add", refused));
}

// Compares what the library decides about the tool with what the list says.
Finding check_library(const Verdict &verdict, bool &allowed) {
    take_reason();
    allowed = c_get_process() == 0;
    const std::string reason = take_reason();
    if (allowed == verdict.allowed)
        return ok(allowed ? "it permits the tool" : "it refuses the tool as well");
    return fail(allowed ? "it permits the tool all the same"
                        : "it refuses the tool" + (reason.empty() ? ": no reason" : reason),
                "install library and tool of the same build: ldd " + quoted(own_executable()));
}

constexpr time_t kLongHeld_s = 30; // a process may take 18 seconds to make an id

Finding check_platform_id() {
    if (get_hostid() != 0) return ok(std::to_string(get_hostid()) + ", from the platform");
    return fail("agent.ini says that the platform gives it (cnapp = 1), but has no hostid",
                "set hostid in " + quoted(config_beside(own_executable()) + "/agent.ini"));
}

Finding check_stored_id(unsigned id) {
    const std::string directory = config_directory(), path = directory + "/machineid";
    const bool clone = access((directory + "/clone_mac").c_str(), F_OK) == 0;
    const std::string mark = clone ? "; marked as a clone, which keeps its id (clone_mac)" : "";
    struct stat file {};
    if (stat(path.c_str(), &file) == 0 && !S_ISREG(file.st_mode))
        return fail(path + " is not a regular file: no id can be stored there",
                    "mv " + quoted(path) + " " + quoted(path + ".bad") + "\ntavctl id --create");
    if (id != 0) return ok(std::to_string(id) + ", stored in " + path + mark);
    if (access(path.c_str(), F_OK) == 0 && access(path.c_str(), R_OK) != 0)
        return fail(path + " may not be read by the user " + this_user(),
                    as_root("chmod a+r " + quoted(path)));
    return warn("none in " + path + mark + "; the first module makes one", "tavctl id --create");
}

Finding check_manager(bool has_id) {
    const Manager manager;
    if (!manager.address.empty()) return ok(manager.text);
    const std::string directory = config_directory(), seen = manager.text + ", in " + directory;
    std::string remedy;
    if (!manager.named)
        remedy = "printf '[config]\\naddr = ADDRESS\\n' > " + quoted(directory + "/server.ini");
    if (!manager.port_given)
        remedy += (remedy.empty() ? "" : "\n") +
                  ("printf '[port]\\nipc = 8083\\n' > " + quoted(directory + "/server_port.ini"));
    if (remedy.empty()) remedy = "getent hosts ADDRESS shows whether this machine knows the name";
    if (has_id) return warn(seen + "; the stored agent id holds without it", remedy);
    if (manager.named) return warn(seen + "; an agent id is made without the route to it", remedy);
    return fail(seen + ": a module without an agent id ends with exit status 1", remedy);
}

// The lock's file is removed after every use, so an old one was left behind.
Finding check_lock() {
    const std::string path = std::string("/dev/shm/sem.") + (tavipc::kIdentityLock + 1);
    struct stat file {};
    if (lstat(path.c_str(), &file) != 0) return ok("free");
    const time_t age = time(nullptr) - file.st_mtime;
    const std::string since = " for " + grouped(static_cast<uint64_t>(std::max<time_t>(age, 0))) + " s";
    int value = -1; // not known
    if (S_ISREG(file.st_mode) && static_cast<size_t>(file.st_size) >= sizeof(sem_t))
        if (sem_t *semaphore = sem_open(tavipc::kIdentityLock, 0); semaphore != SEM_FAILED) {
            sem_getvalue(semaphore, &value);
            sem_close(semaphore);
        }
    if (value > 0) return ok("free, its file was left behind");
    if (age < kLongHeld_s) return ok("held" + since);
    return warn(
        (value == 0 ? "held" : "not accessible to this user, and there") + since +
            ": a killed process has left it; the next one waits 6 seconds, then continues without an id",
        as_root("rm " + path));
}

// True when an endpoint need not make an id.
bool check_identity(Findings &findings) {
    const bool platform = IsCNAPPAgent() != 0;
    const unsigned id = platform ? get_hostid() : ReadAgentid((config_directory() + "/machineid").c_str());
    findings.add("agent id", platform ? check_platform_id() : check_stored_id(id));
    if (!platform) findings.add("manager", check_manager(id != 0));
    findings.add("identity lock", check_lock());
    return id != 0;
}

} // namespace

void check_agent(Findings &findings) {
    findings.add("configuration", check_configuration());
    findings.add("agent.ini", check_agent_ini());
    findings.add("socket directory", check_socket_directory(findings.directory));
    check_sockets(findings);
    const Verdict verdict = judge_executable("/proc/self/exe");
    findings.add("allow-list", verdict.allowed ? ok(verdict.reason)
                                               : fail("tavctl may not open an endpoint: " + verdict.reason,
                                                      verdict.remedy));
    findings.add("library's check", check_library(verdict, findings.allowed));
    if (verdict.allowed) findings.add("modules", check_modules());
    findings.has_id = check_identity(findings);
}

} // namespace tavctl
