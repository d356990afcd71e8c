// Who the agent is: its id, the manager, the lock of both.
#include <algorithm>
#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include "allowlist.h"
#include "doctor.h"
#include "identity.h"
#include "tavaux.h"
#include "tavipc/tav_agentid.h"

namespace tavctl {
namespace {

constexpr time_t kLongHeld_s = 30; // an id may take its maker 18 seconds

void check_manager(Findings &findings, bool has_id) {
    const Manager manager;
    if (!manager.address.empty()) return findings.ok("manager", manager.text);
    const std::string directory = config_directory();
    std::string remedy;
    if (!manager.named)
        remedy = "printf '[config]\\naddr = ADDRESS\\n' > " + quoted(directory + "/server.ini");
    if (!manager.port_given)
        remedy += (remedy.empty() ? "" : "\n") +
                  ("printf '[port]\\nipc = 8083\\n' > " + quoted(directory + "/server_port.ini"));
    if (remedy.empty()) remedy = "getent hosts ADDRESS tells whether this machine knows the name";
    const std::string seen = manager.text + ", in " + directory;
    if (has_id)
        findings.warn("manager", seen + "; the stored agent id holds without it", remedy);
    else if (manager.named)
        findings.warn("manager", seen + "; an agent id is made without the route to it", remedy);
    else
        findings.fail("manager", seen + ": a module without an agent id ends with exit status 1", remedy);
}

bool check_stored_id(Findings &findings) {
    if (IsCNAPPAgent()) {
        if (get_hostid() != 0)
            return findings.ok("agent id", std::to_string(get_hostid()) + ", from the platform"), true;
        findings.fail("agent id", "agent.ini says that the platform gives it (cnapp = 1), but has no hostid",
                      "set hostid in " + quoted(config_beside(executable()) + "/agent.ini"));
        return false;
    }
    const std::string directory = config_directory(), path = directory + "/machineid";
    const unsigned id = ReadAgentid(path.c_str());
    const bool clone = access((directory + "/clone_mac").c_str(), F_OK) == 0;
    const std::string mark = clone ? "; marked as a clone, which keeps its id (clone_mac)" : "";
    struct stat file {};
    if (stat(path.c_str(), &file) == 0 && !S_ISREG(file.st_mode))
        findings.fail("agent id", path + " is no regular file: no id can be stored there",
                      "mv " + quoted(path) + " " + quoted(path + ".bad") + "\ntavctl id --create");
    else if (id != 0)
        findings.ok("agent id", std::to_string(id) + ", stored in " + path + mark);
    else if (access(path.c_str(), F_OK) == 0 && access(path.c_str(), R_OK) != 0)
        findings.fail("agent id", path + " may not be read by the user " + this_user(),
                      as_root("chmod a+r " + quoted(path)));
    else
        findings.warn("agent id", "none in " + path + mark + "; the first module makes one",
                      "tavctl id --create");
    check_manager(findings, id != 0);
    return id != 0;
}

// The name of the lock is removed after every use: who finds it old finds it left behind.
void check_identity_lock(Findings &findings) {
    constexpr const char *kFile = "/dev/shm/sem.tav_agentid_mutexlock";
    struct stat file {};
    if (lstat(kFile, &file) != 0) return findings.ok("identity lock", "free");
    const time_t age = time(nullptr) - file.st_mtime;
    const std::string since = " for " + grouped(static_cast<uint64_t>(std::max<time_t>(age, 0))) + " s";
    int value = -1; // not known
    if (S_ISREG(file.st_mode) && static_cast<size_t>(file.st_size) >= sizeof(sem_t))
        if (sem_t *semaphore = sem_open("/tav_agentid_mutexlock", 0); semaphore != SEM_FAILED) {
            sem_getvalue(semaphore, &value);
            sem_close(semaphore);
        }
    if (value > 0) return findings.ok("identity lock", "free, its file was left behind");
    if (age < kLongHeld_s) return findings.ok("identity lock", "held" + since);
    findings.warn(
        "identity lock",
        (value == 0 ? "held" : "closed to this user, and there") + since +
            ": a process that was killed has left it; the next one waits 6 seconds, then does without "
            "an id",
        as_root(std::string("rm ") + kFile));
}

} // namespace

bool check_identity(Findings &findings) {
    const bool has_id = check_stored_id(findings);
    check_identity_lock(findings);
    return has_id;
}

} // namespace tavctl
