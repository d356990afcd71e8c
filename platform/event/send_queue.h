// One accepted send, and the first-in first-out list that holds such records.
//
// A record is in one list at most: free (SendPool), waiting (its Channel), finished (FinishedSends, until its
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

// Finished sends whose callbacks have not run. Those that left can be taken before those that failed.
class FinishedSends {
  public:
    bool empty() const noexcept { return left_.empty() && failed_.empty(); }
    size_t left_bytes() const noexcept { return left_bytes_; } // data of those that left
    void push(Send *send) noexcept {
        const bool left = send->status == CL_EV_OK;
        if (left) left_bytes_ += send->len;
        (left ? left_ : failed_).push(send);
    }
    // The one that finished first, of all or of those that left. Null without one.
    Send *first() const noexcept {
        Send *const left = left_.front(), *const failed = failed_.front();
        return failed && (!left || failed->order < left->order) ? failed : left;
    }
    Send *first_that_left() const noexcept { return left_.front(); }
    // Takes out what one of these two has returned.
    void remove(Send *send) noexcept {
        const bool left = send->status == CL_EV_OK;
        if (left) left_bytes_ -= send->len;
        [[maybe_unused]] const Send *const first = (left ? left_ : failed_).pop();
        assert(first == send);
    }
    // Takes out those of a socket.
    SendQueue take(cl_dunix_t socket) noexcept {
        SendQueue taken, others;
        while (Send *send = first()) {
            remove(send);
            (send->socket == socket ? taken : others).push(send);
        }
        while (!others.empty()) push(others.pop());
        return taken;
    }

  private:
    SendQueue left_, failed_;
    size_t left_bytes_ = 0;
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
