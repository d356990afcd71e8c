// The batches of one loop: datagrams that wait for the end of the turn, so that those for one destination
// leave in one system call.
//
// Each channel keeps its own batch, and is a member of the list here while it has one. A batch leaves when it
// has most() datagrams. All batches leave
//   - in libuv's next prepare phase, before the loop waits again
//   - when run(), run_once() or dispatch() returns, or a socket is closed
//   - when a datagram is added and the oldest has waited for the time that was set
#pragma once

#include <cstdint>

namespace tavcl_ev {

class Batches {
  public:
    struct Member {
        void (*send)(void *owner); // sends the owner's batch, if it has one still; calls nothing outside
        void *owner;
        Member *next = nullptr;
        bool listed = false;
    };

    Batches() = default;
    Batches(const Batches &) = delete;
    Batches &operator=(const Batches &) = delete;

    // most: datagrams, less than two turn batching off. most_us: microseconds, 0 for no limit.
    void set(uint32_t most, uint32_t most_us) noexcept;
    bool on() const noexcept { return most_ > 1; }
    uint32_t most() const noexcept { return most_; }
    bool empty() const noexcept { return !first_; }

    void add(Member &member) noexcept;
    void remove(Member &member) noexcept;
    bool overdue() const noexcept;
    void send_all() noexcept;

  private:
    Member *first_ = nullptr;
    uint64_t begun_us_ = 0; // when the list got its first member
    uint32_t most_ = 0;
    uint32_t most_us_ = 0;
};

} // namespace tavcl_ev
