// The payload of a datagram that leaves at once is not copied. Otherwise it is copied once: from the caller's
// buffer into the record or fragment slot that the event library sends from.
//
// Every log line can reach user code, and so can settle_sent. The frames here hold an EndpointPin and a
// DestinationPin, and look at ipc->queue after such a call: null means that the endpoint was destroyed.
#include "ipc/send.h"

#include <cstring>
#include <ctime>

#include "common/facts.h"
#include "common/log.h"
#include "common/owned.h"
#include "common/relaxed.h"
#include "ipc/accounting.h"
#include "ipc/destination.h"
#include "ipc/fragment_block.h"
#include "ipc/monitor.h"
#include "ipc/msg_trace.h"
#include "ipc/random.h"
#include "ipc/socket_directory.h"
#include "ipc/transmitter.h"
#include "ipc/unshared_fd.h"
#include "ipc/wire.h"
#include "tavaux.h"
#include "tavipc/tav_compress.h"

namespace tavipc {
namespace {

constexpr size_t kPathSize = 4096; // bytes of a composed path; one over 107 bytes is refused as an address

constinit Relaxed<uint16_t> trace_flag = 0; // ORed into the flags of every header
constinit Relaxed<uint32_t> last_id = 0;

// A new message id. No other thread has it; ids count from 1 and skip 0.
uint32_t next_reqid() {
    const uint32_t id = ++last_id;
    return id != 0 ? id : next_reqid();
}

// --- one message to one pipe

// Where a message goes. A nested send to the same destination through another pipe leaves both as they are.
struct Target {
    DestinationPin to;            // empty: not made yet
    const cl_sockaddr_t *address; // of the destination, or own
    cl_sockaddr_t own;
    size_t pipe_at;
    const char *deploy_type;
};

// Finds the address of the pipe: the destination's own when that is the one, else composed. Returns false
// when there is no such pipe. Reaches no user code.
bool find_target(tav_ipc_st *ipc, const char *pipe, const NameText &name, Target &target) {
    target.to = DestinationPin(find_destination(*ipc->queue, name));
    if (target.to && target.to->leads_to(pipe)) {
        target.address = &target.to->address;
        return true;
    }
    char path[kPathSize];
    target.deploy_type = GetDeployTypeStr();
    target.address = &target.own;
    if (!socket_path(path, sizeof path, ipc->location, pipe) || cl_sockaddr_un_init(&target.own, path) != 0)
        return false;
    target.pipe_at = std::strlen(path) - std::strlen(pipe);
    return true;
}

// Remembers the address in the destination, unless another frame may be using the one that is there.
void remember_address(Target &target) {
    Destination &to = *target.to;
    if (target.address == &to.address || to.pins > 1) return;
    to.address = target.own;
    to.deploy_type = target.deploy_type;
    to.pipe_at = target.pipe_at;
    target.address = &to.address;
}

// Makes the destination, or takes the default one. False when the endpoint was destroyed meanwhile.
bool make_target(tav_ipc_st *ipc, const char *name, uint64_t now_ms, Target &target) {
    target.to = DestinationPin(find_or_make_destination(*ipc->queue, name, now_ms));
    if (!ipc->queue) return false;
    arm_destination_sweep(ipc);
    if (target.to) return true;
    TAV_LOG_LIMITED(2, "tav_ipc", "cannot find module info, mod_name: %s", name);
    if (!ipc->queue) return false;
    target.to = DestinationPin(&destination_of(*ipc->queue->default_mod));
    return true;
}

bool over_limit(const tav_ipc_st *ipc, const Destination &to, const tav_ipc_hdr_st &header,
                uint32_t priority) {
    const uint32_t limit = in_flight_class(header.flags & IPC_FLAGS_CONTROL, priority);
    if (uint64_t{header.size} + to.info.sending_bytes < limit) return false;
    account_refused(ipc, &to, TAV_IPC_STATS_REFUSED_BUDGET);
    TAV_LOG_LIMITED(2, "tav_ipc", "to many messages, IPC:[%s@%u:%x],MSG:[%s@%u:%x]->[%s@%u:%x] drop it",
                    name_text(ipc->my_addr).text, ipc->my_addr.hostid, ipc->my_addr.flags,
                    name_text(header.src).text, header.src.hostid, header.src.flags,
                    name_text(header.dest).text, header.dest.hostid, header.dest.flags);
    return true;
}

int refuse(const tav_ipc_st *ipc, const Destination *to, Counter reason) {
    account_refused(ipc, to, reason);
    return IPC_ERR_SENDTO;
}

int refuse_huge(const tav_ipc_st *ipc, const tav_ipc_hdr_st &header) {
    account_refused(ipc, nullptr, TAV_IPC_STATS_REFUSED_SIZE);
    TAV_TRACE(&header, "too huge, dropped: %u", header.size);
    if (header.flags & IPC_FLAG_RESPONSE) // tav_ipc_response returns no result
        TAV_LOG_LIMITED(2, "tav_ipc", "response is too large, drop it|reqid=%u|dest=[%u:%s:%u]|size=%u",
                        header.reqid, header.dest.hostid, name_text(header.dest).text, header.dest.loc,
                        header.size);
    return IPC_ERR_SENDTO;
}

// Monitors get the copies of finished sends before that of the next message, which may leave at once.
void settle_before_sending(const tav_ipc_st *ipc) {
    if (ipc->in_flight) settle_sent(is_monitored() ? 1 : kHeldBytes);
}

// Submits the fragments one after the other. Returns as submit does.
int submit_fragments(Route route, const tav_ipc_hdr_st &message, uint32_t count, const void *payload) {
    tav_ipc_hdr_st header = message; // all fragments carry the message's id
    header.frag_orig = message.size;
    header.frag_id = static_cast<uint16_t>(ipc_rand_by_time() & 0xFFFF);
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t offset = i * kFragmentPayload;
        const uint32_t rest = message.size - offset;
        header.size = rest < kFragmentPayload ? rest : kFragmentPayload;
        set_fragment(header, static_cast<uint16_t>(i));
        settle_before_sending(route.ipc);
        if (!route.ipc->queue) return IPC_ERR_SENDTO;
        route.now_ms = cl_event_loop_now();
        const auto *piece = payload ? static_cast<const unsigned char *>(payload) + offset : nullptr;
        if (const int result = submit(route, header, piece); result != IPC_OK) return result;
    }
    return IPC_OK;
}

int send_fragments(Route route, const tav_ipc_hdr_st &message, const void *payload) {
    const uint32_t count = (message.size + kFragmentPayload - 1) / kFragmentPayload;
    const auto block = FragmentBlock::create(count);
    if (!block) return IPC_ERR_SENDTO;
    route.block = block.get();
    const int result = submit_fragments(route, message, count, payload);
    account_fragments_submitted(route.ipc, *block, result == IPC_OK);
    return result;
}

// Sends one message (header without magic, header.size payload bytes) to one pipe. The endpoint is pinned.
int send_to_pipe(tav_ipc_st *ipc, const char *pipe, const tav_ipc_hdr_st &header, const void *payload) {
    if (!ipc->queue) return IPC_ERR_SENDTO;
    // A forked child could make sockets for new destinations. The answers would go to the parent and complete
    // exchanges of the parent that have the same ids.
    if (ipc->forks != fork_count()) return refuse(ipc, nullptr, TAV_IPC_STATS_REFUSED_OTHER);
    if (header.size > kMaxMessage) return refuse_huge(ipc, header);
    const NameText name = name_text(header.dest);
    Target target;
    if (!find_target(ipc, pipe, name, target)) return refuse(ipc, nullptr, TAV_IPC_STATS_REFUSED_OTHER);
    TAV_TRACE(&header, "send via dunix:%s", target.address->addr.sun_path);

    settle_before_sending(ipc);
    if (!ipc->queue) return IPC_ERR_SENDTO;
    const uint64_t now_ms = cl_event_loop_now();
    if (target.to)
        target.to->info.last_used = now_ms;
    else if (!make_target(ipc, name, now_ms, target))
        return IPC_ERR_SENDTO;
    remember_address(target);
    if (!open_destination_account(ipc, *target.to))
        return refuse(ipc, nullptr, TAV_IPC_STATS_REFUSED_NO_MEMORY);

    const uint32_t priority = message_priority(header.flags, payload, header.size);
    if (over_limit(ipc, *target.to, header, priority)) return IPC_ERR_SENDTO;
    const Route route{ipc, &*target.to, target.address, priority, now_ms, nullptr};
    const int result = header.size <= kFragmentPayload ? submit(route, header, payload)
                                                       : send_fragments(route, header, payload);
    return result == IPC_OK ? IPC_OK : refuse(ipc, &*target.to, TAV_IPC_STATS_REFUSED_NO_MEMORY);
}

// --- a message to its pipe or pipes

int build_and_send(tav_ipc_st *ipc, const char *pipe, const Message &message, uint32_t *reqid) {
    tav_ipc_hdr_st header{};
    header.dest = message.dest;
    header.src = ipc->my_addr;
    header.cmd = message.cmd;
    header.reqid = reqid && *reqid ? *reqid : next_reqid();
    if (reqid) *reqid = header.reqid;
    header.flags = message.flags | trace_flag;
    header.size = message.size;
    TAV_LOG(
        4, "tav_ipc",
        "ipc->my_addr.name %s, ipc->my_addr.hostid %u, ipc->my_addr.flags %u, ipc->my_addr.loc %u, dpipe %s, "
        "size %u|src=[%u:%s:%u]|dest=[%u:%s:%u]|reqid=%u|frag_seq=%u|frag_id=%u|size=%u|frag_orig=%u",
        name_text(ipc->my_addr).text, ipc->my_addr.hostid, ipc->my_addr.flags, ipc->my_addr.loc, pipe,
        message.size, header.src.hostid, name_text(header.src).text, header.src.loc, header.dest.hostid,
        name_text(header.dest).text, header.dest.loc, header.reqid, fragment_sequence(header), header.frag_id,
        header.size, header.frag_orig);
    return send_to_pipe(ipc, pipe, header, message.data);
}

// Sends one copy to each hub pipe. Accepted when at least one copy was.
int send_to_hub_pipes(tav_ipc_st *ipc, const Message &message, uint32_t *reqid) {
    bool accepted = false;
    int last_error = IPC_OK;
    for (int i = 0; i < kHubPipes; ++i) {
        char pipe[32];
        str_snprintf(pipe, sizeof pipe, "_prx%d", i);
        const int result = build_and_send(ipc, pipe, message, reqid);
        if (result == IPC_OK)
            accepted = true;
        else
            last_error = result;
    }
    return accepted ? IPC_OK : last_error;
}

int route_message(tav_ipc_st *ipc, const Message &message, uint32_t *reqid) {
    const uint8_t there = message.dest.loc;
    const uint8_t here = ipc->my_addr.loc;
    if (there == here || there == 0) return build_and_send(ipc, name_text(message.dest), message, reqid);
    if (here != kHubLocation) return build_and_send(ipc, "_proxy_", message, reqid);
    if (there >= 5 && there <= 11) return build_and_send(ipc, "_prx0", message, reqid);
    return send_to_hub_pipes(ipc, message, reqid);
}

bool wants_compression(const Message &message) {
    return (message.flags & IPC_FLAG_APP_MSG) && !(message.flags & IPC_FLAG_COMPRESSED) &&
           (message.dest.flags & ADDR_FLAG_COMPRESS_OK) && message.size >= kCompressMinimum &&
           is_app_message(message.data, message.size) && app_method(message.data) == 0 &&
           // Its own length field must agree, else it only looks like an application message.
           uint64_t{kAppHeaderSize} + app_body_length(message.data) == message.size;
}

// Replaces the payload by its compressed form where that is allowed and shorter. The result owns that form.
MallocPtr<void> compress_payload(Message &message) {
    if (!wants_compression(message)) return nullptr;
    void *out = nullptr;
    const int32_t result = tav_msg_compress(message.data, &out, 0);
    MallocPtr<void> compressed(out);
    if (result != TAV_COMPRESS_OK) {
        if (result != TAV_COMPRESS_NO_GAIN)
            TAV_LOG_LIMITED(2, "tav_ipc", "compress msg failed, ret = %d", result);
        return nullptr;
    }
    const uint32_t new_size = kAppHeaderSize + app_body_length(out);
    TAV_LOG(4, "tav_ipc", "compress msg success, old_size=%u, new_size=%u", message.size, new_size);
    message.data = out;
    message.size = new_size;
    message.flags |= IPC_FLAG_COMPRESSED;
    return compressed;
}

} // namespace

