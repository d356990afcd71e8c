// Short polling: whether a loop that has had work looks for more before it sleeps.
//
// When datagrams come every few microseconds, a loop that sleeps at once is woken up for nearly each of them,
// and the sender pays for the wake-up. After a callback the loop therefore makes up to kTurns turns that do
// not wait. As long as they find work, it makes them at each wait. If they find none, it makes none at the
// next waits: one, then three, seven and so on, up to 255. When work comes more slowly, or from a thread on
// the same core, they cost a few hundredths of a microsecond for each wait on average.
#pragma once

#include <algorithm>
#include <cstdint>

namespace tavcl_ev {

class ShortPoll {
  public:
    // Whether the next turn is not to wait. callbacks_run: how many callbacks have run so far.
    bool looks(uint64_t callbacks_run) noexcept {
        if (callbacks_run != callbacks_run_) { // a new wait begins
            callbacks_run_ = callbacks_run;
            if (left_ > 0) pause_ = 0; // these turns have found the work
            if (waits_without_ > 0) return --waits_without_, false;
            left_ = kTurns;
            return true;
        }
        if (left_ == 0) return false;
        if (--left_ > 0) return true;
        waits_without_ = pause_ = std::min(2 * pause_ + 1, kLongestPause);
        return false;
    }

  private:
    // About five microseconds, less than a sleep and its wake-up cost the two threads.
    static constexpr uint32_t kTurns = 16;
    static constexpr uint32_t kLongestPause = 255; // waits

    uint64_t callbacks_run_ = 0;
    uint32_t left_ = 0; // turns of this wait
    uint32_t pause_ = 0;
    uint32_t waits_without_ = 0; // of the pause
};

} // namespace tavcl_ev
