#include "agentid/agent_id.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <type_traits>
#include <unistd.h>
#include <uuid/uuid.h>

#include "agentid/conf_dir.h"
#include "agentid/id_file.h"
#include "agentid/identity_lock.h"
#include "agentid/mac_discovery.h"
#include "agentid/vm_id.h"
#include "common/log.h"
#include "tavaux.h"

namespace tavipc {
namespace {

constexpr int kTries = 3;                 // another process may be writing server.ini
constexpr unsigned int kRetryPause_s = 1; // long enough for an interface that is just coming up
constexpr int kLocationWithRoute = 1;     // the location where one interface of the host leads to the manager
constexpr size_t kUuidTextSize = 260;     // bytes; a UUID text has 36, the hash covers nothing behind it

// The input of the MAC-based id. Other components of the agent compute the same id from it.
struct MacAndType {
    unsigned char mac[kMacLen];
    char agent_type[32];
    unsigned char zero;
};
static_assert(std::is_trivially_copyable_v<MacAndType> && sizeof(MacAndType) == 39);
static_assert(offsetof(MacAndType, agent_type) == 6 && offsetof(MacAndType, zero) == 38);

// The last id that was determined. Threads may call at the same time, so a call works on a value of its own
// and stores only its result.
std::atomic<unsigned int> cached_id{0};

// Returns the configured manager address, owned by file, or null.
const char *load_manager_address(const char *path, IniFile &file) noexcept {
    for (int i = 0; i < kTries; ++i) {
        file.reset(ini_file_load(path));
        if (!file) {
            const int error = errno;
            TAV_LOG(2, "tav_agentid", "load server.ini failed err = %d", error);
            continue;
        }
        if (const char *address = ini_file_get(file.get(), "config", "addr")) return address;
        const int error = errno;
        file.reset();
        ::sleep(kRetryPause_s);
        TAV_LOG(2, "tav_agentid", "get mgr address failed err = %d", error);
    }
    return nullptr;
}

// Gets the hardware address of the interface toward the manager. Can write mgr_mac even if it returns false.
bool mac_toward_manager(unsigned char *mgr_mac) noexcept {
    if (const int location = tav_get_location(); location != kLocationWithRoute) {
        TAV_LOG(3, "tav_agentid", "current location is %d\n", location);
        return false;
    }
    char mgr_ip[64] = "";
    unsigned short port = 0;
    if (const int error = GetMgrAddr(mgr_ip, sizeof mgr_ip, &port); error != 0) {
        TAV_LOG(2, "tav_agentid", "get mgr address failed with error code: %d\n", error);
        return false;
    }
    char local_ip[64] = "";
    if (const int error = GetLocalIpToMgr(mgr_ip, port, local_ip, sizeof local_ip); error != 0) {
        TAV_LOG(2, "tav_agentid", "failed get local ip to connect mgr with error code: %d\n", error);
        return false;
    }
    for (int i = 0; i < kTries; ++i) {
        const int error = GetMacByIp(local_ip, mgr_mac, kMacLen);
        if (error == 0) return true;
        TAV_LOG(2, "tav_agentid", "Failed to get mac address to calculate agent id with error: %d\n", error);
        ::sleep(kRetryPause_s);
    }
    TAV_LOG(2, "tav_agentid", "Get mac address failed in get agent id\n");
    return false;
}

// Computes an id from a MAC address and the agent type, or from a UUID if the type is unknown.
unsigned int compute_new_id(const _Mac_Node *list, unsigned char *mgr_mac) noexcept {
    MacAndType input{};
    if (GetAgentType(input.agent_type, sizeof input.agent_type) < 0)
        return CreateAgentIdByUuid(list, mgr_mac);
    const bool routed = mac_toward_manager(mgr_mac);
    memcpy(input.mac, routed ? mgr_mac : list->mac, sizeof input.mac);
    return orlask_crc32(&input, sizeof input);
}

// Without a manager address only a stored id is valid. Empty if there is none.
std::optional<unsigned int> require_stored_id(const char *machineid) noexcept {
    if (!path_exists(machineid)) {
        TAV_LOG(1, "tav_agentid", "not exist file machineid");
        return std::nullopt;
    }
    const unsigned int id = ReadAgentid(machineid);
    if (id != 0) return id;
    TAV_LOG(1, "tav_agentid", "read agent id from machineid failed");
    return std::nullopt;
}

unsigned int stored_id(const char *machineid) noexcept {
    return path_exists(machineid) ? ReadAgentid(machineid) : 0;
}

// Computes and stores an id. Returns 0 on failure.
unsigned int make_new_id(const char *machineid, const _Mac_Node *list) noexcept {
    unsigned char mgr_mac[kMacLen] = {};
    const unsigned int id = compute_new_id(list, mgr_mac);
    if (id == 0) {
        TAV_LOG(2, "tav_agentid", "Failed to calculate new agent id from mac address\n");
        return 0;
    }
    // Computing the id can take longer than other processes wait for the lock. They then remove its name, and
    // the next process determines an id at the same time as this one. The first stored id is valid for all.
    if (const unsigned int stored = stored_id(machineid); stored != 0) return stored;
    SaveAgentId(machineid, id, mgr_mac, kMacLen, list);
    TAV_LOG(3, "tav_agentid", "calculated Id of this agent: %u\n", id);
    TAV_LOG(3, "tav_agentid", "mac address: %02x-%02x-%02x-%02x-%02x-%02x\n", mgr_mac[0], mgr_mac[1],
            mgr_mac[2], mgr_mac[3], mgr_mac[4], mgr_mac[5]);
    return id;
}

bool is_local(const char *manager_address) noexcept {
    return str_find("127.0.0.1", 9, manager_address, static_cast<int>(strlen(manager_address)), 0) != -1;
}

// Returns the id, 0 if there is none. Empty if the process must end because it has no identity; the lock is
// released by then.
std::optional<unsigned int> determine_agent_id(const char *machineid, const char *server_ini_path) noexcept {
    AgentIdLock lock; // these three are released in the reverse order
    IniFile server_ini;
    MacList list;
    const char *address = load_manager_address(server_ini_path, server_ini);
    if (!lock.lock()) return cached_id;
    if (!address || *address == '\0') return require_stored_id(machineid);
    unsigned int id = is_local(address) ? CreateAgentIdByVMID(machineid) : cached_id.load();
    if (id != 0) return id;
    list = GetLocalMacList();
    if (!list) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "get local mac list failed with error: %d\n", error);
    }
    id = stored_id(machineid);
    return list && id == 0 ? make_new_id(machineid, list.get()) : id;
}

} // namespace

