// One accepted send, and the first-in first-out list that such records stand in.
//
// A record is in exactly one list: free (SendPool), waiting (its Channel), finished (the Loop, until its
// callback runs), or cancelled (inside Dunix::close). Lists are chained through the records: moving one
// allocates nothing.
#pragma once

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
    uint64_t order; // among the finished
    cl_dunix_send_cb callback;
    void *context;
};

class SendQueue {
  public:
    SendQueue() = default;
    SendQueue(SendQueue &&other) noexcept
        : first_(std::exchange(other.first_, nullptr)), last_(std::exchange(other.last_, nullptr)) {}
    SendQueue &operator=(SendQueue &&) = delete;

    bool empty() const noexcept { return !first_; }
    Send *front() const noexcept { return first_; }
    void push(Send *send) noexcept {
        send->next = nullptr;
        (last_ ? last_->next : first_) = send;
        last_ = send;
    }
    Send *pop() noexcept {
        Send *send = first_;
        first_ = send->next;
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

// Keeps a number of free records, the last used on top, which saves an allocation for each datagram.
class SendPool {
  public:
    SendPool() = default;
    SendPool(const SendPool &) = delete;
    SendPool &operator=(const SendPool &) = delete;
    ~SendPool() {
        while (free_) delete std::exchange(free_, free_->next);
    }
    Send *take() noexcept {
        if (!free_) return new (std::nothrow) Send;
        --kept_;
        return std::exchange(free_, free_->next);
    }
    void give_back(Send *send) noexcept {
        if (kept_ == kMaxKept) {
            delete send;
        } else {
            ++kept_;
            send->next = std::exchange(free_, send);
        }
    }

  private:
    static constexpr size_t kMaxKept = 1024;
    Send *free_ = nullptr;
    size_t kept_ = 0;
};

} // namespace tavcl_ev
