// Log lines: the level is tested before the arguments are evaluated, and lines that can repeat quickly are
// limited per call site. The format texts are part of the interface (operators search for them).
#pragma once

#include <cstdint>

#include "common/relaxed.h"
#include "tavbase.h"

// One line at a level, if that level is on.
#define TAV_LOG(level, source, ...)                                                                          \
    do {                                                                                                     \
        if (error_output_check(level)) error_output(level, source, __LINE__, __VA_ARGS__);                   \
    } while (0)

// The same, at most once in 5,000 ms at this place of the code.
#define TAV_LOG_LIMITED(level, source, ...)                                                                  \
    do {                                                                                                     \
        static ::tavipc::RateLimit rate_limit;                                                               \
        if (error_output_check(level) && rate_limit.pass())                                                  \
            error_output(level, source, __LINE__, __VA_ARGS__);                                              \
    } while (0)

namespace tavipc {

class RateLimit {
  public:
    // True when more than 5,000 ms of the tick clock have passed since it last was; in threads that ask at
    // the same moment, perhaps in each.
    bool pass() {
        const auto now_ms = static_cast<uint32_t>(timer_ticks2ms(timer_get_ticks()));
        if (static_cast<uint32_t>(now_ms - last_ms_) <= 5000) return false;
        last_ms_ = now_ms;
        return true;
    }

  private:
    Relaxed<uint32_t> last_ms_ = 0;
};

} // namespace tavipc
