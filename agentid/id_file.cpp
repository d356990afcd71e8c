#include "agentid/id_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>

#include "agentid/conf_dir.h"
#include "agentid/identity_lock.h"
#include "common/log.h"
#include "common/regular_file.h"

namespace tavipc {
namespace {

constexpr int kIoTries = 3; // calls for one block: an interrupted call may transfer a part of it

// Writes the block. Each call continues where the previous one stopped.
bool write_block(FILE *file, const void *block, size_t size) noexcept {
    const auto *bytes = static_cast<const unsigned char *>(block);
    size_t written = 0;
    for (int i = 0; i < kIoTries && written < size; ++i)
        written += fwrite(bytes + written, 1, size - written, file);
    return written == size;
}

} // namespace

void SaveAgentId(const char *path, unsigned int id, const unsigned char *mac, int mac_len,
                 const _Mac_Node *list) noexcept {
    const FilePtr file = open_regular_stream(path, O_WRONLY | O_CREAT | O_TRUNC, "wb");
    if (!file) {
        TAV_LOG(2, "tav_agentid", "Failed to open %s for save hostid\n", path);
        return;
    }
    setvbuf(file.get(), nullptr, _IONBF,
            0); // a full disk makes the write fail, not the close, whose result is ignored
    if (const auto word = static_cast<uint32_t>(id); !write_block(file.get(), &word, sizeof word)) {
        TAV_LOG(2, "tav_agentid", "Failed to save bak machineid\n");
        return;
    }
    if (!mac || mac_len <= 0 || !write_block(file.get(), mac, static_cast<size_t>(mac_len))) {
        TAV_LOG(2, "tav_agentid", "Failed to save mac address alais to mgr or using vmid calculate agent id");
        return;
    }
    for (const _Mac_Node *node = list; node; node = node->next) {
        const size_t size = std::min(static_cast<size_t>(mac_len), sizeof node->mac);
        if (write_block(file.get(), node->mac, size)) continue;
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "Failed to save MAC address list with error: %d\n", error);
    }
    TAV_LOG(3, "tav_agentid", "write agentid success\n");
}

} // namespace tavipc

using namespace tavipc;

unsigned int ReadAgentid(const char *path) noexcept {
    if (!path) {
        TAV_LOG(2, "tav_agentid", "null path parameter inputed\n");
        return 0;
    }
    uint32_t id = 0;
    size_t got = 0;
    const FilePtr file = open_regular_to_read(path);
    for (int i = 0; file && i < kIoTries && got < sizeof id && !feof(file.get()); ++i)
        got += fread(reinterpret_cast<unsigned char *>(&id) + got, 1, sizeof id - got, file.get());
    if (got < sizeof id) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "Failed to read agent id from file: %s with error code: %d\n", path, error);
        return 0;
    }
    TAV_LOG(3, "tav_agentid", "Id of this agent: %u\n", static_cast<unsigned int>(id));
    return id;
}

unsigned int GetAgentIdFromFileWhileClone() noexcept {
    char dir[kDirSize];
    GetAgentIdDir(dir, sizeof dir);
    char machineid[kIdentityPathSize];
    char clone_mac[kIdentityPathSize];
    str_snprintf(machineid, sizeof machineid, "%s/machineid", dir);
    str_snprintf(clone_mac, sizeof clone_mac, "%s/clone_mac", dir);
    if (!path_exists(clone_mac)) {
        TAV_LOG(3, "tav_agentid", "clone_mac file not exist, not read agent id from file.");
        return 0;
    }
    AgentIdLock lock;
    if (!lock.lock()) return 0;
    const unsigned int id = ReadAgentid(machineid);
    TAV_LOG(3, "tav_agentid", "get ruvo agentid %u. \n", id);
    if (id == 0) {
        TAV_LOG(3, "tav_agentid", "ReadAgentid failed, remove clone_mac.");
        unlink(clone_mac);
    }
    return id;
}

unsigned int StoreAgentIdByRuvo(unsigned int id) noexcept {
    char dir[kDirSize];
    GetAgentIdDir(dir, sizeof dir);
    char machineid[kIdentityPathSize];
    str_snprintf(machineid, sizeof machineid, "%s/machineid", dir);
    AgentIdLock lock;
    if (!lock.lock()) return 0;
    SaveAgentId(machineid, id, nullptr, 0, nullptr);
    TAV_LOG(3, "tav_agentid", "store ruvo agentid %u successful. \n", id);
    return id;
}
