// Values behind 64-bit ids that are never reused.
//
// An id is a slot number (low 24 bits) and that slot's generation (upper 40 bits, from 1 on, so no id is 0).
// Taking a value out raises the generation, which makes every copy of the old id stale. A slot whose
// generations are used up is retired. A new table starts above all generations of the tables that were
// cleared before, so the ids of a thread's former loop are stale in its next one.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

namespace tavcl_ev {

template <class T> class SlotTable {
  public:
    SlotTable() : first_generation_(generation_floor_.load()) {}
    SlotTable(const SlotTable &) = delete;
    SlotTable &operator=(const SlotTable &) = delete;
    ~SlotTable() { clear(); }

    // Drops all values. Every id that was given is stale from then on, in this table and in later ones.
    void clear() noexcept {
        uint64_t floor = first_generation_;
        for (const Slot &slot : slots_) floor = std::max(floor, slot.generation + 1);
        uint64_t seen = generation_floor_.load();
        while (seen < floor && !generation_floor_.compare_exchange_weak(seen, floor)) {
        }
        slots_.clear();
        free_ = kNone;
        first_generation_ = floor;
    }

    // May throw bad_alloc; the table is then unchanged.
    uint64_t insert(T value) {
        if (free_ == kNone) {
            if (slots_.size() > kIndexMask) throw std::bad_alloc();
            slots_.push_back({first_generation_, kNone, false, T{}});
            free_ = static_cast<uint32_t>(slots_.size() - 1);
        }
        const uint32_t index = free_;
        Slot &slot = slots_[index];
        free_ = slot.next_free;
        slot.used = true;
        slot.value = std::move(value);
        return slot.generation << kIndexBits | index;
    }

    // Valid until the next insert.
    T *find(uint64_t id) noexcept {
        const uint64_t index = id & kIndexMask;
        if (index >= slots_.size()) return nullptr;
        Slot &slot = slots_[index];
        return slot.used && slot.generation == id >> kIndexBits ? &slot.value : nullptr;
    }

    // Takes the value out; an empty value for a stale id.
    T take(uint64_t id) noexcept {
        if (!find(id)) return T{};
        const auto index = static_cast<uint32_t>(id & kIndexMask);
        Slot &slot = slots_[index];
        T value = std::exchange(slot.value, T{});
        slot.used = false;
        if (++slot.generation < uint64_t{1} << (64 - kIndexBits))
            slot.next_free = std::exchange(free_, index);
        return value;
    }

    // The id of any value in the table, 0 when it is empty.
    uint64_t any() const noexcept {
        for (size_t index = 0; index < slots_.size(); ++index)
            if (slots_[index].used) return slots_[index].generation << kIndexBits | index;
        return 0;
    }

  private:
    static constexpr unsigned kIndexBits = 24;
    static constexpr uint64_t kIndexMask = (uint64_t{1} << kIndexBits) - 1;
    static constexpr uint32_t kNone = UINT32_MAX;
    struct Slot {
        uint64_t generation;
        uint32_t next_free;
        bool used;
        T value;
    };
    static inline std::atomic<uint64_t> generation_floor_{1};

    uint64_t first_generation_;
    std::vector<Slot> slots_;
    uint32_t free_ = kNone;
};

} // namespace tavcl_ev
