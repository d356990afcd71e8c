#include "private_fd.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <sys/timerfd.h>
#include <vector>

namespace tavcl_ev {

namespace {

constexpr size_t kBits = 64; // of a word

std::mutex g_mutex;

// One bit for each descriptor number. Never destroyed: threads may end after the static objects.
std::vector<uint64_t> &listed() {
    static auto &words = *new std::vector<uint64_t>;
    return words;
}

uint64_t bit_of(int fd) { return uint64_t{1} << (static_cast<size_t>(fd) % kBits); }

bool is_listed(int fd) {
    const size_t word = static_cast<size_t>(fd) / kBits;
    return word < listed().size() && (listed()[word] & bit_of(fd));
}

void unlist(int fd) { listed()[static_cast<size_t>(fd) / kBits] &= ~bit_of(fd); }

void list(int fd) { // may throw bad_alloc
    const size_t word = static_cast<size_t>(fd) / kBits;
    if (word >= listed().size()) listed().resize(word + 1);
    listed()[word] |= bit_of(fd);
}

} // namespace

void PrivateFd::take(tavipc::UniqueFd fd) noexcept try {
    if (!fd) return;
    list(fd.get());
    fd_ = fd.release();
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
}

// Unlists and closes under the lock: a fork in between would make the child close the number's next owner.
void PrivateFd::reset() noexcept {
    if (fd_ < 0) return;
    const std::lock_guard lock(g_mutex);
    const tavipc::UniqueFd closing(is_listed(fd_) ? fd_ : -1);
    if (closing) unlist(fd_);
    fd_ = -1;
}

void lock_private_fds() noexcept { g_mutex.lock(); }

void unlock_private_fds() noexcept { g_mutex.unlock(); }

void close_private_fds() noexcept {
    const std::lock_guard lock(g_mutex);
    for (size_t word = 0; word < listed().size(); ++word)
        for (size_t bit = 0; listed()[word] != 0; ++bit) {
            const int fd = static_cast<int>(word * kBits + bit);
            if (!is_listed(fd)) continue;
            unlist(fd);
            close(fd);
        }
}

// A timer that is never set is neither readable nor writable. Without it the descriptor is only closed.
void make_private_fd_inert(int fd) noexcept {
    const std::lock_guard lock(g_mutex);
    if (!is_listed(fd)) return;
    unlist(fd);
    const tavipc::UniqueFd inert(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    if (!inert || dup3(inert.get(), fd, O_CLOEXEC) < 0) close(fd);
}

} // namespace tavcl_ev
