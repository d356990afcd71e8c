#include "ipc/reassembly.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

#include "common/log.h"
#include "common/out_of_memory.h"
#include "ipc/accounting.h"
#include "ipc/fragment_sets.h"
#include "ipc/msg_trace.h"
#include "ipc/wire.h"

namespace tavipc {

// The senders of the latest large messages that became complete. A sender is forgotten after eight others.
class ProvenSenders {
  public:
    bool has(const tav_addr_st &sender) const {
        return std::any_of(latest_.begin(), latest_.begin() + std::min(count_, latest_.size()),
                           [&](const tav_addr_st &other) { return tav_addr_cmp(&other, &sender) == 0; });
    }
    void add(const tav_addr_st &sender) {
        if (!has(sender)) latest_[count_++ % latest_.size()] = sender;
    }

  private:
    std::array<tav_addr_st, 8> latest_{};
    size_t count_ = 0; // all that were added
};

struct Reassembly {
    ReassemblyBuffers buffers;
    FragmentSets sets;
    ProvenSenders proven;

    explicit Reassembly(xhash_t *table) : sets(table) {}
    Reassembly(const Reassembly &) = delete;
    ~Reassembly() {
        while (FragmentSet *set = sets.any()) remove(*set);
    }
    size_t bytes() const { return sets.bytes() + buffers.resident_bytes(); }
    // Takes a set out with its memory.
    std::unique_ptr<FragmentSet> remove(FragmentSet &set) {
        buffers.drop(set.buffer);
        return sets.remove(set);
    }
};

namespace {

constexpr uint64_t kSweepPeriod_ms = 1000;    // expiry counts whole seconds
constexpr float kSweepPortion = 1.0f / 60.0f; // of the table in each period: all of it once a minute
constexpr uint32_t kLargestClaim =
    UINT32_MAX - kHeaderSize;             // bytes; a claim above it would wrap with a header
constexpr size_t kMostBytes = 512u << 20; // promised: 8 messages of the largest size

// The set is out of the table already: a sink of the trace may do anything.
void trace_incomplete(const tav_ipc_hdr_st &header) {
    TAV_TRACE(&header, "Fragment(%d) not complete, dropped", static_cast<int>(header.frag_id));
}

void account_sets(const tav_ipc_st *ipc) {
    if (ipc->reassembly) account_gauge(ipc, TAV_IPC_STATS_SETS_OPEN, ipc->reassembly->sets.live());
}

// --- the bound

void log_too_many(size_t held_bytes) {
    TAV_LOG_LIMITED(2, "tav_ipc", "too many fragments wait, some are dropped, %zu bytes held", held_bytes);
}

// Evicts a set other than the excepted one. False when there is none. Logs.
bool evict(tav_ipc_st *ipc, const FragmentSet *except, time_t now_s) {
    Reassembly &reassembly = *ipc->reassembly;
    FragmentSet *set = reassembly.sets.victim(now_s, except);
    if (!set) return false;
    const size_t held_bytes = reassembly.bytes();
    const tav_ipc_hdr_st header = set->header;
    reassembly.buffers.drop(set->buffer);
    reassembly.sets.mark_evicted(*set, now_s);
    account_event(ipc, TAV_IPC_STATS_SETS_EVICTED);
    account_sets(ipc);
    log_too_many(held_bytes);
    trace_incomplete(header);
    return true;
}

// Logs if it evicts: the last thing that is done for a fragment.
void keep_within_bound(tav_ipc_st *ipc, time_t now_s) {
    while (!ipc->closed && ipc->reassembly->bytes() > kMostBytes)
        if (!ipc->reassembly->buffers.release_spare() && !evict(ipc, nullptr, now_s)) return;
}

// --- the sweep

struct Sweep {
    const tav_ipc_st *ipc;
    time_t now_s;
    FragmentSet *expired = nullptr; // out of the table, linked by `beside`
};

int collect_expired(const void *, uint32_t, void *value, void *context) {
    auto &sweep = *static_cast<Sweep *>(context);
    for (auto *set = static_cast<FragmentSet *>(value); set;) {
        FragmentSet *next = set->beside;
        if (is_expired(*set, sweep.now_s)) {
            set = sweep.ipc->reassembly->remove(*set).release();
            if (!set->evicted) account_event(sweep.ipc, TAV_IPC_STATS_SETS_EXPIRED);
            set->beside = std::exchange(sweep.expired, set);
        }
        set = next;
    }
    return 0;
}

// Everything is in order again before the first trace: its sink may close the endpoint.
void frag_expire_tick(void *argument) {
    auto *ipc = static_cast<tav_ipc_st *>(argument);
    Sweep sweep{ipc, time(nullptr)};
    xhash_walk_partial(ipc->frag_table, ipc->frag_cookie, &sweep, collect_expired);
    account_sets(ipc);
    ipc->frag_timer = cl_timer_start(kSweepPeriod_ms, frag_expire_tick, ipc);
    ReassemblyBuffers &buffers = ipc->reassembly->buffers;
    buffers.release_old_spares(sweep.now_s);
    while (!ipc->frag_timer && buffers.release_spare()) // nothing would release them later
        ;
    for (FragmentSet *set = sweep.expired; set;) {
        const std::unique_ptr<FragmentSet> owned(set);
        set = owned->beside;
        if (!owned->evicted) trace_incomplete(owned->header);
    }
}

// --- one fragment

// Table, cookie, sets and timer; what could not be made is tried again with the next fragment.
bool ensure_reassembly(tav_ipc_st *ipc) {
    if (!ipc->frag_table) ipc->frag_table = xhash_create(nullptr, 0);
    if (!ipc->frag_cookie) ipc->frag_cookie = xhash_cookie_create(kSweepPortion);
    if (!ipc->frag_table || !ipc->frag_cookie) return false;
    if (!ipc->reassembly) ipc->reassembly = new (std::nothrow) Reassembly(ipc->frag_table);
    if (!ipc->reassembly) return false;
    if (!ipc->frag_timer) ipc->frag_timer = cl_timer_start(kSweepPeriod_ms, frag_expire_tick, ipc);
    return true;
}

// The process ends when memory is short even without spares.
FragmentSet *create_set(Reassembly &reassembly, const tav_ipc_hdr_st &header, time_t now_s) {
    for (;;) {
        if (FragmentSet *set = reassembly.sets.create(header, now_s)) return set;
        if (!reassembly.buffers.release_spare()) out_of_memory("tav_ipc", __LINE__);
    }
}

// The set of the fragment's message. Null when the fragment is dropped.
FragmentSet *find_or_create(tav_ipc_st *ipc, const tav_ipc_hdr_st &header, time_t now_s) {
    Reassembly &reassembly = *ipc->reassembly;
    FragmentSet *set = reassembly.sets.find(header);
    if (set && set->evicted && is_expired(*set, now_s)) {
        reassembly.remove(*set);
        set = nullptr;
    }
    if (set) return set->evicted ? nullptr : set;
    if (header.frag_orig > kLargestClaim)
        TAV_TRACE(&header, "have integer overflow, frag orig(%d)", static_cast<int>(header.frag_orig));
    else if (reassembly.sets.is_full(header))
        log_too_many(reassembly.bytes());
    else
        return create_set(reassembly, header, now_s);
    TAV_TRACE(&header, "frag_node_create fail");
    return nullptr;
}

// Does the fragment lie where its sequence number says, with the length that belongs there?
bool fits(const FragmentSet &set, const tav_ipc_hdr_st &header) {
    const uint64_t offset = uint64_t{fragment_sequence(header)} * kFragmentPayload;
    const uint32_t expected = set.expected();
    if (expected != header.frag_orig || expected < offset + header.size) {
        TAV_TRACE(&header, "Not expect frag seqno(%d), dropped", static_cast<int>(fragment_sequence(header)));
        return false;
    }
    const auto wanted = static_cast<uint32_t>(std::min<uint64_t>(expected - offset, kFragmentPayload));
    if (header.size != wanted) {
        TAV_TRACE(&header, "Not expect frag size(%d != %d[expected]), dropped", static_cast<int>(header.size),
                  static_cast<int>(wanted));
        return false;
    }
    return true;
}

// Gives the set a buffer if it needs one. To that end others may be evicted, which logs: then the set is
// looked up again. Null when it is gone.
FragmentSet *with_buffer(tav_ipc_st *ipc, FragmentSet *set, const tav_ipc_hdr_st &header, time_t now_s) {
    while (set && !set->evicted && set->can_be_complete() && !set->buffer) {
        Reassembly &reassembly = *ipc->reassembly;
        set->buffer = reassembly.buffers.take(set->expected(), reassembly.proven.has(header.src), now_s);
        if (set->buffer) break;
        if (!evict(ipc, set, now_s)) out_of_memory("tav_ipc", __LINE__);
        set = ipc->closed ? nullptr : ipc->reassembly->sets.find(header);
        if (set && !fits(*set, header)) return nullptr; // another one, which the sink's own traffic made
    }
    return set && !set->evicted ? set : nullptr;
}

// Fragments that never came read as zeros, not as what the buffer held before. The number of fragments seen
// does not say whether there are any: an empty one may lie behind the end of the message.
void clear_gaps(ReassemblyBuffers &buffers, FragmentSet &set) {
    const size_t count = (set.expected() + kFragmentPayload - 1) / kFragmentPayload;
    for (size_t i = 0; i < count; ++i) {
        const size_t rest = set.expected() - i * kFragmentPayload;
        if (!set.seen[i]) buffers.clear(set.buffer, i, std::min<size_t>(rest, kFragmentPayload));
    }
}

// Adds a fragment that fits. Returns the message if it is complete now. Calls nothing outside.
std::optional<RebuiltMessage> accept(Reassembly &reassembly, FragmentSet &set, const tav_ipc_hdr_st &header,
                                     const unsigned char *payload, time_t now_s) {
    set.received += header.size;
    if (set.can_be_complete()) {
        reassembly.buffers.write(set.buffer, fragment_sequence(header), payload, header.size);
        set.seen.set(fragment_sequence(header));
    }
    if (set.received < set.expected() || !set.can_be_complete()) {
        reassembly.sets.refresh(set, now_s);
        return std::nullopt;
    }
    clear_gaps(reassembly.buffers, set);
    if (set.expected() >= kHugePage) reassembly.proven.add(header.src);
    RebuiltMessage message{set.header, reassembly.buffers.lend(set.buffer)};
    reassembly.sets.remove(set);
    return message;
}

} // namespace

std::optional<RebuiltMessage> add_fragment(tav_ipc_st *ipc, const tav_ipc_hdr_st &header,
                                           const unsigned char *payload) {
    if (!ensure_reassembly(ipc)) {
        account_not_taken(ipc, header, payload, TAV_IPC_STATS_BAD_OTHER);
        return std::nullopt;
    }
    const time_t now_s = time(nullptr);
    std::optional<RebuiltMessage> message;
    FragmentSet *set = find_or_create(ipc, header, now_s);
    set = set && fits(*set, header) ? with_buffer(ipc, set, header, now_s) : nullptr;
    if (set)
        message = accept(*ipc->reassembly, *set, header, payload, now_s);
    else
        account_not_taken(ipc, header, payload, TAV_IPC_STATS_BAD_FRAGMENT);
    account_sets(ipc);
    keep_within_bound(ipc, now_s);
    return message;
}

void give_back(tav_ipc_st *ipc, ReassemblyBuffer payload) {
    if (ipc->closed) return;
    // Without the sweep nothing would release a spare.
    if (ipc->frag_timer) ipc->reassembly->buffers.give_back(std::move(payload), time(nullptr));
    keep_within_bound(ipc, time(nullptr));
}

void release_fragments(tav_ipc_st *ipc) {
    cl_timer_stop(std::exchange(ipc->frag_timer, 0));
    delete std::exchange(ipc->reassembly, nullptr);
    xhash_cookie_destroy(std::exchange(ipc->frag_cookie, nullptr));
    xhash_destroy(std::exchange(ipc->frag_table, nullptr));
}

size_t reassembly_bytes(const tav_ipc_st *ipc) { return ipc->reassembly ? ipc->reassembly->bytes() : 0; }

} // namespace tavipc
