#include "loop_registry.h"

#include <array>
#include <atomic>
#include <cassert>
#include <cstddef>
#include <sched.h>

#include "mailbox.h"

namespace tavcl_ev {

namespace {

constexpr uint64_t kLowBits = 0xffff; // of a handle: the slot; of a slot's word: its users
// Threads with a loop that has a handle. Half of the kernel's default number of processes; the memory of
// slots that are never used is never touched.
constexpr size_t kSlots = 16384;

struct Slot {
    std::atomic<uint64_t> word; // generation (odd while in use), users
    std::atomic<Mailbox *> mailbox;
    std::atomic<uint64_t> signals;
};
static_assert(std::atomic<uint64_t>::is_always_lock_free, "signal handlers use the slots");

constinit std::array<Slot, kSlots> g_slots{};
constinit std::atomic<size_t> g_slots_seen{0}; // all slots that were ever in use are below

constexpr uint64_t kNextGeneration = kLowBits + 1;
bool in_use(uint64_t word) { return word & kNextGeneration; }
uint64_t generation(uint64_t word) { return word & ~kLowBits; }
Slot *slot_of(uint64_t handle) {
    const size_t index = handle & kLowBits;
    return index < kSlots ? &g_slots[index] : nullptr;
}

void take_slot(size_t index) {
    size_t seen = g_slots_seen;
    while (seen <= index && !g_slots_seen.compare_exchange_weak(seen, index + 1)) {
    }
}

} // namespace

// The generation is raised last, because a look-up may use the slot from then on. The lowest bits serve as a
// claim until then: a free slot has no users.
uint64_t enlist(Mailbox &mailbox) noexcept {
    for (size_t index = 0; index < kSlots; ++index) {
        Slot &slot = g_slots[index];
        uint64_t word = slot.word;
        if (in_use(word) || (word & kLowBits) || !slot.word.compare_exchange_strong(word, word + 1)) continue;
        slot.signals = 0;
        slot.mailbox = &mailbox;
        take_slot(index);
        slot.word = word + kNextGeneration;
        return (word + kNextGeneration) | index;
    }
    return 0;
}

void delist(uint64_t handle) noexcept {
    if (!handle) return;
    Slot &slot = *slot_of(handle);
    slot.signals = 0;
    assert(generation(slot.word) == generation(handle));
    slot.word += kNextGeneration;
    while (slot.word & kLowBits) sched_yield();
}

// Users that were counted in the parent do not exist in the child.
void delist_all() noexcept {
    for (size_t index = 0; index < g_slots_seen; ++index) {
        Slot &slot = g_slots[index];
        slot.signals = 0;
        const uint64_t word = generation(slot.word);
        slot.word = in_use(word) ? word + kNextGeneration : word;
    }
}

void set_caught_signals(uint64_t handle, uint64_t signals) noexcept { slot_of(handle)->signals = signals; }

void catch_signal_in_all(int signo) noexcept {
    const size_t seen = g_slots_seen;
    for (size_t index = 0; index < seen; ++index) {
        if (!(g_slots[index].signals & Mailbox::bit_of(signo))) continue;
        const MailboxUser mailbox(generation(g_slots[index].word) | index);
        if (mailbox) mailbox->catch_signal(signo);
    }
}

MailboxUser::MailboxUser(uint64_t handle) noexcept : handle_(handle) {
    Slot *slot = slot_of(handle);
    if (!slot || !in_use(handle)) return;
    uint64_t word = slot->word;
    do
        if (generation(word) != generation(handle)) return;
    while (!slot->word.compare_exchange_weak(word, word + 1));
    mailbox_ = slot->mailbox;
}

MailboxUser::~MailboxUser() {
    if (mailbox_) --slot_of(handle_)->word;
}

} // namespace tavcl_ev
