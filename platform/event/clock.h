// The clock of this library. It does not go through cl_event_loop_now, because a program that replaces that
// exported function must not stop the real loop.
#pragma once

#include <cstdint>
#include <time.h>

namespace tavcl_ev {

inline constexpr uint64_t kNever = UINT64_MAX;

inline uint64_t clock_ms() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

inline uint64_t clock_us() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// The same clock at the kernel's last timer tick, a few milliseconds ago at most. Cheaper, because it reads
// no hardware counter.
inline uint64_t coarse_clock_ms() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

inline uint64_t later(uint64_t time_ms, uint64_t delay_ms) noexcept {
    return delay_ms < kNever - time_ms ? time_ms + delay_ms : kNever;
}

} // namespace tavcl_ev
