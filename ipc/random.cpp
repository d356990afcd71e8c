#include "ipc/random.h"

#include <cstdlib>
#include <mutex>
#include <pthread.h>

namespace tavipc {
namespace {

constinit std::mutex random_mutex; // while it is held, no other lock is taken but the C library's

// When the library is loaded, so that no fork comes before.
[[maybe_unused]] const int fork_handlers =
    pthread_atfork([] { random_mutex.lock(); }, [] { random_mutex.unlock(); }, [] { random_mutex.unlock(); });

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
