// Ticks are nanoseconds of CLOCK_MONOTONIC. They count from boot, so the difference to 0, which stands for
// "never", is large even at the start of a process.
#include "tavbase.h"

#include <time.h>

namespace {

constexpr uint64_t kTicksPerSecond = 1'000'000'000;
constexpr uint64_t kTicksPerMs = 1'000'000;

} // namespace

uint64_t timer_get_ticks() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kTicksPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t timer_ticks2ms(uint64_t ticks) noexcept { return ticks / kTicksPerMs; }

int atomic_add_and_fetch(volatile int *counter, int value) noexcept {
    return counter ? __atomic_add_fetch(counter, value, __ATOMIC_SEQ_CST) : 0;
}
