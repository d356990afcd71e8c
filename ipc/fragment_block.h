// The datagrams of one fragmented message: one allocation, cut into slots that the queue records take over
// one by one. A slot that its record has released serves again, so that a message to a quick peer passes
// through few of them; what is never used costs no memory. The block goes with the last datagram.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavipc {

class FragmentBlock {
  public:
    // Room for that many datagrams of full length; null when memory is short.
    static FragmentBlock *create(uint32_t count);
    // Room for a datagram, header and up to 64,000 bytes of payload, not set. At most count times.
    unsigned char *take_slot();
    // A record's data_free: releases its slot.
    static void release_slot(void *datagram, uint32_t size);
    // No record takes this datagram, and it and those that were still to come are given up, count in all. The
    // block may be gone afterwards.
    void give_up(unsigned char *datagram, uint32_t count);

  private:
    explicit FragmentBlock(uint32_t count) : left_(count) {}
    void release(unsigned char *datagram, uint32_t count);

    uint32_t left_;                 // datagrams not released or given up
    uint32_t fresh_ = 0;            // slots taken so far
    unsigned char *free_ = nullptr; // chain of released slots, the last one first
};

} // namespace tavipc
