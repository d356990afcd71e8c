#include "ipc/fragment_block.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "ipc/huge_pages.h"
#include "ipc/wire.h"

namespace tavipc {
namespace {

constexpr size_t kLine = 64; // of the cache: slots share none
constexpr size_t kBack = sizeof(void *);
constexpr size_t kSlot = (kBack + kHeaderSize + kFragmentPayload + kLine - 1) / kLine * kLine;
static_assert(sizeof(FragmentBlock) <= kLine);

} // namespace

FragmentBlock *FragmentBlock::create(uint32_t count) {
    const size_t size = kLine + size_t{count} * kSlot;
    void *memory = std::malloc(size);
    if (!memory) return nullptr;
    prefer_huge_pages(memory, size);
    return new (memory) FragmentBlock(count);
}

// In front of each datagram stands a pointer to its block, by which its record finds back.
unsigned char *FragmentBlock::take_slot() {
    unsigned char *datagram = free_;
    if (datagram) {
        std::memcpy(&free_, datagram, sizeof free_);
        return datagram;
    }
    unsigned char *begin = reinterpret_cast<unsigned char *>(this) + kLine + fresh_++ * kSlot;
    FragmentBlock *self = this;
    std::memcpy(begin, &self, kBack);
    return begin + kBack;
}

void FragmentBlock::release_slot(void *datagram, uint32_t) {
    FragmentBlock *block;
    std::memcpy(&block, static_cast<unsigned char *>(datagram) - kBack, kBack);
    block->release(static_cast<unsigned char *>(datagram), 1);
}

void FragmentBlock::give_up(unsigned char *datagram, uint32_t count) { release(datagram, count); }

void FragmentBlock::release(unsigned char *datagram, uint32_t count) {
    left_ -= count;
    if (left_ == 0) return std::free(this);
    std::memcpy(datagram, &free_, sizeof free_);
    free_ = datagram;
}

} // namespace tavipc
