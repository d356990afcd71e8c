// One accepted send, and the first-in first-out list that holds such records.
//
// A record is in one list at most: free (SendPool), waiting (its Channel), finished (the Loop, until its
// callback runs), or cancelled (inside Dunix::close). While a function moves it from one list to the next it
// is in none; its `next` is then the record itself. Lists are chained through the records, so moving one
// allocates nothing.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "tavcl_ev.h"

namespace tavcl_ev {

struct Send {
    Send *next;
    cl_dunix_t socket;
    const void *data;
    uint32_t len;
    int status;
    uint64_t order; // of finishing
    cl_dunix_send_cb callback;
    void *context;
};

class SendQueue {
  public:
    SendQueue() = default;
    SendQueue(SendQueue &&other) noexcept
        : first_(std::exchange(other.first_, nullptr)), last_(std::exchange(other.last_, nullptr)) {}
    SendQueue &operator=(SendQueue &&) = delete;
    ~SendQueue() { assert(empty()); } // else sends would never complete

    bool empty() const noexcept { return !first_; }
    Send *front() const noexcept { return first_; }
    void push(Send *send) noexcept {
        assert(send->next == send);
        send->next = nullptr;
        (last_ ? last_->next : first_) = send;
        last_ = send;
    }
    Send *pop() noexcept {
        Send *send = first_;
        first_ = std::exchange(send->next, send);
        if (!first_) last_ = nullptr;
        return send;
    }
    void append(SendQueue &&other) noexcept {
        if (other.empty()) return;
        (last_ ? last_->next : first_) = other.first_;
        last_ = std::exchange(other.last_, nullptr);
        other.first_ = nullptr;
    }

  private:
    Send *first_ = nullptr;
    Send *last_ = nullptr;
};

// Keeps free records, the last used first, which saves an allocation for each datagram.
class SendPool {
  public:
    SendPool() = default;
    SendPool(const SendPool &) = delete;
    SendPool &operator=(const SendPool &) = delete;
    ~SendPool() {
        while (free_) delete std::exchange(free_, free_->next);
    }
    Send *take() noexcept {
        Send *send = free_ ? free_ : new (std::nothrow) Send;
        if (free_) {
            free_ = send->next;
            --kept_;
        }
        if (send) send->next = send;
        return send;
    }
    void give_back(Send *send) noexcept {
        assert(send->next == send);
        if (kept_ == kMaxKept) {
            delete send;
        } else {
            ++kept_;
            send->next = std::exchange(free_, send);
        }
    }

  private:
    // Records, 64 KiB: those of a burst between two turns of the loop.
    static constexpr size_t kMaxKept = 1024;
    Send *free_ = nullptr;
    size_t kept_ = 0;
};

} // namespace tavcl_ev
