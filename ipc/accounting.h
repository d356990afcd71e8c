// What becomes of messages: the one place that counts it, for the endpoint and for the destination.
//
// Each outcome has a function, which is called exactly once for it. The functions count and reach no user
// code. Those with a record (ipc_queue_msg_st) know everything about the datagram: endpoint, destination,
// bytes, attempts. They ignore records that other code has put into the queue. The endpoint and the
// destination of a record must still be there.
//
// A datagram is accepted once, and then leaves or is dropped once. In between it is queued, in flight, or in
// the hands of a frame of the transmitter. A message has left when all its datagrams have, and counts as
// dropped if one of them was.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <utility>

#include "ipc/destination.h"
#include "ipc/endpoint.h"
#include "ipc/fragment_block.h"
#include "tavipc/tav_ipc_stats.h"

namespace tavipc {

using Counter = tav_ipc_stats_value;

// In the flags of the records that count. Private: other code's records do not have it.
inline constexpr uint32_t kCountedRecord = 1u << 31;

// --- the life of an account

// Open the account, for a destination only if it is not open yet. False when memory is short.
[[nodiscard]] bool open_endpoint_account(tav_ipc_st *ipc);
[[nodiscard]] bool open_destination_account(const tav_ipc_st *ipc, Destination &to);

// --- a datagram on its way out

// The transmitter has taken it.
void account_accepted(const ipc_queue_msg_st &msg, uint64_t now_ms);
// It entered or left the delivery queue.
void account_queued(const ipc_queue_msg_st &msg);
void account_unqueued(const ipc_queue_msg_st &msg);
// It was accepted and left in the same call, without a record. block: null, or that of its message.
void account_sent_at_once(tav_ipc_st *ipc, Destination &to, FragmentBlock *block,
                          const tav_ipc_hdr_st &header, const void *payload);
// The event library got it; gave it back, or was given up.
void account_in_flight(const ipc_queue_msg_st &msg);
void account_landed(const ipc_queue_msg_st &msg);
// The ends: the destination's socket took it, or it was dropped (reason: DROPPED_NO_PEER ...).
void account_left(const ipc_queue_msg_st &msg);
void account_dropped(const ipc_queue_msg_st &msg, Counter reason);
// It was put back into the queue after a failed attempt (msg.try_times so far).
void account_retried(const ipc_queue_msg_st &msg);
// The reason for which a datagram with this status of the event library is dropped.
Counter drop_reason(int status);

// --- a message

// It was not accepted (reason: REFUSED_BUDGET ...). to: null if it has no destination yet.
void account_refused(const tav_ipc_st *ipc, const Destination *to, Counter reason);
// Its last fragment was submitted, or a fragment was refused.
void account_fragments_submitted(tav_ipc_st *ipc, FragmentBlock &block, bool all);

// --- a datagram on its way in

// A datagram of size bytes, header included, with a sound header.
void account_received(const tav_ipc_st *ipc, const void *datagram, uint32_t size);
// A datagram that was not received (reason: BAD_SHORT, BAD_CHECK, BAD_SIZE, BAD_OTHER). data may be null.
void account_bad(const tav_ipc_st *ipc, const void *data, uint32_t size, Counter reason);
// A received datagram, or the message that it completed, that was not taken after all (reason: BAD_FRAGMENT,
// BAD_COMPRESSED).
void account_not_taken(const tav_ipc_st *ipc, const tav_ipc_hdr_st &header, const void *payload,
                       Counter reason);
// A message went to the application or to the library's own functions.
void account_delivered(const tav_ipc_st *ipc);

// --- others

// Counts up; sets a gauge.
void account_event(const tav_ipc_st *ipc, Counter counter);
void account_gauge(const tav_ipc_st *ipc, Counter gauge, uint64_t value);

// An exchange waits for its answer; got it, or ended without one (how: EXCHANGES_COMPLETED ...). ipc may be
// null.
void account_exchange_waits(const tav_ipc_st *ipc);
void account_exchange_over(const tav_ipc_st *ipc, Counter how);

void account_handler_time(const tav_ipc_st *ipc, const timespec &begin, const timespec &end);

// Counts a call of an application's callback and measures it.
class HandlerCall {
  public:
    explicit HandlerCall(tav_ipc_st *ipc);
    ~HandlerCall();
    HandlerCall(const HandlerCall &) = delete;
    HandlerCall &operator=(const HandlerCall &) = delete;