int send_message(tav_ipc_st *ipc, Message &&message, uint32_t *reqid) {
    if (!ipc->queue) return IPC_ERR_SENDTO;
    const EndpointPin pin(ipc);
    if (is_app_message(message.data, message.size)) message.flags |= IPC_FLAG_APP_MSG;
    const MallocPtr<void> compressed = compress_payload(message);
    return route_message(ipc, message, reqid);
}

void trace_sent_messages() { trace_flag = IPC_FLAG_TRACE; }

uint32_t last_reqid() { return last_id; }

void reset_sending(uint32_t last) {
    trace_flag = 0;
    last_id = last;
}

} // namespace tavipc

using namespace tavipc;

int tav_ipc_send_with_flags(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                            uint32_t size, uint16_t flags, uint32_t *reqid) noexcept {
    if (!ipc || !dest) return IPC_ERR_SENDTO;
    return send_message(ipc, {read_address(dest), cmd, data, size, flags}, reqid);
}

int tav_ipc_send(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                 uint32_t size) noexcept {
    UseGuard guard(ipc, "tav_ipc_send");
    return tav_ipc_send_with_flags(ipc, dest, cmd, data, size, 0, nullptr);
}

int tav_ipc_send_raw(tav_ipc_st *ipc, const char *dpipe, const void *datagram) noexcept {
    if (!ipc || !dpipe || !datagram) return IPC_ERR_SENDTO;
    const EndpointPin pin(ipc);
    return send_to_pipe(ipc, dpipe, read_header(datagram), static_cast<const char *>(datagram) + kHeaderSize);
}

int ipc_rand_by_time() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    seed_random(static_cast<unsigned>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                      static_cast<uint64_t>(now.tv_nsec) / 1000000));
    return draw_random();
}
