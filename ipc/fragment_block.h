// The datagrams of one fragmented message: one allocation, cut into slots that the queue records take over
// one by one, released with the last of them. One large allocation costs far fewer page faults than a
// thousand small ones, and the allocator gets it back in one piece.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavipc {

class FragmentBlock {
  public:
    // Room for that many datagrams of full length; null when memory is short.
    static FragmentBlock *create(uint32_t count);
    // The datagram's bytes: header and up to 64,000 bytes of payload, not set.
    unsigned char *slot(uint32_t index);
    // Gives up the slots that no record took over. The block may be gone afterwards.
    void release_slots(uint32_t count);
    // A record's data_free: gives up the slot.
    static void release_slot(void *datagram, uint32_t size);

  private:
    explicit FragmentBlock(uint32_t count) : left_(count) {}
    uint32_t left_; // slots not given up
};

} // namespace tavipc
