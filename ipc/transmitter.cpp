#include "ipc/transmitter.h"

#include <cinttypes>
#include <cstring>
#include <new>

#include "common/log.h"
#include "ipc/ipc_process.h"
#include "ipc/module_info.h"
#include "ipc/wire.h"

// What every line about a datagram ends with, and its arguments.
#define DATAGRAM_FORMAT "src=[%u:%s:%u]|dest=[%u:%s:%u]|reqid=%u|frag_seq=%u|frag_id=%u|size=%u|frag_orig=%u"
#define DATAGRAM_ARGUMENTS(h)                                                                                \
    (h).src.hostid, name_text((h).src).text, (h).src.loc, (h).dest.hostid, name_text((h).dest).text,         \
        (h).dest.loc, (h).reqid, fragment_sequence(h), (h).frag_id, (h).size, (h).frag_orig

#pragma weak cl_dunix_settle      // another event library may lack it
#pragma weak error_output_in_sink // and another base library this

namespace tavipc {

// One transmission attempt, from cl_dunix_sendto2 to its completion. It lies in its record's allocation,
// behind the inline datagram: a record is in one attempt at a time.
struct SendContext {
    mod_info_st *mod;
    ipc_queue_msg_st *msg;
    uint32_t size;
    tav_ipc_st *ipc; // null: an orphan
    SendContext *next;
    SendContext **link; // what points at this one
};

namespace {

constexpr uint32_t kWouldBlockTries = 11;
constexpr uint32_t kOtherTries = 5;
constexpr int64_t kManyModules = 5000;

uint32_t context_offset(uint32_t inline_size) {
    constexpr uint32_t kMask = alignof(SendContext) - 1;
    return (static_cast<uint32_t>(offsetof(ipc_queue_msg_st, inline_data)) + inline_size + kMask) & ~kMask;
}

ipc_queue_msg_st *create_record(uint32_t inline_size) {
    const size_t end = context_offset(inline_size) + sizeof(SendContext);
    return create_ipc_queue_msg(static_cast<uint32_t>(end - sizeof(ipc_queue_msg_st)));
}

void *context_place(ipc_queue_msg_st *msg) {
    const uint32_t inline_size = msg->data == msg->inline_data ? msg->size : 0;
    return reinterpret_cast<unsigned char *>(msg) + context_offset(inline_size);
}

void link_context(SendContext *context) {
    SendContext *&head = context->ipc->in_flight;
    context->next = head;
    context->link = &head;
    if (head) head->link = &context->next;
    head = context;
}

void unlink_context(SendContext *context) {
    *context->link = context->next;
    if (context->next) context->next->link = context->link;
}

void raise_in_flight(mod_info_st &mod, uint32_t size) {
    ++mod.sending;
    mod.sending_bytes += size;
}

void lower_in_flight(mod_info_st &mod, uint32_t size) {
    mod.sending -= mod.sending > 0;
    mod.sending_bytes -= size < mod.sending_bytes ? size : mod.sending_bytes;
}

void ipc_msg_send_done(cl_dunix_t socket, int status, void *argument);

void log_refused(const ipc_queue_msg_st &msg, int result) {
    if (!error_output_check(2)) return;
    const tav_ipc_hdr_st header = read_header(msg.data);
    error_output(2, "tav_ipc", __LINE__, "send msg failed|ret=%d|reqid=%u|frag_seq=%u|frag_id=%u|msg_size=%u",
                 result, header.reqid, fragment_sequence(header), header.frag_id, header.size);
}

// Hands the record to the event library, within the destination's in-flight class. True when it took it; the
// record stays the caller's otherwise.
bool attempt(ipc_queue_msg_st *msg) {
    mod_info_st *mod = msg->mod ? msg->mod : msg->ipc->queue->default_mod;
    const uint32_t limit = in_flight_class(msg->flags & IPC_QUEUE_MSG_CONTROL, msg->priority);
    if (uint64_t{msg->size} + mod->sending_bytes >= limit) return false;
    auto *context = new (context_place(msg)) SendContext{mod, msg, msg->size, msg->ipc, nullptr, nullptr};

    // Counted and linked first: the record is not ours any more once the event library has it.
    raise_in_flight(*mod, msg->size);
    link_context(context);
    const int result =
        cl_dunix_sendto2(mod->sock, &msg->dest, msg->data, msg->size, ipc_msg_send_done, context);
    if (result == 0) return true;
    log_refused(*msg, result);
    unlink_context(context);
    lower_in_flight(*mod, msg->size);
    return false;
}

struct RetryRule {
    bool fixed_delay;
    uint32_t delay_ms;
    uint64_t limit; // attempts in all
};

RetryRule retry_rule(int status) {
    if (status != CL_EV_WOULD_BLOCK) return {false, 0, kOtherTries};
    if (!process_state().conf_loaded) return {false, 0, kWouldBlockTries};
    const ipc_proxy_conf_st &conf = *get_ipc_proxy_conf();
    return {true, conf.eagain_retry_interval_ms, uint64_t{conf.eagain_max_retry_times} + 1};
}

void put_back_or_drop(ipc_queue_msg_st *msg, int status) {
    const uint64_t now_ms = cl_event_loop_now();
    const RetryRule rule = retry_rule(status);
    if (rule.fixed_delay)
        ipc_queue_msg_set_retry_later(msg, now_ms, rule.delay_ms);
    else
        ipc_queue_msg_set_retry_later_random(msg, now_ms);

    const tav_ipc_hdr_st header = read_header(msg->data); // the record may be gone when the lines are written
    const uint32_t tries = msg->try_times;
    const char *reason = cl_ev_strerror(status);
    const auto limit = static_cast<uint32_t>(rule.limit);
    if (rule.limit <= tries) {
        TAV_LOG(2, "tav_ipc",
                "msg consume times more than limit, drop it|try_times=%u|try_limit=%u|last_err=%d(%s)"
                "|" DATAGRAM_FORMAT,
                tries, limit, status, reason, DATAGRAM_ARGUMENTS(header));
        free_ipc_queue_msg(msg);
        return;
    }
    msg->flags |= IPC_QUEUE_MSG_RETRIED;
    ipc_queue_push(msg->ipc->queue, &msg, now_ms); // the pointer, not the result, tells who owns the record
    if (!msg) {
        TAV_LOG(4, "tav_ipc",
                "msg send failed, retry later|try_times=%u|try_limit=%u|last_err=%d(%s)|" DATAGRAM_FORMAT,
                tries, limit, status, reason, DATAGRAM_ARGUMENTS(header));
        return;
    }
    TAV_LOG(2, "tav_ipc", "msg set retry failed, drop it|try_times=%u|last_err=%d(%s)|" DATAGRAM_FORMAT,
            tries, status, reason, DATAGRAM_ARGUMENTS(header));
    free_ipc_queue_msg(msg);
}

void ipc_msg_send_done_set_retry(ipc_queue_msg_st *msg, int status) {
    UseGuard guard(msg->ipc, "ipc_msg_send_done_set_retry");
    if (status != CL_EV_OK) return put_back_or_drop(msg, status);
    if ((msg->flags & IPC_QUEUE_MSG_RETRIED) && error_output_check(4)) {
        const tav_ipc_hdr_st header = read_header(msg->data);
        error_output(4, "tav_ipc", __LINE__, "msg retry success|try_times=%u|" DATAGRAM_FORMAT,
                     msg->try_times, DATAGRAM_ARGUMENTS(header));
    }
    free_ipc_queue_msg(msg);
}

void ipc_msg_send_done(cl_dunix_t, int status, void *argument) {
    auto *context = static_cast<SendContext *>(argument);
    tav_ipc_st *ipc = context->ipc;
    mod_info_st *mod = context->mod;
    if (!ipc) return free_ipc_queue_msg(context->msg);
    unlink_context(context);
    lower_in_flight(*mod, context->size);
    {
        const InUse keep(*mod); // a sink of log lines may send, and settle others
        ipc_msg_send_done_set_retry(context->msg, status);
    }
    UseGuard guard(ipc, "ipc_msg_send_done");
    if (ipc->queue->mod_count > kManyModules) free_mod_info(mod, ipc->queue);
}

void queue_or_drop(ipc_queue_msg_st *msg, const tav_ipc_hdr_st &header, uint64_t now_ms) {
    ipc_queue_push(msg->ipc->queue, &msg, now_ms);
    if (!msg) return;
    TAV_LOG(2, "tav_ipc", "msg set send later failed, drop it|try_times=%u|" DATAGRAM_FORMAT, msg->try_times,
            DATAGRAM_ARGUMENTS(header));
    free_ipc_queue_msg(msg);
}

// Sends a filled record at once, unless it ranks behind what waits already.
void send_or_queue(ipc_queue_msg_st *msg, const tav_ipc_hdr_st &header) {
    const uint64_t now_ms = msg->retry_later;
    const ipc_queue_msg_st *top = ipc_queue_top(msg->ipc->queue);
    if (!top || compare_ipc_queue_msg_priority(msg, top) <= 0) {
        msg->try_times = 1;
        if (attempt(msg)) return;
        ipc_queue_msg_set_retry_later_random(msg, now_ms);
    }
    queue_or_drop(msg, header, now_ms);
}

void fill_record(ipc_queue_msg_st &msg, const Route &route, const tav_ipc_hdr_st &header) {
    msg.ipc = route.ipc;
    msg.mod = route.mod;
    msg.dest = *route.dest;
    msg.retry_later = route.now_ms;
    msg.priority = route.priority;
    msg.try_times = 0;
    msg.flags = header.flags & IPC_FLAGS_CONTROL ? IPC_QUEUE_MSG_CONTROL : 0;
    msg.size = kHeaderSize + header.size;
}

tav_ipc_hdr_st stamped(const tav_ipc_hdr_st &header) {
    tav_ipc_hdr_st result = header;
    result.magic = tav_ipc_hdr_magic(&result);
    return result;
}

} // namespace

int submit_copy(const Route &route, const tav_ipc_hdr_st &plain, const void *payload) {
    const tav_ipc_hdr_st header = stamped(plain);
    ipc_queue_msg_st *msg = create_record(kHeaderSize + header.size);
    if (!msg) return IPC_ERR_SENDTO;
    fill_record(*msg, route, header);
    msg->data = msg->inline_data;
    msg->data_free = nullptr;
    std::memcpy(msg->inline_data, &header, kHeaderSize);
    if (payload)
        std::memcpy(msg->inline_data + kHeaderSize, payload, header.size);
    else
        std::memset(msg->inline_data + kHeaderSize, 0, header.size);
    send_or_queue(msg, header);
    return IPC_OK;
}

int submit_buffer(const Route &route, const tav_ipc_hdr_st &plain, void *datagram,
                  void (*release)(void *datagram, uint32_t size)) {
    const tav_ipc_hdr_st header = stamped(plain);
    ipc_queue_msg_st *msg = create_record(0);
    if (!msg) return IPC_ERR_SENDTO;
    fill_record(*msg, route, header);
    msg->data = datagram;
    msg->data_free = release;
    std::memcpy(datagram, &header, kHeaderSize);
    send_or_queue(msg, header);
    return IPC_OK;
}

int consume_queued(uint64_t, ipc_queue_msg_st *msg) {
    if (attempt(msg)) return IPC_OK;
    free_ipc_queue_msg(msg);
    return IPC_ERR_SENDTO;
}

void settle_sent() {
    constexpr size_t kHeldBytes = size_t{256} * 1024;
    // Lines of completions that ran inside a log sink would pass the sink by.
    if (error_output_in_sink && error_output_in_sink()) return;
    if (cl_dunix_settle) cl_dunix_settle(kHeldBytes, ipc_msg_send_done);
}

void orphan_in_flight(tav_ipc_st *ipc) {
    for (SendContext *context = ipc->in_flight; context; context = context->next) {
        context->ipc = nullptr;
        context->mod = nullptr;
    }
    ipc->in_flight = nullptr;
}

} // namespace tavipc
