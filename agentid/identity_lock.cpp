#include "agentid/identity_lock.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/facts.h"
#include "common/log.h"
#include "common/regular_file.h"

namespace tavipc {
namespace {

constexpr char kLockFile[] = "/dev/shm/sem.tav_agentid_mutexlock"; // where glibc keeps that semaphore
constexpr int kLockWait_s = 6; // longer than a holder waits for its connection to the manager (5 s)

// In glibc's semaphore, counters precede an int that says whether processes share it: 8 bytes of counters in
// 64-bit processes, 4 bytes in 32-bit processes. A wrong value of that int makes glibc abort the process.
constexpr size_t kSharedFlagOffset = sizeof(long);

bool has_semaphore_content(const char *path) noexcept {
    const UniqueFd file = open_regular(path, O_RDONLY | O_NOFOLLOW);
    if (!file) return true; // sem_open cannot open it either, and reports the reason
    sem_t model;
    sem_init(&model, 1, 1);
    unsigned char content[sizeof model];
    return pread(file.get(), content, sizeof content, 0) == static_cast<ssize_t>(sizeof content) &&
           memcmp(content + kSharedFlagOffset, reinterpret_cast<const char *>(&model) + kSharedFlagOffset,
                  sizeof(int)) == 0;
}

// Whole seconds are enough here: sem_timedwait ends at the exact deadline.
bool is_over(const timespec &deadline) noexcept {
    timespec now{};
    return clock_gettime(CLOCK_REALTIME, &now) != 0 || now.tv_sec > deadline.tv_sec;
}

// Says what is wrong with the file of a semaphore. Null if the file is usable or does not exist.
const char *find_defect(const char *path) noexcept {
    struct stat file {};
    if (lstat(path, &file) != 0) return nullptr;
    if (!S_ISREG(file.st_mode)) return "not a regular file";
    if (file.st_uid != geteuid() && file.st_uid != 0) return "owned by another user";
    if (file.st_size != sizeof(sem_t) || !has_semaphore_content(path)) return "not a semaphore";
    return nullptr;
}

} // namespace

bool remove_unusable_semaphore(const char *path) noexcept {
    const char *defect = find_defect(path);
    if (!defect) return true;
    if (std::remove(path) == 0) { // also removes an empty directory
        TAV_LOG(2, "tav_agentid", "removed %s, which was %s\n", path, defect);
        return true;
    }
    const int error = errno;
    if (error == ENOENT) return true; // another process has removed it
    TAV_LOG(2, "tav_agentid", "%s is %s and cannot be removed: %s\n", path, defect, strerror(error));
    errno = error;
    return false;
}

bool AgentIdLock::lock() noexcept {
    assert(!semaphore_ && !held_);
    sem_t *semaphore =
        remove_unusable_semaphore(kLockFile) ? sem_open(kIdentityLock, O_CREAT, 0644, 1) : SEM_FAILED;
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
    deadline.tv_sec += kLockWait_s;
    // A signal handler of the program interrupts the wait.
    do held_ = sem_timedwait(semaphore_, &deadline) == 0;
    while (!held_ && errno == EINTR && !is_over(deadline));
    if (!held_) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "waiting lock semphore failed with error: %d\n", error);
    }
    return held_;
}

void AgentIdLock::unlock() noexcept {
    assert(semaphore_ || !held_);
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
