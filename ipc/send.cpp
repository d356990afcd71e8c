// From a caller's message to datagrams: marks and compresses application messages, chooses the pipe, numbers
// the message, keeps the destination's in-flight budget and cuts large messages into fragments.
//
// The payload is copied exactly once, from the caller's buffer into the queue record or fragment buffer that
// the event library sends from.
#include <cstring>
#include <ctime>

#include "common/facts.h"
#include "common/log.h"
#include "common/out_of_memory.h"
#include "ipc/endpoint.h"
#include "ipc/fragment_block.h"
#include "ipc/ipc_process.h"
#include "ipc/module_info.h"
#include "ipc/msg_trace.h"
#include "ipc/transmitter.h"
#include "ipc/unix_socket.h"
#include "ipc/wire.h"
#include "tavaux.h"
#include "tavipc/tav_compress.h"

namespace tavipc {
namespace {

constexpr uint8_t kHubLocation = 4; // the location whose endpoints reach others through "_prx%d" pipes
constexpr int kHubPipes = 8;

int send_fragments(Route route, const tav_ipc_hdr_st &message, const void *payload) {
    tav_ipc_hdr_st header = message;
    const InUse keep(*route.mod);
    header.frag_orig = message.size;
    header.frag_id = static_cast<uint16_t>(ipc_rand_by_time() & 0xFFFF);
    const uint32_t count = (message.size + kFragmentPayload - 1) / kFragmentPayload;
    FragmentBlock *block = FragmentBlock::create(count);
    if (!block) out_of_memory("tav_ipc", __LINE__);
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t offset = i * kFragmentPayload;
        const uint32_t rest = message.size - offset;
        header.size = rest < kFragmentPayload ? rest : kFragmentPayload;
        set_fragment(header, static_cast<uint16_t>(i));
        settle_sent();
        route.now_ms = cl_event_loop_now();
        unsigned char *datagram = block->take_slot();
        if (payload)
            std::memcpy(datagram + kHeaderSize, static_cast<const char *>(payload) + offset, header.size);
        else
            std::memset(datagram + kHeaderSize, 0, header.size);
        if (submit_buffer(route, header, datagram, FragmentBlock::release_slot) != IPC_OK) {
            block->give_up(datagram, count - i);
            return IPC_ERR_SENDTO;
        }
    }
    return IPC_OK;
}

bool over_budget(const tav_ipc_st *ipc, const mod_info_st *mod, const tav_ipc_hdr_st &header,
                 uint32_t priority) {
    const uint32_t limit = in_flight_class(header.flags & IPC_FLAGS_CONTROL, priority);
    if (uint64_t{header.size} + mod->sending_bytes < limit) return false;
    TAV_LOG_LIMITED(2, "tav_ipc", "to many messages, IPC:[%s@%u:%x],MSG:[%s@%u:%x]->[%s@%u:%x] drop it",
                    name_text(ipc->my_addr).text, ipc->my_addr.hostid, ipc->my_addr.flags,
                    name_text(header.src).text, header.src.hostid, header.src.flags,
                    name_text(header.dest).text, header.dest.hostid, header.dest.flags);
    return true;
}

// The socket address of a pipe, remembered for the next message; false when it cannot be. It is copied: a
// sink of log lines may send, too.
bool find_address(tav_ipc_st *ipc, const char *dpipe, cl_sockaddr_t &address) {
    auto &last = ipc->last_sent;
    const char *deploy_type = GetDeployTypeStr();
    if (*dpipe && last.deploy_type == deploy_type && std::strncmp(last.pipe, dpipe, sizeof last.pipe) == 0) {
        address = last.address;
        return true;
    }
    char path[4096];
    if (!socket_path(path, sizeof path, ipc->location, dpipe) || cl_sockaddr_un_init(&address, path) != 0)
        return false;
    if (std::strlen(dpipe) >= sizeof last.pipe) return true;
    std::strcpy(last.pipe, dpipe);
    last.deploy_type = deploy_type;
    last.address = address;
    return true;
}

// Sends one message (header without magic, header.size payload bytes, payload null: zeros) to one pipe.
int send_to_pipe(tav_ipc_st *ipc, const char *dpipe, const tav_ipc_hdr_st &header, const void *payload) {
    if (header.size > kMaxMessage) {
        TAV_TRACE(&header, "too huge, dropped: %u", header.size);
        return IPC_ERR_SENDTO;
    }
    cl_sockaddr_t address;
    if (!find_address(ipc, dpipe, address)) return IPC_ERR_SENDTO;
    TAV_TRACE(&header, "send via dunix:%s", address.addr.sun_path);

    settle_sent();
    const uint64_t now_ms = cl_event_loop_now();
    const NameText name = name_text(header.dest);
    mod_info_st *mod = find_module(*ipc->queue, name, now_ms);
    if (!mod) {
        TAV_LOG_LIMITED(2, "tav_ipc", "cannot find module info, mod_name: %s", name.text);
        mod = ipc->queue->default_mod;
    }
    const uint32_t priority = message_priority(header.flags, payload, header.size);
    if (over_budget(ipc, mod, header, priority)) return IPC_ERR_SENDTO;

    const Route route{ipc, mod, &address, priority, now_ms};
    if (header.size <= kFragmentPayload) return submit_copy(route, header, payload);
    return send_fragments(route, header, payload);
}

// A caller's message on its way to one or more pipes.
struct Message {
    tav_addr_st dest;
    uint32_t cmd;
    const void *data;
    uint32_t size;
    uint16_t flags;
};

int build_and_send(tav_ipc_st *ipc, const char *dpipe, const Message &message, uint32_t *reqid) {
    tav_ipc_hdr_st header{};
    header.dest = message.dest;
    header.src = ipc->my_addr;
    header.cmd = message.cmd;
    header.reqid = reqid && *reqid ? *reqid : next_reqid();
    if (reqid) *reqid = header.reqid;
    header.flags = message.flags | process_state().trace_flag;
    header.size = message.size;
    TAV_LOG(
        4, "tav_ipc",
        "ipc->my_addr.name %s, ipc->my_addr.hostid %u, ipc->my_addr.flags %u, ipc->my_addr.loc %u, dpipe %s, "
        "size %u|src=[%u:%s:%u]|dest=[%u:%s:%u]|reqid=%u|frag_seq=%u|frag_id=%u|size=%u|frag_orig=%u",
        name_text(ipc->my_addr).text, ipc->my_addr.hostid, ipc->my_addr.flags, ipc->my_addr.loc, dpipe,
        message.size, header.src.hostid, name_text(header.src).text, header.src.loc, header.dest.hostid,
        name_text(header.dest).text, header.dest.loc, header.reqid, fragment_sequence(header), header.frag_id,
        header.size, header.frag_orig);
    return send_to_pipe(ipc, dpipe, header, message.data);
}

// One copy to each hub pipe; accepted when any of them took it.
int send_to_hub_pipes(tav_ipc_st *ipc, const Message &message, uint32_t *reqid) {
    bool accepted = false;
    int last_error = IPC_OK;
    for (int i = 0; i < kHubPipes; ++i) {
        char dpipe[32];
        str_snprintf(dpipe, sizeof dpipe, "_prx%d", i);
        const int result = build_and_send(ipc, dpipe, message, reqid);
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
           // A payload whose own length field disagrees is not what it looks like: it goes as it is.
           uint64_t{kAppHeaderSize} + app_body_length(message.data) == message.size;
}

// Replaces the payload by its compressed form where that is allowed and shorter; the result owns it.
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
} // namespace tavipc

using namespace tavipc;

int tav_ipc_send_with_flags(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                            uint32_t size, uint16_t flags, uint32_t *reqid) noexcept {
    if (!ipc || !dest || !ipc->queue) return IPC_ERR_SENDTO;
    Message message{*dest, cmd, data, size, flags};
    if (is_app_message(data, size)) message.flags |= IPC_FLAG_APP_MSG;
    const MallocPtr<void> compressed = compress_payload(message);
    return route_message(ipc, message, reqid);
}

int tav_ipc_send(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                 uint32_t size) noexcept {
    UseGuard guard(ipc, "tav_ipc_send");
    return tav_ipc_send_with_flags(ipc, dest, cmd, data, size, 0, nullptr);
}

int tav_ipc_send_raw(tav_ipc_st *ipc, const char *dpipe, const void *datagram) noexcept {
    if (!ipc || !dpipe || !datagram || !ipc->queue) return IPC_ERR_SENDTO;
    return send_to_pipe(ipc, dpipe, read_header(datagram), static_cast<const char *>(datagram) + kHeaderSize);
}

int ipc_rand_by_time() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    srand(static_cast<unsigned>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                static_cast<uint64_t>(now.tv_nsec) / 1000000));
    return rand();
}
