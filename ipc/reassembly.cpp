#include "ipc/reassembly.h"

#include <algorithm>
#include <bitset>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "common/log.h"
#include "common/out_of_memory.h"
#include "ipc/huge_pages.h"
#include "ipc/msg_trace.h"
#include "ipc/wire.h"

namespace tavipc {
namespace {

constexpr uint64_t kSweepPeriodMs = 1000;
constexpr time_t kIdleSeconds = 10;
constexpr uint32_t kPlaceable = 1024 * kFragmentPayload; // what 10 bits of sequence number can address
constexpr uint32_t kLargestClaim = UINT32_MAX - kHeaderSize;
constexpr size_t kWorthKeeping = 1u << 20;

// What unfinished messages may hold; beyond it those that waited longest for a fragment are dropped. What one
// costs is counted in touched memory: a set and the ends of its buffer, or its own mapping when the allocator
// makes one; every fragment with the page that it shares.
constexpr size_t kMostHeld = 512u << 20;
constexpr size_t kSetCost = 8u << 10;
constexpr size_t kMappedSetCost = 128u << 10;
constexpr size_t kMapped = 128u << 10; // buffers from here on are mappings, of which a process may have few
constexpr size_t kPage = 4096;

struct FragmentKey {
    uint32_t src_hostid;
    uint32_t dest_hostid;
    uint32_t frag_id;
};
static_assert(sizeof(FragmentKey) == 12);

} // namespace

struct FragmentSet {
    FragmentKey key;
    FragmentSet *older, *newer;
    size_t held;
    // Header and payload, or just the header of what can never be whole; null once taken out.
    unsigned char *buf;
    time_t last_seen;
    uint32_t expected; // payload bytes of the whole message
    uint64_t received; // payload bytes accepted, duplicates included
    size_t size;       // of buf
    std::bitset<1024> seen;
};

namespace {

bool can_be_whole(const FragmentSet &set) { return set.expected <= kPlaceable; }

void release_set(void *value) {
    auto *set = static_cast<FragmentSet *>(value);
    std::free(set->buf);
    delete set;
}

// --- what is held, and by whom

void hold(tav_ipc_st *ipc, FragmentSet &set, size_t bytes) {
    set.held += bytes;
    ipc->frag_sets.held += bytes;
}

void append(tav_ipc_st *ipc, FragmentSet &set) {
    auto &sets = ipc->frag_sets;
    set.older = std::exchange(sets.newest, &set);
    set.newer = nullptr;
    (set.older ? set.older->newer : sets.oldest) = &set;
}

void take_out(tav_ipc_st *ipc, FragmentSet &set) {
    auto &sets = ipc->frag_sets;
    (set.older ? set.older->newer : sets.oldest) = set.newer;
    (set.newer ? set.newer->older : sets.newest) = set.older;
}

void drop_set(tav_ipc_st *ipc, FragmentSet &set) {
    take_out(ipc, set);
    ipc->frag_sets.held -= set.held;
    const FragmentKey key = set.key;
    xhash_delete(ipc->frag_table, &key, sizeof key);
}

void trace_incomplete(const FragmentSet &set) {
    if (!error_output_check(4)) return;
    const tav_ipc_hdr_st header = read_header(set.buf);
    TAV_TRACE(&header, "Fragment(%d) not complete, dropped", static_cast<int>(set.key.frag_id));
}

// Drops the set that has waited longest, unless it is the one to keep. False when there is none.
bool drop_oldest(tav_ipc_st *ipc, const FragmentSet *keep) {
    FragmentSet *oldest = ipc->frag_sets.oldest;
    if (!oldest || oldest == keep) return false;
    TAV_LOG_LIMITED(2, "tav_ipc", "too many fragments wait, the oldest are dropped, %zu bytes held",
                    ipc->frag_sets.held);
    trace_incomplete(*oldest);
    drop_set(ipc, *oldest);
    return true;
}

void keep_within_bounds(tav_ipc_st *ipc, const FragmentSet &newest) {
    while (ipc->frag_sets.held > kMostHeld && drop_oldest(ipc, &newest))
        ;
}

// --- the spare buffer: its pages are there already, which is most of what a fresh one costs

unsigned char *take_buffer(tav_ipc_st *ipc, size_t wanted, size_t *size) {
    auto &spare = ipc->spare;
    if (wanted < kWorthKeeping || wanted > spare.size) {
        *size = wanted;
        void *buffer = nullptr;
        do buffer = std::malloc(wanted);
        while (!buffer && drop_oldest(ipc, nullptr));
        return static_cast<unsigned char *>(buffer);
    }
    *size = std::exchange(spare.size, 0);
    return std::exchange(spare.buffer, nullptr);
}

void drop_spare(tav_ipc_st *ipc) {
    std::free(std::exchange(ipc->spare.buffer, nullptr));
    ipc->spare.size = 0;
}

void drop_old_spare(tav_ipc_st *ipc, time_t now) {
    if (ipc->spare.buffer && now - ipc->spare.since > kIdleSeconds) drop_spare(ipc);
}

struct Sweep {
    tav_ipc_st *ipc;
    time_t now;
};

int expire_set(const void *, uint32_t, void *value, void *context) {
    auto *set = static_cast<FragmentSet *>(value);
    const auto *sweep = static_cast<Sweep *>(context);
    if (sweep->now - set->last_seen <= kIdleSeconds) return 0;
    trace_incomplete(*set);
    drop_set(sweep->ipc, *set);
    return 0;
}

void frag_expire_tick(void *argument) {
    auto *ipc = static_cast<tav_ipc_st *>(argument);
    Sweep sweep{ipc, time(nullptr)};
    xhash_walk_partial(ipc->frag_table, ipc->frag_cookie, &sweep, expire_set);
    drop_old_spare(ipc, sweep.now);
    ipc->frag_timer = cl_timer_start(kSweepPeriodMs, frag_expire_tick, ipc);
}

// Table, cookie and timer; what could not be made is tried again with the next fragment.
bool ensure_table(tav_ipc_st *ipc) {
    if (!ipc->frag_table) ipc->frag_table = xhash_create(release_set, 0);
    if (!ipc->frag_cookie) ipc->frag_cookie = xhash_cookie_create(1.0f / 60.0f);
    if (!ipc->frag_table || !ipc->frag_cookie) return false;
    if (!ipc->frag_timer) ipc->frag_timer = cl_timer_start(kSweepPeriodMs, frag_expire_tick, ipc);
    return true;
}

// The header in front of the rebuilt message: that of the fragment that came first, made whole.
tav_ipc_hdr_st rebuilt_header(const tav_ipc_hdr_st &first) {
    tav_ipc_hdr_st header = first;
    header.size = first.frag_orig;
    header.frag_orig = 0;
    clear_fragment_bit(header);
    return header;
}

FragmentSet *create_set(tav_ipc_st *ipc, const FragmentKey &key, const tav_ipc_hdr_st &header) {
    if (header.frag_orig > kLargestClaim) {
        TAV_TRACE(&header, "have integer overflow, frag orig(%d)", static_cast<int>(header.frag_orig));
        return nullptr;
    }
    auto *set = new (std::nothrow) FragmentSet{};
    if (!set) out_of_memory("tav_ipc", __LINE__);
    set->key = key;
    set->expected = header.frag_orig;
    const uint32_t payload = can_be_whole(*set) ? set->expected : 0;
    set->buf = take_buffer(ipc, size_t{kHeaderSize} + payload, &set->size);
    if (!set->buf) out_of_memory("tav_ipc", __LINE__);
    const tav_ipc_hdr_st whole = rebuilt_header(header);
    std::memcpy(set->buf, &whole, kHeaderSize);
    set->last_seen = time(nullptr);
    if (xhash_insert(ipc->frag_table, &key, sizeof key, set) != 0) out_of_memory("tav_ipc", __LINE__);
    append(ipc, *set);
    hold(ipc, *set, set->size < kMapped ? kSetCost : kMappedSetCost);
    keep_within_bounds(ipc, *set);
    return set;
}

// Does the fragment lie where its sequence number says, with the length that belongs there?
bool fits(const FragmentSet &set, const tav_ipc_hdr_st &header) {
    const uint64_t offset = uint64_t{fragment_sequence(header)} * kFragmentPayload;
    if (set.expected != header.frag_orig || set.expected < offset + header.size) {
        TAV_TRACE(&header, "Not expect frag seqno(%d), dropped", static_cast<int>(fragment_sequence(header)));
        return false;
    }
    const uint64_t rest = set.expected - offset;
    const auto wanted = static_cast<uint32_t>(rest < kFragmentPayload ? rest : kFragmentPayload);
    if (header.size != wanted) {
        TAV_TRACE(&header, "Not expect frag size(%d != %d[expected]), dropped", static_cast<int>(header.size),
                  static_cast<int>(wanted));
        return false;
    }
    return true;
}

// From its second 2 MiB on a large buffer is filled in huge pages, which saves most of the page faults. Not
// before: a set of which one fragment came shall cost no more than that fragment.
void use_huge_pages(tav_ipc_st *ipc, FragmentSet &set, uint32_t added) {
    if (set.received < kHugePage || set.received - added >= kHugePage) return;
    prefer_huge_pages(set.buf, set.size);
    if (set.held < set.size) hold(ipc, set, set.size - set.held);
}

void place(tav_ipc_st *ipc, FragmentSet &set, const tav_ipc_hdr_st &header, const unsigned char *payload) {
    const size_t sequence = fragment_sequence(header);
    std::memcpy(set.buf + kHeaderSize + sequence * kFragmentPayload, payload, header.size);
    if (!set.seen[sequence] && set.held < set.size) hold(ipc, set, header.size + kPage);
    set.seen.set(sequence);
    use_huge_pages(ipc, set, header.size);
}

// Repeated fragments count as received: what never came reads as zeros, not as what the buffer held before.
// The number of pieces seen does not tell: an empty one may lie behind the message's end.
void clear_gaps(FragmentSet &set) {
    const uint32_t count = (set.expected + kFragmentPayload - 1) / kFragmentPayload;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t offset = i * kFragmentPayload;
        const uint32_t length = std::min(kFragmentPayload, set.expected - offset);
        if (!set.seen[i]) std::memset(set.buf + kHeaderSize + offset, 0, length);
    }
}

} // namespace

