#include "ipc/exchanges.h"

#include <cstdlib>
#include <ctime>

#include "common/log.h"
#include "common/out_of_memory.h"

namespace tavipc {
namespace {

constexpr int32_t kProbeTimeoutS = 5;
constexpr uint64_t kDeferMs = 1;

using AnyCallback = void (*)();

enum CallbackKind : uint32_t { kStatus = 0, kResponse = 1 };

// Outstanding exchange, from malloc.
struct RequestRecord {
    uint32_t kind;        // which form `callback` has
    AnyCallback callback; // null: finished, or being finished
    void *user;
    int64_t expire; // ms on the request clock
    int32_t send_error;
};

struct Completion {
    int32_t code;
    uint32_t cmd = 0;
    const void *data = nullptr;
    uint32_t len = 0;
};

int ignore_status(int32_t, void *) { return 0; }
int ignore_response(int32_t, uint32_t, const void *, uint32_t, void *) { return 0; }

uint64_t ipc_req_now() { return static_cast<uint64_t>(time(nullptr)) * 1000; }

// Calls the callback; the record may be gone afterwards. False when that has happened already.
bool finish(RequestRecord *record, const Completion &with) {
    const AnyCallback callback = record->callback;
    const uint32_t kind = record->kind;
    void *user = record->user;
    if (!callback) return false;
    record->callback = nullptr;
    if (kind == kResponse)
        reinterpret_cast<tav_ipc_response_cb>(callback)(with.code, with.cmd, with.data, with.len, user);
    else
        reinterpret_cast<tav_ipc_status_cb>(callback)(with.code, user);
    return true;
}

void ipc_req_deferred_fail(void *argument) {
    MallocPtr<RequestRecord> record(static_cast<RequestRecord *>(argument));
    finish(record.get(), {record->send_error});
}

void ipc_req_timeout(uint32_t reqid, void *record, void *argument) {
    auto *ipc = static_cast<tav_ipc_st *>(argument);
    EndpointPin pin(ipc);
    const int64_t expire = static_cast<RequestRecord *>(record)->expire;
    if (!finish(static_cast<RequestRecord *>(record), {IPC_ERR_TIMEOUT})) return;
    TAV_LOG(4, "tav_ipc", "req[%u] timeout, expire=%lld", reqid, static_cast<long long>(expire));
    ipc_req_manager_remove(&ipc->req_mgr, reqid);
}

int ipc_req_close_one(uint32_t reqid, void *record, void *argument) {
    auto *ipc = static_cast<tav_ipc_st *>(argument);
    if (finish(static_cast<RequestRecord *>(record), {IPC_ERR_CLOSED}))
        ipc_req_manager_remove(&ipc->req_mgr, reqid);
    return 0;
}

int send_exchange(tav_ipc_st *ipc, const Exchange &exchange, uint32_t *reqid) {
    if (ipc && ipc->closed) return IPC_ERR_CLOSED;
    return tav_ipc_send_with_flags(ipc, exchange.dest, exchange.cmd, exchange.data, exchange.len,
                                   exchange.flags, reqid);
}

void ipc_send_request(tav_ipc_st *ipc, const Exchange &exchange, CallbackKind kind, AnyCallback callback,
                      void *user) {
    uint32_t reqid = 0;
    const int result = send_exchange(ipc, exchange, &reqid);
    const auto clock_ms = static_cast<int64_t>(ipc_req_now());
    auto *record = static_cast<RequestRecord *>(std::calloc(1, sizeof(RequestRecord)));
    if (!record) out_of_memory("tav_ipc", __LINE__);
    record->kind = kind;
    record->callback = callback;
    record->user = user;
    record->expire = clock_ms + int64_t{exchange.timeout_s} * 1000;
    if (result != IPC_OK) {
        record->send_error = result;
        if (!cl_timer_start(kDeferMs, ipc_req_deferred_fail, record)) out_of_memory("tav_ipc", __LINE__);
    } else if (ipc_req_manager_insert(&ipc->req_mgr, reqid, record, record->expire) != 0) {
        TAV_LOG(0, "tav_ipc", "memory not enough");
        std::exit(0);
    }
}

} // namespace

void ipc_send_with_ack(tav_ipc_st *ipc, Exchange exchange, tav_ipc_status_cb callback, void *user) {
    exchange.flags |= IPC_FLAG_NEED_ACK;
    ipc_send_request(ipc, exchange, kStatus,
                     reinterpret_cast<AnyCallback>(callback ? callback : ignore_status), user);
}

void ipc_complete_request(tav_ipc_st *ipc, uint32_t reqid, int32_t code, uint32_t cmd, const void *data,
                          uint32_t len) {
    EndpointPin pin(ipc);
    void *record = nullptr;
    if (ipc_req_manager_find(&ipc->req_mgr, reqid, &record) != 0) return;
    if (finish(static_cast<RequestRecord *>(record), {code, cmd, data, len}))
        ipc_req_manager_remove(&ipc->req_mgr, reqid);
}

bool open_requests(tav_ipc_st *ipc) {
    if (ipc_req_manager_init(&ipc->req_mgr, std::free, ipc_req_timeout, ipc) != 0) return false;
    ipc_req_manager_set_now_getter(&ipc->req_mgr, ipc_req_now);
    return true;
}

void close_requests(tav_ipc_st *ipc) {
    ipc_req_manager_walk(&ipc->req_mgr, ipc_req_close_one, ipc);
    ipc_req_manager_uninit(&ipc->req_mgr);
}

} // namespace tavipc

using namespace tavipc;

void tav_ipc_make_request(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                          uint32_t len, tav_ipc_response_cb callback, void *user,
                          int32_t timeout_s) noexcept {
    UseGuard guard(ipc, "tav_ipc_make_request");
    ipc_send_request(ipc, {dest, cmd, data, len, IPC_FLAG_REQUEST, timeout_s}, kResponse,
                     reinterpret_cast<AnyCallback>(callback ? callback : ignore_response), user);
}

void tav_ipc_response(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t reqid, uint32_t cmd,
                      const void *data, uint32_t len) noexcept {
    UseGuard guard(ipc, "tav_ipc_response");
    (void)tav_ipc_send_with_flags(ipc, dest, cmd, data, len, IPC_FLAG_RESPONSE, &reqid);
}

void tav_ipc_send2(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data, uint32_t len,
                   tav_ipc_status_cb callback, void *user, int32_t timeout_s) noexcept {
    UseGuard guard(ipc, "tav_ipc_send2");
    ipc_send_with_ack(ipc, {dest, cmd, data, len, 0, timeout_s}, callback, user);
}

void tav_ipc_probe(tav_ipc_st *ipc, const tav_addr_st *dest, tav_ipc_status_cb callback,
                   void *user) noexcept {
    UseGuard guard(ipc, "tav_ipc_probe");
    tav_addr_st address{};
    if (dest) address = *dest;
    address.flags = 0; // the answer must come from any endpoint, however it was addressed
    ipc_send_with_ack(ipc, {dest ? &address : nullptr, 0, nullptr, 0, IPC_FLAG_PROBE, kProbeTimeoutS},
                      callback, user);
}
