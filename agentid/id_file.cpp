#include "agentid/id_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "agentid/conf_dir.h"
#include "common/facts.h"
#include "common/log.h"
#include "common/regular_file.h"

namespace tavipc {
namespace {

constexpr int kLockWaitSeconds = 6;
constexpr int kIoTries = 3;

// Writes the block with a few calls, each going on where the last one stopped.
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
    setvbuf(file.get(), nullptr, _IONBF, 0); // a full disk shows in the write, not in the unheard close
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

bool AgentIdLock::lock() noexcept {
    sem_t *semaphore = sem_open(kIdentityLock, O_CREAT, 0644, 1);
    if (semaphore == SEM_FAILED) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "Failed to create global mutex with error code: %d\n", error);
        return false;
    }
    semaphore_ = semaphore;
    timespec deadline{};
    if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) {
        TAV_LOG(2, "tav_agentid", "clock_gettime failed, semphore lock may return immediately\n");
        deadline = {};
    }
    deadline.tv_sec += kLockWaitSeconds;
    held_ = sem_timedwait(semaphore_, &deadline) == 0;
    if (!held_) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "waiting lock semphore failed with error: %d\n", error);
    }
    return held_;
}

void AgentIdLock::unlock() noexcept {
    if (!semaphore_) return;
    if (held_ && sem_post(semaphore_) != 0) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "release semphore failed with error code:%d\n", error);
    }
    held_ = false;
    sem_close(semaphore_);
    semaphore_ = nullptr;
    sem_unlink(kIdentityLock);
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
