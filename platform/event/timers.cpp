#include "timers.h"

namespace tavcl_ev {

uint64_t TimerHeap::start(uint64_t due_ms, const Timer &timer) noexcept try {
    heap_.emplace_back();
    uint64_t id;
    try {
        id = timers_.insert(timer);
    } catch (...) {
        heap_.pop_back();
        throw;
    }
    settle(heap_.size() - 1, {due_ms, ++last_started_, id});
    return id;
} catch (const std::bad_alloc &) {
    return 0;
}

bool TimerHeap::stop(uint64_t id, Timer *stopped) noexcept {
    if (!timers_.find(id)) return false;
    *stopped = timers_.take(id);
    const Entry last = heap_.back();
    heap_.pop_back();
    if (stopped->place < heap_.size()) settle(stopped->place, last);
    return true;
}

bool TimerHeap::take_due(uint64_t now_ms, uint64_t started_until, Timer *due) noexcept {
    if (heap_.empty() || heap_.front().due_ms > now_ms || heap_.front().started > started_until) return false;
    return stop(heap_.front().id, due);
}

// Moves the entry up or down from place until the heap is in order again.
void TimerHeap::settle(size_t place, const Entry &entry) noexcept {
    while (place > 0 && entry.before(heap_[(place - 1) / 2])) {
        put(place, heap_[(place - 1) / 2]);
        place = (place - 1) / 2;
    }
    for (;;) {
        size_t child = 2 * place + 1;
        if (child >= heap_.size()) break;
        if (child + 1 < heap_.size() && heap_[child + 1].before(heap_[child])) ++child;
        if (!heap_[child].before(entry)) break;
        put(place, heap_[child]);
        place = child;
    }
    put(place, entry);
}

void TimerHeap::put(size_t place, const Entry &entry) noexcept {
    heap_[place] = entry;
    timers_.find(entry.id)->place = place;
}

} // namespace tavcl_ev
