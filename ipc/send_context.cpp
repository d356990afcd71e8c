#include "ipc/send_context.h"

#include <cassert>
#include <new>
#include <utility>

#include "ipc/accounting.h"

namespace tavipc {
namespace {

constexpr uint32_t kMostSpareContexts = 1024; // attempts of a burst between two turns of the loop

void take_out(SendContext &context) {
    mod_info_st &info = context.to->info;
    assert(context.link && *context.link == &context);
    assert(info.sending > 0 && info.sending_bytes >= context.size);
    *context.link = context.next;
    if (context.next) context.next->link = context.link;
    context.link = nullptr;
    account_landed(*context.msg);
    count_out(info.sending, info.sending_bytes, context.size);
}

} // namespace

SendContext *begin_attempt(ipc_queue_msg_st &msg, Destination &to) {
    tav_ipc_st *ipc = msg.ipc;
    SendContext *context = ipc->spare_contexts;
    if (context) {
        ipc->spare_contexts = context->next;
        --ipc->spare_context_count;
    } else {
        context = new (std::nothrow) SendContext;
        if (!context) return nullptr;
    }
    *context = {ipc, &msg, &to, msg.size, ipc->in_flight, &ipc->in_flight};
    if (context->next) context->next->link = &context->next;
    ipc->in_flight = context;
    count_in(to.info.sending, to.info.sending_bytes, msg.size);
    account_in_flight(msg);
    return context;
}

void end_attempt(SendContext *context) {
    take_out(*context);
    tav_ipc_st *ipc = context->ipc;
    if (ipc->spare_context_count == kMostSpareContexts) {
        delete context;
    } else {
        context->next = std::exchange(ipc->spare_contexts, context);
        ++ipc->spare_context_count;
    }
}

void abandon_in_flight(tav_ipc_st *ipc) {
    while (SendContext *context = ipc->in_flight) {
        take_out(*context);
        account_dropped(*context->msg, TAV_IPC_STATS_DROPPED_CLOSED);
        context->ipc = nullptr;
    }
    while (SendContext *context = ipc->spare_contexts) {
        ipc->spare_contexts = context->next;
        delete context;
    }
    ipc->spare_context_count = 0;
}

} // namespace tavipc
