#include "ipc/fragment_block.h"

#include <cassert>
#include <cstdlib>
#include <new>

#include "ipc/huge_pages.h"
#include "tavipc/ipc_queue.h"

namespace tavipc {

FragmentBlock::Hold FragmentBlock::create(uint32_t count) {
    static_assert(sizeof(FragmentBlock) % alignof(Slot) == 0);
    const size_t size = sizeof(FragmentBlock) + size_t{count} * sizeof(Slot);
    void *memory = std::malloc(size);
    if (!memory) return nullptr;
    prefer_huge_pages(memory, size);
    return Hold(new (memory) FragmentBlock);
}

unsigned char *FragmentBlock::take_slot() noexcept {
    Slot *slot = free_;
    if (slot)
        free_ = slot->next_free;
    else
        slot = &slots()[fresh_++];
    slot->block = this;
    ++users_;
    return slot->datagram;
}

FragmentBlock::Slot *FragmentBlock::slot_of(void *datagram) noexcept {
    return reinterpret_cast<Slot *>(static_cast<unsigned char *>(datagram) - offsetof(Slot, datagram));
}

FragmentBlock *FragmentBlock::of(const ipc_queue_msg_st &msg) noexcept {
    return msg.data_free == release_slot ? slot_of(msg.data)->block : nullptr;
}

void FragmentBlock::release_slot(void *datagram, uint32_t) noexcept {
    Slot *slot = slot_of(datagram);
    FragmentBlock *block = slot->block;
    slot->next_free = block->free_;
    block->free_ = slot;
    drop(block);
}

void FragmentBlock::drop(FragmentBlock *block) noexcept {
    assert(block->users_ > 0);
    if (--block->users_ == 0) std::free(block);
}

} // namespace tavipc
