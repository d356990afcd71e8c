#include "ipc/unshared_fd.h"

#include <atomic>
#include <mutex>
#include <pthread.h>

#include "common/relaxed.h"

namespace tavipc {
namespace {

constinit std::mutex list_mutex; // no other lock is taken while it is held
constinit UnsharedFd *list = nullptr;
constinit Relaxed<uint32_t> forks = 0;

} // namespace

bool UnsharedFd::watch_forks() noexcept {
    static constinit std::atomic<bool> watching = false;
    static constinit std::mutex mutex;
    if (watching.load(std::memory_order_acquire)) return true;
    const std::lock_guard lock(mutex);
    const auto before = [] { list_mutex.lock(); };
    const auto in_parent = [] { list_mutex.unlock(); };
    if (!watching && pthread_atfork(before, in_parent, close_all_in_child) == 0) watching = true;
    return watching;
}

void UnsharedFd::close_all_in_child() noexcept {
    while (UnsharedFd *first = list) {
        list = first->next_;
        first->link_ = nullptr;
        const UniqueFd closing(std::exchange(first->fd_, -1));
    }
    ++forks;
    list_mutex.unlock();
}

bool UnsharedFd::take(UniqueFd fd) noexcept {
    reset();
    if (!fd) return false;
    if (!watch_forks()) return errno = ENOMEM, false;
    const std::lock_guard lock(list_mutex);
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
