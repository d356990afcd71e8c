#include "ipc/transmitter.h"

#include <algorithm>
#include <cstring>

#include <dlfcn.h>

#include "common/log.h"
#include "ipc/accounting.h"
#include "ipc/exchanges.h"
#include "ipc/fragment_block.h"
#include "ipc/ipc_conf.h"
#include "ipc/send_context.h"
#include "ipc/wire.h"

// What every line about a datagram ends with, and its arguments.
#define DATAGRAM_FORMAT "src=[%u:%s:%u]|dest=[%u:%s:%u]|reqid=%u|frag_seq=%u|frag_id=%u|size=%u|frag_orig=%u"
#define DATAGRAM_ARGUMENTS(h)                                                                                \
    (h).src.hostid, name_text((h).src).text, (h).src.loc, (h).dest.hostid, name_text((h).dest).text,         \
        (h).dest.loc, (h).reqid, fragment_sequence(h), (h).frag_id, (h).size, (h).frag_orig

#pragma weak cl_dunix_settle      // another event library may lack it
#pragma weak cl_dunix_send_now    // the same
#pragma weak error_output_in_sink // and another base library this

namespace tavipc {
namespace {

constexpr uint32_t kWouldBlockTries = 11; // attempts for a busy destination
constexpr uint32_t kOtherTries = 5;       // attempts for one that is missing or fails
constexpr int64_t kManyModules = 5000;    // with more destinations an idle one goes at once

// --- an attempt

// The datagram's header for a log line. Other code may queue a record that is shorter.
tav_ipc_hdr_st header_of(const ipc_queue_msg_st &msg) {
    tav_ipc_hdr_st header{};
    std::memcpy(&header, msg.data, msg.size < kHeaderSize ? msg.size : kHeaderSize);
    return header;
}

void ipc_msg_send_done(cl_dunix_t socket, int status, void *argument);

enum class Attempt { kTaken, kNoCapacity, kNoMemory, kRefused };

// Hands the record to the event library, if the destination's in-flight class has capacity. Unless it was
// taken the record stays the caller's, and nothing of the endpoint or the destination is used after the log
// line.
Attempt attempt(ipc_queue_msg_st &msg) {
    Destination &to = destination_of(msg.mod ? *msg.mod : *msg.ipc->queue->default_mod);
    const uint32_t limit = in_flight_class(msg.flags & IPC_QUEUE_MSG_CONTROL, msg.priority);
    if (uint64_t{msg.size} + to.info.sending_bytes >= limit) return Attempt::kNoCapacity;
    SendContext *context = begin_attempt(msg, to);
    if (!context) return Attempt::kNoMemory;
    const int result =
        cl_dunix_sendto2(to.info.sock, &msg.dest, msg.data, msg.size, ipc_msg_send_done, context);
    if (result == 0) return Attempt::kTaken;
    end_attempt(context);
    if (error_output_check(2)) {
        const tav_ipc_hdr_st header = header_of(msg);
        error_output(2, "tav_ipc", __LINE__,
                     "send msg failed|ret=%d|reqid=%u|frag_seq=%u|frag_id=%u|msg_size=%u", result,
                     header.reqid, fragment_sequence(header), header.frag_id, header.size);
    }
    return Attempt::kRefused;
}

Counter drop_reason_of(Attempt result) {
    if (result == Attempt::kNoCapacity) return TAV_IPC_STATS_DROPPED_BUDGET;
    return result == Attempt::kNoMemory ? TAV_IPC_STATS_DROPPED_NO_MEMORY : TAV_IPC_STATS_DROPPED_OTHER;
}

// --- completions

struct RetryRule {
    bool fixed_delay;
    uint32_t delay_ms;
    uint64_t limit; // attempts in all
};

RetryRule retry_rule(const ipc_queue_msg_st &msg, int status, uint64_t now_ms) {
    const auto wish =
        status == CL_EV_NO_PEER ? exchange_without_peer(msg.ipc, header_of(msg)) : WithoutPeer::kNoExchange;
    if (wish == WithoutPeer::kGivesUp) return {false, 0, 1};
    // Due at the next full second of the loop clock: until then it ranks behind all that is sent, after it
    // nothing waits for it. Once in a second is enough.
    if (wish == WithoutPeer::kWaits) return {true, static_cast<uint32_t>(1000 - now_ms % 1000), UINT64_MAX};
    if (status != CL_EV_WOULD_BLOCK) return {false, 0, kOtherTries};
    if (!conf_loaded()) return {false, 0, kWouldBlockTries};
    const ipc_proxy_conf_st &conf = *get_ipc_proxy_conf();
    return {true, conf.eagain_retry_interval_ms, uint64_t{conf.eagain_max_retry_times} + 1};
}

void put_back_or_drop(ipc_queue_msg_st *msg, int status) {
    const uint64_t now_ms = cl_event_loop_now();
    const RetryRule rule = retry_rule(*msg, status, now_ms);
    if (rule.fixed_delay)
        ipc_queue_msg_set_retry_later(msg, now_ms, rule.delay_ms);
    else
        ipc_queue_msg_set_retry_later_random(msg, now_ms);

    const tav_ipc_hdr_st header = header_of(*msg); // the record may be gone when the lines are written
    const uint32_t tries = msg->try_times;
    const char *reason = cl_ev_strerror(status);
    const auto limit = static_cast<uint32_t>(std::min<uint64_t>(rule.limit, UINT32_MAX));
    if (rule.limit <= tries) {
        account_dropped(*msg, drop_reason(status));
        TAV_LOG(2, "tav_ipc",
                "msg consume times more than limit, drop it|try_times=%u|try_limit=%u|last_err=%d(%s)"
                "|" DATAGRAM_FORMAT,
                tries, limit, status, reason, DATAGRAM_ARGUMENTS(header));
        free_ipc_queue_msg(msg);
        return;
    }
    msg->flags |= IPC_QUEUE_MSG_RETRIED;
    account_retried(*msg);
    ipc_queue_push(msg->ipc->queue, &msg, now_ms); // the pointer, not the result, shows who owns the record
    if (!msg) {
        TAV_LOG(4, "tav_ipc",
                "msg send failed, retry later|try_times=%u|try_limit=%u|last_err=%d(%s)|" DATAGRAM_FORMAT,
                tries, limit, status, reason, DATAGRAM_ARGUMENTS(header));
        return;
    }
    account_dropped(*msg, TAV_IPC_STATS_DROPPED_NO_MEMORY);
    TAV_LOG(2, "tav_ipc", "msg set retry failed, drop it|try_times=%u|last_err=%d(%s)|" DATAGRAM_FORMAT,
            tries, status, reason, DATAGRAM_ARGUMENTS(header));
    free_ipc_queue_msg(msg);
}

void ipc_msg_send_done_set_retry(ipc_queue_msg_st *msg, int status) {
    UseGuard guard(msg->ipc, "ipc_msg_send_done_set_retry");
    if (status != CL_EV_OK && msg->ipc->queue) return put_back_or_drop(msg, status);
    if (status == CL_EV_OK)
        account_left(*msg);
    else
        account_dropped(*msg, TAV_IPC_STATS_DROPPED_CLOSED);
    if (status == CL_EV_OK && (msg->flags & IPC_QUEUE_MSG_RETRIED) && error_output_check(4)) {
        const tav_ipc_hdr_st header = header_of(*msg);
        error_output(4, "tav_ipc", __LINE__, "msg retry success|try_times=%u|" DATAGRAM_FORMAT,
                     msg->try_times, DATAGRAM_ARGUMENTS(header));
    }
    free_ipc_queue_msg(msg);
}

void ipc_msg_send_done(cl_dunix_t, int status, void *argument) {
    auto *context = static_cast<SendContext *>(argument);
    ipc_queue_msg_st *msg = context->msg;
    tav_ipc_st *ipc = context->ipc;
    if (!ipc) {
        delete context;
        return free_ipc_queue_msg(msg);
    }
    const EndpointPin pin(ipc);
    DestinationPin to(context->to);
    end_attempt(context);
    ipc_msg_send_done_set_retry(msg, status);
    UseGuard guard(ipc, "ipc_msg_send_done");
    if (ipc->queue && ipc->queue->mod_count > kManyModules) free_mod_info(to.let_go(), ipc->queue);
}

// --- submission

// The event library's cl_dunix_send_now. Null when it has none, or when cl_dunix_sendto2 is another
// library's: what replaces or observes that function then gets every datagram.
auto *direct_send() {
    static const auto function = []() -> decltype(&cl_dunix_send_now) {
        Dl_info now{}, later{};
        if (!cl_dunix_send_now) return nullptr;
        if (!dladdr(reinterpret_cast<void *>(cl_dunix_send_now), &now)) return nullptr;
        if (!dladdr(reinterpret_cast<void *>(cl_dunix_sendto2), &later)) return nullptr;
        return now.dli_fbase == later.dli_fbase ? cl_dunix_send_now : nullptr;
    }();
    return function;
}

// Whether a record of this message may be tried at once: it does not rank behind a record that waits.
bool is_first(const ipc_queue_msg_st &msg, const ipc_queue_st &queue) {
    const ipc_queue_msg_st *top = ipc_queue_top(&queue);
    return !top || compare_ipc_queue_msg_priority(&msg, top) <= 0;
}

// Sends the datagram without a record, out of the caller's memory. False when it cannot leave now; nothing
// has happened then.
bool send_directly(const Route &route, const tav_ipc_hdr_st &header, const void *payload) {
    const auto send_now = direct_send();
    const mod_info_st &to = route.to->info;
    // Above this number of destinations each completion releases its destination.
    if (!send_now || (!payload && header.size > 0) || route.ipc->queue->mod_count > kManyModules)
        return false;
    const uint32_t limit = in_flight_class(header.flags & IPC_FLAGS_CONTROL, route.priority);
    if (uint64_t{kHeaderSize} + header.size + to.sending_bytes >= limit) return false;
    ipc_queue_msg_st rank;
    rank.retry_later = route.now_ms;
    rank.priority = route.priority;
    if (!is_first(rank, *route.ipc->queue)) return false;
    const iovec parts[] = {{const_cast<tav_ipc_hdr_st *>(&header), kHeaderSize},
                           {const_cast<void *>(payload), header.size}};
    if (send_now(to.sock, route.address, parts, 2) != CL_EV_OK) return false;
    account_sent_at_once(route.ipc, *route.to, route.block, header, payload);
    return true;
}

// A record with its datagram; null when memory is short.
ipc_queue_msg_st *make_record(const Route &route, const tav_ipc_hdr_st &header, const void *payload) {
    const uint32_t size = kHeaderSize + header.size;
    ipc_queue_msg_st *msg = create_ipc_queue_msg(route.block ? 0 : size);
    if (!msg) return nullptr;
    msg->ipc = route.ipc;
    msg->mod = &route.to->info;
    msg->dest = *route.address;
    msg->retry_later = route.now_ms;
    msg->priority = route.priority;
    msg->try_times = 0;
    msg->flags = (header.flags & IPC_FLAGS_CONTROL ? IPC_QUEUE_MSG_CONTROL : 0) | kCountedRecord;
    msg->size = size;
    unsigned char *datagram = route.block ? route.block->take_slot() : msg->inline_data;
    msg->data = datagram;
    msg->data_free = route.block ? FragmentBlock::release_slot : nullptr;
    std::memcpy(datagram, &header, kHeaderSize);
    if (payload)
        std::memcpy(datagram + kHeaderSize, payload, header.size);
    else
        std::memset(datagram + kHeaderSize, 0, header.size);
    return msg;
}

void drop(ipc_queue_msg_st *msg, Counter reason) {
    account_dropped(*msg, reason);
    free_ipc_queue_msg(msg);
}

// Sends a new record at once, unless it ranks behind a record that waits.
void send_or_queue(ipc_queue_msg_st *msg, const tav_ipc_hdr_st &header) {
    const tav_ipc_st *ipc = msg->ipc;
    const uint64_t now_ms = msg->retry_later;
    if (is_first(*msg, *ipc->queue)) {
        msg->try_times = 1;
        if (attempt(*msg) == Attempt::kTaken) return;
        ipc_queue_msg_set_retry_later_random(msg, now_ms);
        if (!ipc->queue) return drop(msg, TAV_IPC_STATS_DROPPED_CLOSED); // destroyed from the log line
    }
    ipc_queue_push(ipc->queue, &msg, now_ms);
    if (!msg) return;
    account_dropped(*msg, TAV_IPC_STATS_DROPPED_NO_MEMORY);
    TAV_LOG(2, "tav_ipc", "msg set send later failed, drop it|try_times=%u|" DATAGRAM_FORMAT, msg->try_times,
            DATAGRAM_ARGUMENTS(header));
    free_ipc_queue_msg(msg);
}

} // namespace

int submit(const Route &route, const tav_ipc_hdr_st &plain, const void *payload) {
    tav_ipc_hdr_st header = plain;
    header.magic = check_value(header);
    if (send_directly(route, header, payload)) return IPC_OK;
    ipc_queue_msg_st *msg = make_record(route, header, payload);
    if (!msg) return IPC_ERR_SENDTO;
    account_accepted(*msg, route.now_ms);
    send_or_queue(msg, header);
    return IPC_OK;
}

// A record that cannot be sent now has waited already, so it is dropped. Other code may have queued it,
// without an endpoint even.
int consume_queued(uint64_t, ipc_queue_msg_st *msg) {
    const EndpointPin pin(msg->ipc);
    const DestinationPin to(msg->mod ? &destination_of(*msg->mod) : nullptr);
    const Attempt result = msg->ipc && msg->ipc->queue ? attempt(*msg) : Attempt::kRefused;
    if (result == Attempt::kTaken) return IPC_OK;
    account_dropped(*msg, drop_reason_of(result));
    if (result == Attempt::kNoCapacity) {
        const tav_ipc_hdr_st header = header_of(*msg);
        if (header.flags & IPC_FLAG_RESPONSE) // the requester waits for it
            TAV_LOG_LIMITED(2, "tav_ipc",
                            "too much is in flight, drop response|try_times=%u|" DATAGRAM_FORMAT,
                            msg->try_times, DATAGRAM_ARGUMENTS(header));
    }
    free_ipc_queue_msg(msg);
    return IPC_ERR_SENDTO;
}

void settle_sent(size_t held_bytes) {
    // Lines of completions that ran inside a log sink would pass the sink by.
    if (error_output_in_sink && error_output_in_sink()) return;
    if (cl_dunix_settle) cl_dunix_settle(held_bytes, ipc_msg_send_done);
}

} // namespace tavipc
