#include "ipc/accounting.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unistd.h>
#include <utility>

#include "common/log.h"
#include "ipc/socket_directory.h"
#include "ipc/wire.h"

namespace tavipc {
namespace {

// The endpoint's account and the destination's, which count the same.
struct Both {
    Account &ipc;
    Account &to;

    explicit Both(const ipc_queue_msg_st &msg)
        : ipc(msg.ipc->account), to(destination_of(*msg.mod).account) {}
    void add(Counter counter, uint64_t amount) const {
        add_to(ipc, counter, amount);
        add_to(to, counter, amount);
    }
    // A gauge of datagrams and the one of their bytes behind it.
    void move(Counter datagrams, Counter bytes, int64_t change, uint32_t size) const {
        add(datagrams, static_cast<uint64_t>(change));
        add(bytes, static_cast<uint64_t>(change * int64_t{size}));
    }
};

void begin_waiting(Account &account, uint64_t now_ms) {
    if (account.outstanding++ == 0) set_to(account, TAV_IPC_STATS_WAITING_SINCE_MS, now_ms);
}

void end_waiting(Account &account) {
    if (account.record && --account.outstanding == 0) set_to(account, TAV_IPC_STATS_WAITING_SINCE_MS, 0);
}

void begin_message(const Both &both, tav_ipc_st *ipc) {
    both.add(TAV_IPC_STATS_MESSAGES, 1);
    ++ipc->messages.pending;
}

void end_message(tav_ipc_st *ipc, bool complete) {
    --ipc->messages.pending;
    ++(complete ? ipc->messages.left : ipc->messages.dropped);
}

// The datagram has left or was dropped, and with it perhaps its message.
void end_datagram(const ipc_queue_msg_st &msg, const Both &both, bool left) {
    end_waiting(both.ipc);
    end_waiting(both.to);
    FragmentBlock *block = FragmentBlock::of(msg);
    if (!block) return end_message(msg.ipc, left);
    MessageFate &fate = block->fate;
    fate.failed |= !left;
    if (--fate.outstanding == 0 && fate.submitted) end_message(msg.ipc, !fate.failed);
}

uint64_t coarse_now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

} // namespace

// --- the life of an account

bool open_endpoint_account(tav_ipc_st *ipc) {
    char name[64], path[sizeof(sockaddr_un)];
    stats_file_name(name, sizeof name, getpid());
    const bool has_path = socket_path(path, sizeof path, ipc->location, name);
    if (!open_account(ipc->account, {TAV_IPC_STATS_ENDPOINT, 0, ipc->location, ipc->my_addr.name},
                      has_path ? path : nullptr))
        return false;
    if (ipc->account.own_memory) TAV_LOG(3, "tav_ipc", "counters of %s are not in a file", ipc->my_addr.name);
    return true;
}

bool open_destination_account(const tav_ipc_st *ipc, Destination &to) {
    if (to.account.record) return true;
    const bool is_default = &to.info == ipc->queue->default_mod; // for those that have none of their own
    return open_account(to.account,
                        {TAV_IPC_STATS_DESTINATION, account_number(ipc->account), ipc->location,
                         is_default ? "*" : to.info.name},
                        nullptr);
}

// --- a datagram on its way out

void account_accepted(const ipc_queue_msg_st &msg, uint64_t now_ms) {
    if (!is_counted(msg)) return;
    const Both both(msg);
    both.add(TAV_IPC_STATS_ACCEPTED, 1);
    both.add(TAV_IPC_STATS_ACCEPTED_BYTES, msg.size);
    begin_waiting(both.ipc, now_ms);
    begin_waiting(both.to, now_ms);
    FragmentBlock *block = FragmentBlock::of(msg);
    if (!block) return begin_message(both, msg.ipc);
    both.add(TAV_IPC_STATS_FRAGMENTS, 1);
    ++block->fate.outstanding;
    if (!std::exchange(block->fate.begun, true)) begin_message(both, msg.ipc);
}

void account_queued(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) Both(msg).move(TAV_IPC_STATS_QUEUED, TAV_IPC_STATS_QUEUED_BYTES, 1, msg.size);
}

void account_unqueued(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) Both(msg).move(TAV_IPC_STATS_QUEUED, TAV_IPC_STATS_QUEUED_BYTES, -1, msg.size);
}

void account_in_flight(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) Both(msg).move(TAV_IPC_STATS_IN_FLIGHT, TAV_IPC_STATS_IN_FLIGHT_BYTES, 1, msg.size);
}

void account_landed(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) Both(msg).move(TAV_IPC_STATS_IN_FLIGHT, TAV_IPC_STATS_IN_FLIGHT_BYTES, -1, msg.size);
}

