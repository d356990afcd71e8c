#include "ipc/random.h"

#include <cstdlib>
#include <mutex>

#include "common/fork_mutex.h"

namespace tavipc {
namespace {

constinit std::mutex random_mutex; // while it is held, no other lock is taken but the C library's

[[maybe_unused]] const bool forks_wait = lock_during_forks<random_mutex>();

} // namespace

int draw_random() noexcept {
    const std::lock_guard lock(random_mutex);
    return std::rand();
}

void seed_random(unsigned seed) noexcept {
    const std::lock_guard lock(random_mutex);
    std::srand(seed);
}

} // namespace tavipc
