// The datagrams of one fragmented message, in one allocation: when it succeeds, only memory for a record,
// some hundred bytes, can still be short. Each record takes a slot for its datagram. A released slot serves
// again, so a message to a quick peer passes through few slots, which stay in the cache. Slots that are never
// taken cost no memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "ipc/wire.h"

struct ipc_queue_msg_st;

namespace tavipc {

// What has become of the message so far; ipc/accounting keeps it.
struct MessageFate {
    uint32_t outstanding; // fragments that have neither left nor been dropped
    bool begun;           // a fragment was accepted
    bool submitted;       // no further fragment comes
    bool failed;          // a fragment was dropped or refused
};

class FragmentBlock {
  public:
    MessageFate fate{};

    struct Drop {
        void operator()(FragmentBlock *block) const noexcept { drop(block); }
    };
    // Keeps the block while the sender takes slots. The block is released with the last of this hold and the
    // taken slots.
    using Hold = std::unique_ptr<FragmentBlock, Drop>;

    // A block for at most count taken slots at a time; null when memory is short.
    static Hold create(uint32_t count);
    // Memory for a datagram, header and up to 64,000 bytes of payload, not set.
    unsigned char *take_slot() noexcept;
    // Releases a slot. A record's data_free.
    static void release_slot(void *datagram, uint32_t size) noexcept;
    // The block that a record's datagram lies in; null if the record has it inline.
    static FragmentBlock *of(const ipc_queue_msg_st &msg) noexcept;

  private:
    struct Slot {
        FragmentBlock *block;
        Slot *next_free;
        unsigned char datagram[kHeaderSize + kFragmentPayload];
    };

    FragmentBlock() = default;
    static Slot *slot_of(void *datagram) noexcept;
    static void drop(FragmentBlock *block) noexcept;
    Slot *slots() noexcept { return reinterpret_cast<Slot *>(this + 1); }

    uint32_t users_ = 1;   // the hold and the taken slots
    uint32_t fresh_ = 0;   // slots that were taken so far at least once
    Slot *free_ = nullptr; // released slots, the last one first
};

} // namespace tavipc
