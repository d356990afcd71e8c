#include "ipc/receive.h"

#include <cstring>
#include <optional>
#include <utility>

#include "common/log.h"
#include "ipc/accounting.h"
#include "ipc/endpoint.h"
#include "ipc/exchanges.h"
#include "ipc/ipc_file.h"
#include "ipc/msg_trace.h"
#include "ipc/reassembly.h"
#include "ipc/wire.h"
#include "tavipc/tav_compress.h"

namespace tavipc {
namespace {

// A peer's envelope may claim up to 4 GiB; envelopes that claim more than this are refused. (A restored
// message can be larger than the largest that can be sent: the send limit applies to the compressed size.)
constexpr uint32_t kMaxRestored = 256u << 20; // bytes
constexpr uint32_t kEnvelopeHeader = 4;       // bytes: the length of what is inside

// A message under dispatch. Its payload lies in the datagram, or in one of the buffers that it owns. Most
// messages are one datagram: for them nothing of it is cleared or released.
struct Incoming {
    tav_ipc_hdr_st header;
    const unsigned char *payload;
    std::optional<ReassemblyBuffer> rebuilt; // from fragments
    MallocPtr<unsigned char> restored;       // from a compressed message
};

// Counts the datagram. Returns whether its header is sound.
bool validate(const tav_ipc_st *ipc, const void *data, uint32_t len, int status, Incoming &in) {
    const auto bad = [&](Counter reason) { return account_bad(ipc, data, len, reason), false; };
    if (status != 0 || !data) return bad(TAV_IPC_STATS_BAD_OTHER);
    if (len < kHeaderSize) return bad(TAV_IPC_STATS_BAD_SHORT);
    in.header = read_header(data);
    in.payload = static_cast<const unsigned char *>(data) + kHeaderSize;
    if (in.header.size > len - kHeaderSize) return bad(TAV_IPC_STATS_BAD_SIZE);
    if (tav_ipc_hdr_magic(&in.header) != in.header.magic) return bad(TAV_IPC_STATS_BAD_CHECK);
    account_received(ipc, data, len);
    return true;
}

// Do the lengths in the message lie inside it, and is the restored size acceptable?
bool restorable(const Incoming &in) {
    const uint32_t size = in.header.size;
    if (size < kAppHeaderSize) return false;
    const uint32_t body = app_body_length(in.payload);
    if (uint64_t{kAppHeaderSize} + body > size) return false;
    return body < kEnvelopeHeader || load_be32(in.payload + kAppHeaderSize) <= kMaxRestored;
}

// Replaces a compressed application message by its plain form. Logs.
bool ipc_uncompress_msg(const tav_ipc_st *ipc, Incoming &in) {
    void *out = nullptr; // the reserve in front of the message stays unused
    const int32_t result = restorable(in) ? tav_msg_uncompress2(in.payload, &out, kHeaderSize, 0)
                                          : static_cast<int32_t>(TAV_COMPRESS_BAD_ARG);
    in.restored.reset(static_cast<unsigned char *>(out));
    if (result != TAV_COMPRESS_OK) {
        account_not_taken(ipc, in.header, in.payload, TAV_IPC_STATS_BAD_COMPRESSED);
        TAV_LOG_LIMITED(2, "tav_ipc", "uncompress msg failed, ret = %d", result);
        return false;
    }
    const uint32_t packed_size = in.header.size;
    in.payload = in.restored.get() + kHeaderSize;
    in.header.flags &= static_cast<uint16_t>(~IPC_FLAG_COMPRESSED);
    in.header.size = kAppHeaderSize + app_body_length(in.payload);
    TAV_LOG(4, "tav_ipc", "uncompress msg success, curr_size=%u, uncompress_size=%u", packed_size,
            in.header.size);
    return true;
}

void acknowledge(tav_ipc_st *ipc, const Incoming &in, int32_t result) {
    uint32_t reqid = in.header.reqid; // written back by the send path when it is 0
    (void)tav_ipc_send_with_flags(ipc, &in.header.src, 0, &result, sizeof result, IPC_FLAG_ACK, &reqid);
}

// The code of an acknowledgement: its payload if that has 4 bytes, else 0.
int32_t acknowledged_code(const Incoming &in) {
    int32_t code = 0;
    if (in.header.size == sizeof code) std::memcpy(&code, in.payload, sizeof code);
    return code;
}

int32_t save_chunk(tav_ipc_st *ipc, const Incoming &in) {
    if (!ipc->accept_files) return IPC_ERR_NOT_SUPPORTED;
    return tav_ipc_save_file(ipc, &in.header.src, in.header.cmd, in.payload, in.header.size);
}

int32_t take_probe(const tav_ipc_st *ipc, const Incoming &in) {
    return receive_announcement(in.header.src, in.header.cmd, in.payload, in.header.size,
                                ipc->accept_files != 0);
}

void dispatch(tav_ipc_st *ipc, const Incoming &in) {
    const tav_ipc_hdr_st &header = in.header;
    if (header.flags & IPC_FLAG_RESPONSE)
        return ipc_complete_request(ipc, header.reqid, IPC_OK, header.cmd, in.payload, header.size);
    if (header.flags & IPC_FLAG_ACK)
        return ipc_complete_request(ipc, header.reqid, acknowledged_code(in), 0, nullptr, 0);

    const int32_t result = header.flags & IPC_FLAG_FILE    ? save_chunk(ipc, in)
                           : header.flags & IPC_FLAG_PROBE ? take_probe(ipc, in)
                                                           : IPC_OK;
    if (ipc->closed) return; // by the file callback
    if (header.flags & IPC_FLAG_NEED_ACK) acknowledge(ipc, in, result);
    if (ipc->closed) return; // by the sink of a line that the reply logged
    if (header.flags & (IPC_FLAG_FILE | IPC_FLAG_PROBE)) return;
    const bool is_request = (header.flags & IPC_FLAG_REQUEST) && ipc->on_request;
    if (!is_request && !ipc->msg_recv) return;
    const HandlerCall call(ipc);
    if (is_request)
        ipc->on_request(ipc, &header.src, header.reqid, header.cmd, in.payload, header.size,
                        ipc->on_request_arg);
    else
        ipc->msg_recv(ipc, &header.src, header.cmd, in.payload, header.size, ipc->msg_recv_arg);
}

void restore_and_dispatch(tav_ipc_st *ipc, Incoming &in) {
    if ((in.header.flags & IPC_FLAG_COMPRESSED) && !ipc_uncompress_msg(ipc, in)) return;
    TAV_TRACE(&in.header, "recv from dunix");
    if (ipc->closed) return; // by the sink of a line
    account_delivered(ipc);
    dispatch(ipc, in);
}

// Replaces a fragment by the message that it completes.
bool reassemble(tav_ipc_st *ipc, Incoming &in) {
    std::optional<RebuiltMessage> message = add_fragment(ipc, in.header, in.payload);
    if (!message) return false;
    in.header = message->header;
    in.rebuilt = std::move(message->payload);
    in.payload = in.rebuilt->data();
    return true;
}

} // namespace

void ipc_on_recv(cl_dunix_t, const void *data, uint32_t len, const cl_sockaddr_t *, int status,
                 void *context) {
    auto *ipc = static_cast<tav_ipc_st *>(context);
    if (!ipc) return;
    Incoming in; // outlives the guard: its memory is freed last
    UseGuard guard(ipc, "ipc_on_recv");
    if (ipc->closed) return; // by the sink of the guard's line
    if (!validate(ipc, data, len, status, in)) return;
    if (is_fragment(in.header) && !reassemble(ipc, in)) return;
    restore_and_dispatch(ipc, in);
    if (in.rebuilt) give_back(ipc, *std::move(in.rebuilt));
}

} // namespace tavipc
