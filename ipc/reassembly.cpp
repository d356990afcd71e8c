#include "ipc/reassembly.h"

#include <algorithm>
#include <bitset>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "ipc/huge_pages.h"
#include "ipc/log.h"
#include "ipc/msg_trace.h"
#include "ipc/out_of_memory.h"
#include "ipc/wire.h"

namespace tavipc {
namespace {

constexpr uint64_t kSweepPeriodMs = 1000;
constexpr time_t kIdleSeconds = 10;
constexpr uint32_t kPlaceable = 1024 * kFragmentPayload; // what 10 bits of sequence number can address
constexpr uint32_t kLargestClaim = UINT32_MAX - kHeaderSize;
constexpr size_t kWorthKeeping = 1u << 20;

struct FragmentKey {
    uint32_t src_hostid;
    uint32_t dest_hostid;
    uint32_t frag_id;
};
static_assert(sizeof(FragmentKey) == 12);

struct FragmentSet {
    unsigned char *buf; // 60 + payload bytes; null once the message was taken out
    time_t last_seen;
    uint32_t frag_id;
    uint32_t expected; // payload bytes of the whole message
    uint64_t received; // payload bytes accepted, duplicates included
    size_t size;       // of buf
    std::bitset<1024> seen;
};

uint32_t placeable(const FragmentSet &set) { return set.expected < kPlaceable ? set.expected : kPlaceable; }

void release_set(void *value) {
    auto *set = static_cast<FragmentSet *>(value);
    std::free(set->buf);
    delete set;
}

// --- the spare buffer: its pages are there already, which is most of what a fresh one costs

unsigned char *take_buffer(tav_ipc_st *ipc, size_t wanted, size_t *size) {
    auto &spare = ipc->spare;
    if (wanted < kWorthKeeping || wanted > spare.size) {
        *size = wanted;
        return static_cast<unsigned char *>(std::malloc(wanted));
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

int expire_set(const void *key, uint32_t key_len, void *value, void *context) {
    const auto *set = static_cast<FragmentSet *>(value);
    const auto *sweep = static_cast<Sweep *>(context);
    if (sweep->now - set->last_seen <= kIdleSeconds) return 0;
    if (set->buf && error_output_check(4)) {
        const tav_ipc_hdr_st header = read_header(set->buf);
        TAV_TRACE(&header, "Fragment(%d) not complete, dropped", static_cast<int>(header.frag_id));
    }
    xhash_delete(sweep->ipc->frag_table, key, key_len);
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
    set->frag_id = header.frag_id;
    set->expected = header.frag_orig;
    set->buf = take_buffer(ipc, size_t{kHeaderSize} + placeable(*set), &set->size);
    if (!set->buf) out_of_memory("tav_ipc", __LINE__);
    const tav_ipc_hdr_st whole = rebuilt_header(header);
    std::memcpy(set->buf, &whole, kHeaderSize);
    set->last_seen = time(nullptr);
    if (xhash_insert(ipc->frag_table, &key, sizeof key, set) != 0) out_of_memory("tav_ipc", __LINE__);
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
void use_huge_pages(const FragmentSet &set, uint32_t added) {
    if (set.received < kHugePage || set.received - added >= kHugePage) return;
    prefer_huge_pages(set.buf, kHeaderSize + placeable(set));
}

// Repeated fragments count as received: what never came reads as zeros, not as what the buffer held before.
void clear_gaps(FragmentSet &set) {
    const uint32_t count = (set.expected + kFragmentPayload - 1) / kFragmentPayload;
    if (set.seen.count() == count) return;
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

    const size_t offset = size_t{fragment_sequence(header)} * kFragmentPayload;
    std::memcpy(set->buf + kHeaderSize + offset, payload, header.size);
    set->received += header.size;
    set->seen.set(fragment_sequence(header));
    use_huge_pages(*set, header.size);
    // A set that claims more than can be placed stays incomplete however often its pieces are repeated.
    if (set->received < set->expected || set->expected > kPlaceable) {
        set->last_seen = time(nullptr);
        return {};
    }
    clear_gaps(*set);
    Rebuilt message{MallocPtr<unsigned char>(std::exchange(set->buf, nullptr)), set->size};
    xhash_delete(ipc->frag_table, &key, sizeof key);
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
    xhash_cookie_destroy(ipc->frag_cookie);
    ipc->frag_cookie = nullptr;
    cl_timer_stop(ipc->frag_timer);
    ipc->frag_timer = 0;
}

} // namespace tavipc