Rebuilt add_fragment(tav_ipc_st *ipc, const tav_ipc_hdr_st &header, const unsigned char *payload) {
    if (!ensure_table(ipc)) return {};
    const FragmentKey key{header.src.hostid, header.dest.hostid, header.frag_id};
    void *found = nullptr;
    FragmentSet *set = xhash_search(ipc->frag_table, &key, sizeof key, &found) == 0
                           ? static_cast<FragmentSet *>(found)
                           : create_set(ipc, key, header);
    if (!set) {
        TAV_TRACE(&header, "frag_node_create fail");
        return {};
    }
    if (!fits(*set, header)) return {};

    set->received += header.size;
    if (can_be_whole(*set)) place(ipc, *set, header, payload);
    // What claims more than can be placed stays incomplete however often its pieces are repeated.
    if (set->received < set->expected || !can_be_whole(*set)) {
        set->last_seen = time(nullptr);
        take_out(ipc, *set);
        append(ipc, *set);
        keep_within_bounds(ipc, *set);
        return {};
    }
    clear_gaps(*set);
    Rebuilt message{MallocPtr<unsigned char>(std::exchange(set->buf, nullptr)), set->size};
    drop_set(ipc, *set);
    return message;
}

void keep_spare(tav_ipc_st *ipc, Rebuilt used) {
    if (ipc->closed || used.size < kWorthKeeping || used.size < ipc->spare.size) return;
    drop_spare(ipc);
    ipc->spare = {used.buffer.release(), used.size, time(nullptr)};
}

void release_fragments(tav_ipc_st *ipc) {
    drop_spare(ipc);
    xhash_destroy(ipc->frag_table);
    ipc->frag_table = nullptr;
    ipc->frag_sets = {};
    xhash_cookie_destroy(ipc->frag_cookie);
    ipc->frag_cookie = nullptr;
    cl_timer_stop(ipc->frag_timer);
    ipc->frag_timer = 0;
}

} // namespace tavipc
