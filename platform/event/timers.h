// The timers of one loop: a binary heap ordered by due time, then by order of start.
//
// The heap holds small entries. The callback and the entry's place are in a slot table, so a timer is found
// by its id and can be taken out of the middle. Time is passed in; nothing here waits or calls back.
#pragma once

#include <cstdint>
#include <vector>

#include "clock.h"
#include "slot_table.h"

namespace tavcl_ev {

struct Timer {
    void (*callback)(void *argument) = nullptr;
    void *argument = nullptr;
    bool keeps_alive = false; // the loop keeps running for it; false for housekeeping
    size_t place = 0;         // index in the heap
};

class TimerHeap {
  public:
    // The timer's id; 0 when memory is short.
    uint64_t start(uint64_t due_ms, const Timer &timer) noexcept;
    // Takes a timer out, due or not. Returns false for a stale id.
    bool stop(uint64_t id, Timer *stopped) noexcept;

    // Drops all timers.
    void clear() noexcept {
        heap_.clear();
        timers_.clear();
    }

    // The due time of the first timer, kNever without one.
    uint64_t next_due_ms() const noexcept { return heap_.empty() ? kNever : heap_.front().due_ms; }
    // Timers that are started from now on have a higher order of start than this.
    uint64_t last_started() const noexcept { return last_started_; }
    // Takes out the first timer, if it is due and its order of start is at most started_until. A timer that
    // is started meanwhile cannot hide an older one, because it is due no earlier than now_ms.
    bool take_due(uint64_t now_ms, uint64_t started_until, Timer *due) noexcept;

  private:
    struct Entry {
        uint64_t due_ms;
        uint64_t started;
        uint64_t id;
        bool before(const Entry &other) const noexcept {
            return due_ms != other.due_ms ? due_ms < other.due_ms : started < other.started;
        }
    };
    void settle(size_t place, const Entry &entry) noexcept;
    void put(size_t place, const Entry &entry) noexcept;

    std::vector<Entry> heap_;
    SlotTable<Timer> timers_;
    uint64_t last_started_ = 0;
};

} // namespace tavcl_ev