  private:
    tav_ipc_st *ipc_; // the caller pins it
    timespec begin_{};
};

// --- what of it runs for each datagram

inline void add_to(uint64_t *values, Counter counter, uint64_t amount) {
    const std::atomic_ref value(values[counter]);
    value.store(value.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}
inline void set_to(uint64_t *values, Counter counter, uint64_t amount) {
    std::atomic_ref(values[counter]).store(amount, std::memory_order_relaxed);
}
inline uint64_t count_of(uint64_t *values, Counter counter) {
    return std::atomic_ref(values[counter]).load(std::memory_order_relaxed);
}

inline bool is_counted(const ipc_queue_msg_st &msg) { return (msg.flags & kCountedRecord) && msg.mod; }

// Where the endpoint's and the destination's values of a counted record are: they count the same.
struct BothValues {
    uint64_t *ipc, *to;

    BothValues(const Account &of_ipc, const Account &of_to) : ipc(of_ipc.values), to(of_to.values) {}
    explicit BothValues(const ipc_queue_msg_st &msg)
        : BothValues(msg.ipc->account, destination_of(*msg.mod).account) {}
    // Adds to a count of datagrams, and their bytes to the value behind it.
    void add(Counter datagrams, uint64_t count, uint64_t bytes) const {
        add(datagrams, count);
        add(static_cast<Counter>(datagrams + 1), bytes);
    }
    void add(Counter counter, uint64_t count) const {
        add_to(ipc, counter, count);
        add_to(to, counter, count);
    }
};

inline void account_in_flight(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) BothValues(msg).add(TAV_IPC_STATS_IN_FLIGHT, 1, msg.size);
}
inline void account_landed(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) BothValues(msg).add(TAV_IPC_STATS_IN_FLIGHT, UINT64_MAX, -uint64_t{msg.size});
}

static_assert(TAV_IPC_STATS_ACCEPTED_BYTES == TAV_IPC_STATS_ACCEPTED + 1);
static_assert(TAV_IPC_STATS_LEFT_BYTES == TAV_IPC_STATS_LEFT + 1);
static_assert(TAV_IPC_STATS_QUEUED_BYTES == TAV_IPC_STATS_QUEUED + 1);
static_assert(TAV_IPC_STATS_IN_FLIGHT_BYTES == TAV_IPC_STATS_IN_FLIGHT + 1);

inline void begin_waiting(Account &account, uint64_t now_ms) {
    if (account.outstanding++ == 0) set_to(account.values, TAV_IPC_STATS_WAITING_SINCE_MS, now_ms);
}

inline FragmentBlock *block_of(const ipc_queue_msg_st &msg) {
    return msg.data_free ? FragmentBlock::of(msg) : nullptr;
}

inline void begin_message(const BothValues &both, tav_ipc_st *ipc) {
    both.add(TAV_IPC_STATS_MESSAGES, 1);
    ++ipc->messages.pending;
}

inline void account_accepted(const ipc_queue_msg_st &msg, uint64_t now_ms) {
    const BothValues both(msg);
    both.add(TAV_IPC_STATS_ACCEPTED, 1, msg.size);
    begin_waiting(msg.ipc->account, now_ms);
    begin_waiting(destination_of(*msg.mod).account, now_ms);
    FragmentBlock *block = block_of(msg);
    if (!block) return begin_message(both, msg.ipc);
    both.add(TAV_IPC_STATS_FRAGMENTS, 1);
    ++block->fate.outstanding;
    if (!std::exchange(block->fate.begun, true)) begin_message(both, msg.ipc);
}

inline HandlerCall::HandlerCall(tav_ipc_st *ipc) : ipc_(ipc) {
    clock_gettime(CLOCK_MONOTONIC_COARSE, &begin_);
    add_to(ipc->account.values, TAV_IPC_STATS_HANDLER_CALLS, 1);
}
inline HandlerCall::~HandlerCall() {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &end);
    const bool same_tick = end.tv_nsec == begin_.tv_nsec && end.tv_sec == begin_.tv_sec;
    if (!same_tick) account_handler_time(ipc_, begin_, end);
}

} // namespace tavipc
