#include "ipc/exchanges.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <utility>
#include <variant>

#include "common/log.h"
#include "common/out_of_memory.h"
#include "common/relaxed.h"
#include "ipc/accounting.h"
#include "ipc/wire.h"
#include "tavipc/tav_ipc_ext.h"

namespace tavipc {
namespace {

constexpr int32_t kProbeTimeout_s = 5; // promised in tav_ipc.h
constexpr uint64_t kDefer_ms =
    1; // the next turn of the loop: a failed send is never reported inside the call
constexpr int64_t kMillisecondsPerSecond = 1000;

struct Answer {
    int32_t code;
    uint32_t cmd = 0;
    const void *data = nullptr;
    uint32_t len = 0; // bytes
};

// The caller's callback (may be null) in one of its forms.
using Callback = std::variant<tav_ipc_status_cb, tav_ipc_response_cb, tav_ipc_exchange_cb>;

struct RequestRecord {
    uint64_t serial; // distinguishes its id from that of a later exchange with the same message id
    Callback callback;
    void *user;
    int64_t expire_ms = 0;  // on the request clock
    int32_t send_error = 0; // only if the message could not be sent, or found no peer
    bool took_over = false; // the expiry of the exchange before it is still in the heap
    bool waits_for_peer = false;
    bool taken_out = false; // not in the table any more: the frame that completes it owns it
    uint32_t reqid = 0;
    tav_ipc_st *ipc = nullptr; // these two with a timer of its own
    cl_timer_t timer = 0;
};

uint64_t next_serial() {
    static constinit Relaxed<uint64_t> last = 0;
    return ++last;
}

uint64_t ipc_req_now() { return static_cast<uint64_t>(time(nullptr)) * kMillisecondsPerSecond; }

// The table calls this for a record that leaves it.
void release_record(void *value) {
    auto *record = static_cast<RequestRecord *>(value);
    if (record->timer) cl_timer_stop(std::exchange(record->timer, 0));
    if (!record->taken_out) delete record;
}

RequestRecord *find_record(tav_ipc_st *ipc, uint32_t reqid) {
    void *record = nullptr;
    if (ipc_req_manager_find(&ipc->req_mgr, reqid, &record) != 0) return nullptr;
    return static_cast<RequestRecord *>(record);
}

// Unique in the process until 2^32 later exchanges have begun.
uint64_t exchange_id(const RequestRecord &record) { return record.serial << 32 | record.reqid; }

void call_back(const RequestRecord &record, const Answer &answer) {
    if (const auto *status = std::get_if<tav_ipc_status_cb>(&record.callback)) {
        if (*status) (*status)(answer.code, record.user);
    } else if (const auto *response = std::get_if<tav_ipc_response_cb>(&record.callback)) {
        if (*response) (*response)(answer.code, answer.cmd, answer.data, answer.len, record.user);
    } else if (const auto *any = std::get_if<tav_ipc_exchange_cb>(&record.callback)) {
        if (*any) (*any)(exchange_id(record), answer.code, answer.cmd, answer.data, answer.len, record.user);
    }
}

// Ends the exchange of a record in the table. The endpoint may be closed afterwards.
void finish(tav_ipc_st *ipc, RequestRecord &record, const Answer &answer, Counter how) {
    const std::unique_ptr<RequestRecord> taken(&record);
    record.taken_out = true;
    ipc_req_manager_remove(&ipc->req_mgr, record.reqid);
    account_exchange_over(ipc, how);
    call_back(record, answer);
}

// Completes what is outstanding under the id, if anything is. The endpoint may be closed afterwards.
void complete(tav_ipc_st *ipc, uint32_t reqid, const Answer &answer,
              Counter how = TAV_IPC_STATS_EXCHANGES_ENDED) {
    if (RequestRecord *record = find_record(ipc, reqid)) finish(ipc, *record, answer, how);
}

void ipc_req_deferred_fail(void *argument) {
    const std::unique_ptr<RequestRecord> record(static_cast<RequestRecord *>(argument));
    call_back(*record, {record->send_error});
}

void ipc_req_timeout(uint32_t reqid, void *value, void *argument) {
    auto *ipc = static_cast<tav_ipc_st *>(argument);
    EndpointPin pin(ipc);
    auto &record = *static_cast<RequestRecord *>(value);
    if (record.timer) return; // it ends the exchange
    const int64_t expire_ms = record.expire_ms;
    if (record.took_over && expire_ms >= static_cast<int64_t>(ipc_req_now())) return;
    finish(ipc, record, {IPC_ERR_TIMEOUT}, TAV_IPC_STATS_EXCHANGES_TIMED_OUT);
    TAV_LOG(4, "tav_ipc", "req[%u] timeout, expire=%lld", reqid, static_cast<long long>(expire_ms));
}

int ipc_req_close_one(uint32_t reqid, void *, void *argument) {
    complete(static_cast<tav_ipc_st *>(argument), reqid, {IPC_ERR_CLOSED});
    return 0;
}

// Message ids wrap. Completes the exchange that has this one, so that its callback is not lost; true if there
// was one.
bool take_over(tav_ipc_st *ipc, uint32_t reqid) {
    if (!find_record(ipc, reqid)) return false;
    complete(ipc, reqid, {IPC_ERR_CLOSED});
    return true;
}

RequestRecord *new_record(Callback callback, void *user) {
    return new (std::nothrow) RequestRecord{next_serial(), callback, user};
}

int send_exchange(tav_ipc_st *ipc, const Exchange &exchange, uint32_t *reqid) {
    if (ipc && ipc->closed) return IPC_ERR_CLOSED;
    return tav_ipc_send_with_flags(ipc, exchange.dest, exchange.cmd, exchange.data, exchange.len,
                                   exchange.flags, reqid);
}

void ipc_send_request(tav_ipc_st *ipc, const Exchange &exchange, Callback callback, void *user) {
    uint32_t reqid = 0;
    int result = send_exchange(ipc, exchange, &reqid);
    RequestRecord *record = new_record(callback, user);
    if (!record) out_of_memory("tav_ipc", __LINE__);
    record->expire_ms = static_cast<int64_t>(ipc_req_now()) + exchange.timeout_s * kMillisecondsPerSecond;
    record->reqid = reqid;
    if (result == IPC_OK) record->took_over = take_over(ipc, reqid);
    // The log sink in the send, or the callback of the older exchange, may have destroyed the endpoint.
    if (result == IPC_OK && ipc->closed) result = IPC_ERR_CLOSED;
    if (result != IPC_OK) {
        record->send_error = result;
        if (ipc) account_event(ipc, TAV_IPC_STATS_EXCHANGES_ENDED);
        if (!cl_timer_start(kDefer_ms, ipc_req_deferred_fail, record)) out_of_memory("tav_ipc", __LINE__);
    } else if (ipc_req_manager_insert(&ipc->req_mgr, reqid, record, record->expire_ms) != 0) {
        TAV_LOG(0, "tav_ipc", "memory not enough");
        std::exit(0);
    } else {
        account_exchange_waits(ipc);
    }
}

// --- exchanges of tav_ipc_ext.h: a timer of their own, in milliseconds of the monotonic clock

// The timer can fire while start_exchange still sends the message, if a log sink runs the loop. The record is
// not in the table then, so complete() finds nothing. start_exchange inserts it as expired, and because its
// timer is 0, ipc_req_timeout reports the time-out on the manager's next tick.
void ipc_exchange_timeout(void *argument) {
    auto &record = *static_cast<RequestRecord *>(argument);
    record.timer = 0;
    EndpointPin pin(record.ipc);
    if (record.send_error) return complete(record.ipc, record.reqid, {record.send_error});
    complete(record.ipc, record.reqid, {IPC_ERR_TIMEOUT}, TAV_IPC_STATS_EXCHANGES_TIMED_OUT);
}

// 0, or an errno; the record is then still the caller's. What can fail comes before the message is sent.
int start_exchange(tav_ipc_st *ipc, const Exchange &exchange, uint32_t timeout_ms, RequestRecord *record) {
    if (!record) return ENOMEM;
    record->ipc = ipc;
    record->timer = cl_timer_start(timeout_ms, ipc_exchange_timeout, record);
    if (!record->timer) return ENOMEM;
    if (send_exchange(ipc, exchange, &record->reqid) != IPC_OK) return ipc->closed ? ESHUTDOWN : ENOBUFS;
    (void)take_over(ipc, record->reqid);
    if (ipc->closed) return ESHUTDOWN;
    // The manager's entry has expired already: it leaves the heap at the next tick.
    if (ipc_req_manager_insert(&ipc->req_mgr, record->reqid, record, INT64_MIN) != 0) return ENOMEM;
    account_exchange_waits(ipc);
    return 0;
}

// The exchange with a timer of its own that the endpoint's own datagram belongs to, or null. An answer has
// the id of a peer, and the pipe of another location is a proxy's.
RequestRecord *find_sent(tav_ipc_st *ipc, const tav_ipc_hdr_st &header) {
    const bool asks = header.flags & (IPC_FLAG_REQUEST | IPC_FLAG_NEED_ACK);
    if (!asks || header.flags & (IPC_FLAG_RESPONSE | IPC_FLAG_ACK)) return nullptr;
    if (header.dest.loc != 0 && header.dest.loc != ipc->my_addr.loc) return nullptr;
    if (tav_addr_cmp(&header.src, &ipc->my_addr) != 0) return nullptr; // forwarded
    RequestRecord *record = find_record(ipc, header.reqid);
    return record && record->timer ? record : nullptr;
}

} // namespace

WithoutPeer exchange_without_peer(tav_ipc_st *ipc, const tav_ipc_hdr_st &header) {
    RequestRecord *record = find_sent(ipc, header);
    if (!record) return WithoutPeer::kNoExchange;
    if (record->waits_for_peer) return WithoutPeer::kWaits;
    if (record->send_error) return WithoutPeer::kGivesUp; // by an earlier fragment
    const cl_timer_t soon = cl_timer_start(0, ipc_exchange_timeout, record);
    if (!soon) return WithoutPeer::kGivesUp; // it times out
    cl_timer_stop(std::exchange(record->timer, soon));
    record->send_error = IPC_ERR_NO_PEER;
    return WithoutPeer::kGivesUp;
}

uint64_t ipc_start_exchange(tav_ipc_st *ipc, const TimedExchange &exchange, tav_ipc_exchange_cb callback,
                            void *user) {
    RequestRecord *record = new_record(callback, user);
    if (record) record->waits_for_peer = exchange.waits_for_peer;
    const int error = start_exchange(ipc, exchange.message, exchange.timeout_ms, record);
    if (error == 0) return exchange_id(*record);
    if (record) release_record(record);
    errno = error;
    return 0;
}

void ipc_send_with_ack(tav_ipc_st *ipc, Exchange exchange, tav_ipc_status_cb callback, void *user) {
    exchange.flags |= IPC_FLAG_NEED_ACK;
    ipc_send_request(ipc, exchange, callback, user);
}

void ipc_complete_request(tav_ipc_st *ipc, uint32_t reqid, int32_t code, uint32_t cmd, const void *data,
                          uint32_t len) {
    EndpointPin pin(ipc);
    complete(ipc, reqid, {code, cmd, data, len}, TAV_IPC_STATS_EXCHANGES_COMPLETED);
}

bool open_requests(tav_ipc_st *ipc) {
    if (ipc_req_manager_init(&ipc->req_mgr, release_record, ipc_req_timeout, ipc) != 0) return false;
    ipc_req_manager_set_now_getter(&ipc->req_mgr, ipc_req_now);
    return true;
}

void close_requests(tav_ipc_st *ipc) {
    assert(ipc->closed); // callbacks can start no exchange that stays
    ipc_req_manager_walk(&ipc->req_mgr, ipc_req_close_one, ipc);
    ipc_req_manager_uninit(&ipc->req_mgr);
}

} // namespace tavipc

using namespace tavipc;

void tav_ipc_make_request(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                          uint32_t len, tav_ipc_response_cb callback, void *user,
                          int32_t timeout_s) noexcept {
    UseGuard guard(ipc, "tav_ipc_make_request");
    ipc_send_request(ipc, {dest, cmd, data, len, IPC_FLAG_REQUEST, timeout_s}, callback, user);
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
    address.flags = 0; // the endpoint is probed, whatever payloads it accepts
    ipc_send_with_ack(ipc, {dest ? &address : nullptr, 0, nullptr, 0, IPC_FLAG_PROBE, kProbeTimeout_s},
                      callback, user);
}

int tav_ipc_exchange_cancel(tav_ipc_st *ipc, uint64_t id) noexcept {
    UseGuard guard(ipc, "tav_ipc_exchange_cancel");
    const auto reqid = static_cast<uint32_t>(id);
    RequestRecord *record = ipc ? find_record(ipc, reqid) : nullptr;
    if (!record || exchange_id(*record) != id) return errno = ENOENT, -1;
    complete(ipc, reqid, {IPC_ERR_CANCELLED});
    return 0;
}
