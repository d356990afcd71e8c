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

void end_waiting(Account &account) {
    if (--account.outstanding == 0) set_to(account.values, TAV_IPC_STATS_WAITING_SINCE_MS, 0);
}

void end_message(tav_ipc_st *ipc, bool complete) {
    --ipc->messages.pending;
    ++(complete ? ipc->messages.left : ipc->messages.dropped);
}

// The datagram has left or was dropped, and with it perhaps its message.
void end_datagram(const ipc_queue_msg_st &msg, bool left) {
    end_waiting(msg.ipc->account);
    end_waiting(destination_of(*msg.mod).account);
    FragmentBlock *block = block_of(msg);
    if (!block) return end_message(msg.ipc, left);
    MessageFate &fate = block->fate;
    fate.failed |= !left;
    if (--fate.outstanding == 0 && fate.submitted) end_message(msg.ipc, !fate.failed);
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
    if (to.account.is_open) return true;
    const bool is_default = &to.info == ipc->queue->default_mod; // for those that have none of their own
    return open_account(to.account,
                        {TAV_IPC_STATS_DESTINATION, account_number(ipc->account), ipc->location,
                         is_default ? "*" : to.info.name},
                        nullptr);
}

// --- a datagram on its way out

void account_queued(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) BothValues(msg).add(TAV_IPC_STATS_QUEUED, 1, msg.size);
}

void account_unqueued(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) BothValues(msg).add(TAV_IPC_STATS_QUEUED, UINT64_MAX, -uint64_t{msg.size});
}

void account_left(const ipc_queue_msg_st &msg) {
    if (!is_counted(msg)) return;
    BothValues(msg).add(TAV_IPC_STATS_LEFT, 1, msg.size);
    end_datagram(msg, true);
}

void account_dropped(const ipc_queue_msg_st &msg, Counter reason) {
    if (!is_counted(msg)) return;
    const BothValues both(msg);
    both.add(reason, 1);
    both.add(TAV_IPC_STATS_DROPPED_BYTES, msg.size);
    end_datagram(msg, false);
}

void account_retried(const ipc_queue_msg_st &msg) {
    if (is_counted(msg)) BothValues(msg).add(TAV_IPC_STATS_RETRIED, 1);
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
    add_to(ipc->account.values, reason, 1);
    if (to) add_to(to->account.values, reason, 1);
}

void account_fragments_submitted(tav_ipc_st *ipc, FragmentBlock &block, bool all) {
    MessageFate &fate = block.fate;
    fate.submitted = true;
    fate.failed |= !all;
    if (fate.begun && fate.outstanding == 0) end_message(ipc, !fate.failed);
}

// --- a datagram on its way in

void account_received(const tav_ipc_st *ipc, const void *, uint32_t size) {
    add_to(ipc->account.values, TAV_IPC_STATS_RECEIVED, 1);
    add_to(ipc->account.values, TAV_IPC_STATS_RECEIVED_BYTES, size);
}

void account_bad(const tav_ipc_st *ipc, const void *, uint32_t size, Counter reason) {
    add_to(ipc->account.values, TAV_IPC_STATS_RECEIVED, 1);
    add_to(ipc->account.values, TAV_IPC_STATS_RECEIVED_BYTES, size);
    add_to(ipc->account.values, reason, 1);
}

void account_not_taken(const tav_ipc_st *ipc, const tav_ipc_hdr_st &, const void *, Counter reason) {
    add_to(ipc->account.values, reason, 1);
}

void account_delivered(const tav_ipc_st *ipc) { add_to(ipc->account.values, TAV_IPC_STATS_DELIVERED, 1); }

// --- others

void account_event(const tav_ipc_st *ipc, Counter counter) { add_to(ipc->account.values, counter, 1); }

void account_gauge(const tav_ipc_st *ipc, Counter gauge, uint64_t value) {
    set_to(ipc->account.values, gauge, value);
}

void account_exchange_waits(const tav_ipc_st *ipc) {
    add_to(ipc->account.values, TAV_IPC_STATS_EXCHANGES_OPEN, 1);
}

void account_exchange_over(const tav_ipc_st *ipc, Counter how) {
    if (!ipc) return;
    add_to(ipc->account.values, how, 1);
    add_to(ipc->account.values, TAV_IPC_STATS_EXCHANGES_OPEN, UINT64_MAX);
}

void account_handler_time(const tav_ipc_st *ipc, const timespec &begin, const timespec &end) {
    const int64_t spent_ms =
        (int64_t{end.tv_sec} - begin.tv_sec) * 1000 + (int64_t{end.tv_nsec} - begin.tv_nsec) / 1'000'000;
    uint64_t *values = ipc->account.values;
    if (spent_ms > static_cast<int64_t>(count_of(values, TAV_IPC_STATS_HANDLER_LONGEST_MS)))
        set_to(values, TAV_IPC_STATS_HANDLER_LONGEST_MS, static_cast<uint64_t>(spent_ms));
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
    if (!account || !account->is_open) return errno = ENOENT, -1;
    std::memset(stats, 0, size);
    const uint32_t count = std::min<uint32_t>(size / sizeof(uint64_t), TAV_IPC_STATS_COUNT);
    std::memcpy(stats->values, account->values, count * sizeof(uint64_t));
    return 0;
}
