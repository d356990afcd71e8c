// The identity of the agent: its id, the manager, and the lock that guards the id.
#include <algorithm>
#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/allowlist.h"
#include "agent/doctor.h"
#include "agent/identity.h"
#include "cli/text.h"
#include "common/facts.h"
#include "tavaux.h"
#include "tavipc/tav_agentid.h"

namespace tavctl {
namespace {

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
    return warn((value == 0 ? "held" : "not accessible to this user, and there") + since +
                    ": a process that was killed has left it; the next one waits 6 seconds, then continues "
                    "without an id",
                as_root("rm " + path));
}

} // namespace

bool check_identity(Findings &findings) {
    bool has_id;
    if (IsCNAPPAgent()) {
        has_id = findings.add("agent id", check_platform_id());
    } else {
        const unsigned id = ReadAgentid((config_directory() + "/machineid").c_str());
        has_id = id != 0;
        findings.add("agent id", check_stored_id(id));
        findings.add("manager", check_manager(has_id));
    }
    findings.add("identity lock", check_lock());
    return has_id;
}

} // namespace tavctl
