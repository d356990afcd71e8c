// Destinations: the named endpoints that a queue's messages are sent to.
//
// A destination is made at the first look-up of its name. It lives until it is idle (nothing queued, nothing
// in flight, no pin) and is released by the hourly sweep, or by the transmitter when there are
// very many. Destroying the queue releases all destinations; one that is pinned then lives on, without a
// socket, until its last pin goes.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <type_traits>
#include <utility>

#include "common/datagram.h"
#include "ipc/stats_file.h"
#include "tavipc/ipc_queue.h"

namespace tavipc {

// From malloc: the queue's table releases it. Every mod_info_st that a queue hands out is one of these.
struct Destination {
    mod_info_st info;        // first; the key in the table is its name, also when a proxy takes the messages
    cl_sockaddr_t address;   // where the last message was sent to, len 0: none yet
    const char *deploy_type; // for which the address was composed
    size_t pipe_at;          // where the pipe's name begins in the path of address
    uint32_t pins;
    bool abandoned;  // its queue is gone, the last pin releases it
    Account account; // opened with the first message that an endpoint sends to it

    // Whether address is that of the pipe.
    bool leads_to(const char *pipe) const;
};
static_assert(std::is_trivial_v<Destination> && std::is_standard_layout_v<Destination>);
static_assert(offsetof(Destination, info) == 0);

inline Destination &destination_of(mod_info_st &info) { return reinterpret_cast<Destination &>(info); }

// Keeps a destination while the frame calls what can reach user code. Whoever holds a pointer or reference to
// a destination across such a call holds a pin: a log line is such a call, since its sink may send, settle
// finished sends, and destroy the endpoint.
class DestinationPin {
  public:
    explicit DestinationPin(Destination *destination = nullptr) : destination_(destination) {
        if (destination_) ++destination_->pins;
    }
    DestinationPin(DestinationPin &&other) noexcept
        : destination_(std::exchange(other.destination_, nullptr)) {}
    DestinationPin &operator=(DestinationPin &&other) noexcept {
        std::swap(destination_, other.destination_);
        return *this;
    }
    ~DestinationPin() {
        if (!destination_) return;
        assert(destination_->pins > 0);
        if (--destination_->pins == 0 && destination_->abandoned) std::free(destination_);
    }

    explicit operator bool() const { return destination_; }
    Destination &operator*() const { return *destination_; }
    Destination *operator->() const { return destination_; }

    // Ends the pin of a destination whose queue is alive. It is valid until the next call that can reach user
    // code.
    mod_info_st *let_go() {
        assert(!destination_->abandoned);
        return &std::exchange(destination_, (--destination_->pins, nullptr))->info;
    }

  private:
    Destination *destination_;
};

// The destination of a name in the queue's table, or null. Reaches no user code.
Destination *find_destination(ipc_queue_st &queue, const char *name);
Destination *find_destination(ipc_queue_st &queue, const NameText &name);
// The same, made when there is none; now_ms on the loop's clock. Null when the name is too long, memory is
// short, no socket can be made, or the sink of a log line destroyed the queue.
Destination *find_or_make_destination(ipc_queue_st &queue, const char *name, uint64_t now_ms);

// A zeroed destination that sends through sock, last used now; null when memory is short.
Destination *new_destination(cl_dunix_t sock, uint64_t now_ms);
// Releases it, or leaves that to its last pin; null is ignored. The queue's table calls this.
void release_destination(void *destination);

// Whether nothing is in flight to any of the queue's destinations.
bool nothing_in_flight(const ipc_queue_st &queue);

// A count of datagrams and the sum of their sizes: the records of a destination in the queue, or its
// datagrams in flight. Counts stop at the ends of their range, they never wrap: other code may push and pop
// records whose size it changes in between.
inline void count_in(uint32_t &count, uint32_t &bytes, uint32_t size) {
    ++count;
    if (__builtin_add_overflow(bytes, size, &bytes)) bytes = UINT32_MAX;
}
inline void count_out(uint32_t &count, uint32_t &bytes, uint32_t size) {
    if (count > 0) --count;
    if (__builtin_sub_overflow(bytes, size, &bytes)) bytes = 0;
}

} // namespace tavipc
