#include "ipc/unshared_fd.h"

#include <mutex>
#include <pthread.h>

#include "common/relaxed.h"

namespace tavipc {
namespace {

constinit std::mutex list_mutex; // while it is held, no other lock is taken and only descriptors are made
constinit UnsharedFd *list = nullptr;
constinit Relaxed<uint32_t> forks = 0;

} // namespace

// When the library is loaded: a fork that begins before the handlers are known could take a locked mutex into
// the child.
const bool UnsharedFd::watches_forks_ = pthread_atfork(lock, unlock, close_all_in_child) == 0;

void UnsharedFd::lock() noexcept { list_mutex.lock(); }

void UnsharedFd::unlock() noexcept { list_mutex.unlock(); }

void UnsharedFd::close_all_in_child() noexcept {
    while (UnsharedFd *first = list) {
        list = first->next_;
        first->link_ = nullptr;
        const UniqueFd closing(std::exchange(first->fd_, -1));
    }
    ++forks;
    unlock();
}

bool UnsharedFd::take(UniqueFd fd) noexcept {
    if (!fd) return false;
    if (!watches_forks_) return errno = ENOMEM, false;
    fd_ = fd.release();
    next_ = std::exchange(list, this);
    link_ = &list;
    if (next_) next_->link_ = &next_;
    return true;
}

// Closes under the lock: a child of a fork in between would keep the descriptor.
void UnsharedFd::reset() noexcept {
    if (fd_ < 0) return;
    const std::lock_guard lock(list_mutex);
    *link_ = next_;
    if (next_) next_->link_ = link_;
    link_ = nullptr;
    const UniqueFd closing(std::exchange(fd_, -1));
}

uint32_t fork_count() noexcept { return forks; }

} // namespace tavipc
