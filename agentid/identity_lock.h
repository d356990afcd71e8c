// The lock around machineid: a named semaphore that the processes of a host use as a mutex.
//
// Its name is removed after every use. A process that died while it held the lock therefore blocks at most
// one later caller, but the lock excludes only callers that opened the same semaphore.
#pragma once

#include <semaphore.h>

namespace tavipc {

// A lock object is idle, then open, then held. unlock() returns it to idle from each state.
class AgentIdLock {
  public:
    AgentIdLock() = default;
    AgentIdLock(const AgentIdLock &) = delete;
    AgentIdLock &operator=(const AgentIdLock &) = delete;
    ~AgentIdLock() { unlock(); }

    // Opens the semaphore and waits at most 6 seconds of the wall clock for it. Returns false if the lock is
    // not held afterwards. Call it only on an idle object.
    [[nodiscard]] bool lock() noexcept;
    void unlock() noexcept;

  private:
    sem_t *semaphore_ = nullptr;
    bool held_ = false;
};

// Removes the file at path if sem_open must not map it: a file that is not regular, that belongs to a user
// other than this one and root, or that does not hold a semaphore of this word size. glibc maps the file
// without any check; using an empty file ends the process with SIGBUS, other contents can abort it, and
// everything else makes sem_open fail until the file is removed. Returns false, with errno and a log line, if
// such a file stays.
//
// The check precedes sem_open. In between, root and the user that owns the file can replace or truncate it.
// Any user can create a file there if there was none.
[[nodiscard]] bool remove_unusable_semaphore(const char *path) noexcept;

} // namespace tavipc
