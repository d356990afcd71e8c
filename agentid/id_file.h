// The file machineid and the lock around it.
//
// machineid: 4 bytes agent id in host order; then, in files of ids made from a MAC address, 6 bytes manager
// MAC and 6 bytes for each MAC of the host. A file longer than 4 bytes therefore tells that its id came from
// a MAC; only the first 4 bytes are ever read back. It is rewritten in place.
//
// The lock is a named semaphore used as a mutex between processes. Its name is removed after every use, so a
// holder that died blocks one later caller at most; it orders only those that opened the same semaphore.
#pragma once

#include <cstdio>
#include <memory>
#include <semaphore.h>

#include "tavipc/tav_agentid.h"

namespace tavipc {

// Writes id, then the mac_len bytes of mac and as many of each node of list; a 4-byte file when mac is null
// or mac_len 0. Failures are told to the log only and leave a shorter file.
void SaveAgentId(const char *path, unsigned int id, const unsigned char *mac, int mac_len,
                 const _Mac_Node *list) noexcept;

// Identity lock: idle, then open, then held; unlock() goes back to idle from everywhere.
class AgentIdLock {
  public:
    AgentIdLock() = default;
    AgentIdLock(const AgentIdLock &) = delete;
    AgentIdLock &operator=(const AgentIdLock &) = delete;
    ~AgentIdLock() { unlock(); }

    // Opens the semaphore and waits for it until 6 seconds from now by the wall clock. False when it is not
    // held; unlock() is due all the same.
    [[nodiscard]] bool lock() noexcept;
    void unlock() noexcept;

  private:
    sem_t *semaphore_ = nullptr;
    bool held_ = false;
};

} // namespace tavipc