unsigned int CreateAgentIdByUuid(const _Mac_Node *list, unsigned char *mgr_mac) noexcept {
    uuid_t uuid;
    uuid_generate(uuid);
    char input[kUuidTextSize + kMacLen] = {};
    uuid_unparse(uuid, input);
    TAV_LOG(3, "tav_agentid", "uuid : %s\n", input);
    if (!mac_toward_manager(mgr_mac)) memcpy(mgr_mac, list->mac, kMacLen);
    const size_t length = strnlen(input, kUuidTextSize);
    memcpy(input + length, mgr_mac, kMacLen);
    return orlask_crc32(input, static_cast<uint32_t>(length + kMacLen));
}

} // namespace tavipc

using namespace tavipc;

unsigned int CreateAgentId() noexcept {
    char dir[kDirSize];
    char machineid[kIdentityPathSize];
    char server_ini[kDirSize];
    GetAgentIdDir(dir, sizeof dir);
    str_snprintf(machineid, sizeof machineid, "%s/machineid", dir);
    str_snprintf(server_ini, sizeof server_ini, "%s/server.ini", dir);
    const std::optional<unsigned int> id = determine_agent_id(machineid, server_ini);
    if (!id) exit(1);
    if (*id != 0) cached_id = *id;
    return *id;
}
