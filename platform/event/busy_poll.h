// Busy polling: how long a loop makes turns that do not wait before it sleeps.
//
// Each wait of the loop begins with such turns, and each callback begins a new wait. Between two turns the
// thread offers its core to others, so that a peer on the same core can answer.
#pragma once

#include <cstdint>
#include <sched.h>

#include "clock.h"

namespace tavcl_ev {

class BusyPoll {
  public:
    void set(uint32_t limit_us) noexcept {
        limit_us_ = limit_us;
        begin();
    }
    bool on() const noexcept { return limit_us_ > 0; }
    // A wait begins.
    void begin() noexcept { until_us_ = 0; }
    // Whether the next turn is not to wait, if busy polling is on. callbacks_run: how many callbacks have run
    // so far.
    bool spins(uint64_t callbacks_run) noexcept {
        const uint64_t now_us = clock_us();
        if (until_us_ == 0 || callbacks_run != callbacks_run_) {
            until_us_ = now_us + limit_us_;
            callbacks_run_ = callbacks_run;
            return true;
        }
        if (now_us >= until_us_) return false;
        sched_yield();
        return true;
    }

  private:
    uint32_t limit_us_ = 0; // 0: off
    uint64_t until_us_ = 0; // 0: the wait begins with the next turn
    uint64_t callbacks_run_ = 0;
};

} // namespace tavcl_ev
