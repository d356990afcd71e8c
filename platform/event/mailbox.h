// What reaches a loop from outside its callbacks: wake-ups, posted functions, caught signals.
//
// An eventfd ends the loop's wait. Posted functions are in a list without a lock, the newest first; the
// loop's thread takes all of them and reverses the order. A fork can therefore not leave the list locked or
// half changed. Functions that have been taken stay in ready_ until each is called, so that a nested run goes
// on with them in order.
#pragma once

#include <atomic>
#include <cstdint>

#include "private_fd.h"

namespace tavcl_ev {

class Mailbox {
  public:
    Mailbox() = default;
    Mailbox(const Mailbox &) = delete;
    Mailbox &operator=(const Mailbox &) = delete;
    ~Mailbox() { clear(); }

    bool open() noexcept;
    int fd() const noexcept { return fd_.get(); }

    // Any thread. ring and catch_signal are async-signal-safe.
    void ring() const noexcept;
    bool post(void (*function)(void *), void *argument) noexcept; // false when memory is short
    void catch_signal(int signo) noexcept;

    // The loop's thread.
    bool pending() const noexcept { return ready_ || posted_.load(std::memory_order_relaxed); }
    void silence() const noexcept; // until the next ring
    // Calls the functions that were posted before this call.
    template <class BeforeEach> void run_posted(BeforeEach before_each) noexcept {
        take_posted();
        const uint64_t until = last_taken_;
        while (ready_ && ready_->order <= until) {
            const Post post = pop();
            before_each();
            post.function(post.argument);
        }
    }
    // Bit signo - 1 for each signal that was caught since the last call.
    uint64_t take_caught() noexcept { return caught_.exchange(0); }
    void forget_caught(int signo) noexcept { caught_.fetch_and(~bit_of(signo)); }
    static uint64_t bit_of(int signo) noexcept { return uint64_t{1} << (signo - 1); }
    void clear() noexcept;
    void close() noexcept { fd_.reset(); }

  private:
    struct Post {
        Post *next;
        void (*function)(void *);
        void *argument;
        uint64_t order; // of taking
    };
    void take_posted() noexcept;
    Post pop() noexcept;

    PrivateFd fd_;
    std::atomic<Post *> posted_{nullptr}; // the newest first
    std::atomic<uint64_t> caught_{0};
    Post *ready_ = nullptr; // the oldest first
    Post **ready_end_ = &ready_;
    uint64_t last_taken_ = 0;
};

} // namespace tavcl_ev