void account_left(const ipc_queue_msg_st &msg) {
    if (!is_counted(msg)) return;
    const Both both(msg);
    both.add(TAV_IPC_STATS_LEFT, 1);
    both.add(TAV_IPC_STATS_LEFT_BYTES, msg.size);
    end_datagram(msg, both, true);
}

void account_dropped(const ipc_queue_msg_st &msg, Counter reason) {
    if (!is_counted(msg)) return;
    const Both both(msg);
    both.add(reason, 1);
    both.add(TAV_IPC_STATS_DROPPED_BYTES, msg.size);
    end_datagram(msg, both, false);
}

void account_retried(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) Both(msg).add(TAV_IPC_STATS_RETRIED, 1);
}

Counter drop_reason(int status) {
    switch (status) {
    case CL_EV_NO_PEER:
        return TAV_IPC_STATS_DROPPED_NO_PEER;
    case CL_EV_WOULD_BLOCK:
        return TAV_IPC_STATS_DROPPED_WOULD_BLOCK;
    case CL_EV_CANCELLED:
        return TAV_IPC_STATS_DROPPED_CLOSED;
    default:
        return TAV_IPC_STATS_DROPPED_OTHER;
    }
}

// --- a message

void account_refused(const tav_ipc_st *ipc, const Destination *to, Counter reason) {
    add_to(ipc->account, reason, 1);
    if (to) add_to(to->account, reason, 1);
}

void account_fragments_submitted(tav_ipc_st *ipc, FragmentBlock &block, bool all) {
    MessageFate &fate = block.fate;
    fate.submitted = true;
    fate.failed |= !all;
    if (fate.begun && fate.outstanding == 0) end_message(ipc, !fate.failed);
}

// --- a datagram on its way in

void account_received(const tav_ipc_st *ipc, const void *, uint32_t size) {
    add_to(ipc->account, TAV_IPC_STATS_RECEIVED, 1);
    add_to(ipc->account, TAV_IPC_STATS_RECEIVED_BYTES, size);
}

void account_bad(const tav_ipc_st *ipc, const void *, uint32_t size, Counter reason) {
    add_to(ipc->account, TAV_IPC_STATS_RECEIVED, 1);
    add_to(ipc->account, TAV_IPC_STATS_RECEIVED_BYTES, size);
    add_to(ipc->account, reason, 1);
}

void account_not_taken(const tav_ipc_st *ipc, const tav_ipc_hdr_st &, const void *, Counter reason) {
    add_to(ipc->account, reason, 1);
}

void account_delivered(const tav_ipc_st *ipc) { add_to(ipc->account, TAV_IPC_STATS_DELIVERED, 1); }

// --- others

void account_event(const tav_ipc_st *ipc, Counter counter) { add_to(ipc->account, counter, 1); }

void account_gauge(const tav_ipc_st *ipc, Counter gauge, uint64_t value) {
    set_to(ipc->account, gauge, value);
}

void account_exchange_waits(const tav_ipc_st *ipc) { add_to(ipc->account, TAV_IPC_STATS_EXCHANGES_OPEN, 1); }

void account_exchange_over(const tav_ipc_st *ipc, Counter how) {
    if (!ipc) return;
    add_to(ipc->account, how, 1);
    add_to(ipc->account, TAV_IPC_STATS_EXCHANGES_OPEN, UINT64_MAX);
}

HandlerCall::HandlerCall(tav_ipc_st *ipc) : ipc_(ipc), begin_ms_(coarse_now_ms()) {
    add_to(ipc->account, TAV_IPC_STATS_HANDLER_CALLS, 1);
}

HandlerCall::~HandlerCall() {
    const uint64_t spent_ms = coarse_now_ms() - begin_ms_;
    if (spent_ms > count_of(ipc_->account, TAV_IPC_STATS_HANDLER_LONGEST_MS))
        set_to(ipc_->account, TAV_IPC_STATS_HANDLER_LONGEST_MS, spent_ms);
}

} // namespace tavipc

using namespace tavipc;

int tav_ipc_get_stats(tav_ipc_st *ipc, const char *destination, tav_ipc_stats_st *stats,
                      uint32_t size) noexcept {
    if (!ipc || !stats || size == 0 || size % sizeof(uint64_t) != 0) return errno = EINVAL, -1;
    const Account *account = &ipc->account;
    if (destination) {
        const Destination *to = ipc->queue ? find_destination(*ipc->queue, destination) : nullptr;
        account = to ? &to->account : nullptr;
    }
    if (!account || !account->record) return errno = ENOENT, -1;
    std::memset(stats, 0, size);
    const uint32_t count = std::min<uint32_t>(size / sizeof(uint64_t), TAV_IPC_STATS_COUNT);
    std::memcpy(stats->values, account->record->values, count * sizeof(uint64_t));
    return 0;
}
