// The memory of messages that are put together from fragments, and the account of how much of it is resident.
//
// A buffer is a mapping of its own unless it is small. The kernel commits its pages as they are written, so a
// buffer costs what has arrived, not what the sender claims. Huge pages are off at first: with them a single
// fragment could commit 2 MiB. They are switched on once 2 MiB have arrived, or at once for a sender whose
// large messages become complete, because they save most of the page faults. From then on every huge page
// with a fragment in it counts in full.
//
// A buffer that has delivered its message becomes a spare for a message of similar size. Spares are part of
// the same account. A mapping that is ten seconds old is no longer reused, whatever the traffic is.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>

#include <sys/mman.h>

#include "ipc/huge_pages.h"
#include "ipc/wire.h"

namespace tavipc {

inline constexpr size_t kMostPieces = 1024; // fragments of a message: the sequence number has 10 bits

// Releases a buffer's memory.
struct ReleasePages {
    size_t mapped_bytes = 0; // 0: the memory is from malloc
    void operator()(unsigned char *memory) const noexcept {
        if (mapped_bytes > 0)
            munmap(memory, mapped_bytes);
        else
            std::free(memory);
    }
};

// The payload of one message. Piece n, the payload of fragment n, lies at byte n * 64,000. Bytes that were
// not written are undefined after a reuse; clear() makes them zero.
class ReassemblyBuffer {
  public:
    explicit operator bool() const { return memory_ != nullptr; }
    const unsigned char *data() const { return memory_.get(); }

  private:
    friend class ReassemblyBuffers;
    bool is_mapped() const { return memory_.get_deleter().mapped_bytes > 0; }
    unsigned char *piece(size_t number) const { return memory_.get() + number * kFragmentPayload; }
    size_t resident_bytes() const;
    void use_huge_pages();
    void touch(size_t number, size_t length);

    std::unique_ptr<unsigned char[], ReleasePages> memory_;
    size_t capacity_ = 0;              // bytes
    time_t mapped_s_ = 0;              // when the mapping was made
    bool uses_huge_pages_ = false;     // and is charged by them
    std::bitset<kMostPieces> touched_; // pieces that are resident
    std::bitset<64> huge_touched_;     // the same in units of 2 MiB, counted from the first one's boundary
};

class ReassemblyBuffers {
  public:
    ReassemblyBuffers() = default;
    ReassemblyBuffers(const ReassemblyBuffers &) = delete;
    ~ReassemblyBuffers();

    // A buffer of at least that many bytes, with huge pages at once if it is large and the sender is proven.
    // Empty when memory is short even after all spares were released.
    [[nodiscard]] ReassemblyBuffer take(size_t bytes, bool proven, time_t now_s);
    void write(ReassemblyBuffer &buffer, size_t piece, const void *data, size_t length);
    // Makes a piece zero that was not written since the buffer was taken.
    void clear(ReassemblyBuffer &buffer, size_t piece, size_t length);
    // Releases the memory of a message that will not be completed. The buffer may be empty.
    void drop(ReassemblyBuffer &buffer);
    // Takes the buffer out of the account while its message is delivered; give_back ends that.
    [[nodiscard]] ReassemblyBuffer lend(ReassemblyBuffer &buffer);
    void give_back(ReassemblyBuffer buffer, time_t now_s);

    // Releases the spare that was given back first. False when there is none.
    bool release_spare();
    void release_old_spares(time_t now_s);

    // What taken buffers and spares keep resident, in bytes; an upper bound.
    size_t resident_bytes() const { return resident_bytes_; }

  private:
    static constexpr size_t kMostSpares = 8; // a message of each of several senders at the same time

    static ReassemblyBuffer allocate(size_t bytes, bool proven, time_t now_s);
    ReassemblyBuffer take_spare(size_t bytes, time_t now_s);
    ReassemblyBuffer remove_spare(size_t index);
    size_t spare_bytes() const;
    // Accounts for a piece that is about to be written.
    void touch(ReassemblyBuffer &buffer, size_t piece, size_t length);

    std::array<ReassemblyBuffer, kMostSpares> spares_; // those given back first come first
    size_t spare_count_ = 0;
    size_t resident_bytes_ = 0;
};

} // namespace tavipc
