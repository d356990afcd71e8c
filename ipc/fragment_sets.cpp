#include "ipc/fragment_sets.h"

#include <cassert>
#include <cstring>
#include <new>

namespace tavipc {
namespace {

constexpr time_t kIdleLimit_s = 10; // of a set, after its last fragment; marks last as long
// A live set without a fragment for this many seconds has stalled and is evicted first. Two, because the
// clock counts whole seconds: one second would be anything above zero.
constexpr time_t kStalled_s = 2;
// Sets and marks at one table entry: far more than honest senders begin in the same millisecond, and few
// enough to be searched for each fragment.
constexpr int kMostBeside = 256;
// Marks that are kept: a flood evicts its own messages, one mark each, and must not become memory.
constexpr size_t kMostMarks = 4096;

constexpr size_t kTableEntryBytes = 128; // entry, share of the buckets, overhead of the allocator
static_assert(sizeof(FragmentSet) + kTableEntryBytes <= FragmentSets::kSetBytes);

FragmentKey key_of(const tav_ipc_hdr_st &fragment) {
    return {fragment.src.hostid, fragment.dest.hostid, fragment.frag_id};
}

// Message ids count from 1 in every process, so two senders often use the same one.
bool is_same_message(const tav_ipc_hdr_st &one, const tav_ipc_hdr_st &other) {
    return one.reqid == other.reqid && std::strncmp(one.src.name, other.src.name, sizeof one.src.name) == 0;
}

// The header of the whole message: that of the fragment that came first, without its fragment fields.
tav_ipc_hdr_st whole_header(const tav_ipc_hdr_st &first) {
    tav_ipc_hdr_st header = first;
    header.size = first.frag_orig;
    header.frag_orig = 0;
    clear_fragment_bit(header);
    return header;
}

FragmentSet *first_with(xhash_t *table, const FragmentKey &key) {
    void *found = nullptr;
    return xhash_search(table, &key, sizeof key, &found) == 0 ? static_cast<FragmentSet *>(found) : nullptr;
}

} // namespace

bool is_expired(const FragmentSet &set, time_t now_s) { return now_s - set.last_seen > kIdleLimit_s; }

FragmentSets::~FragmentSets() { assert(live_ == 0 && marked_ == 0 && xhash_count(table_) == 0); }

FragmentSet *FragmentSets::find(const tav_ipc_hdr_st &fragment) const {
    FragmentSet *set = first_with(table_, key_of(fragment));
    while (set && !is_same_message(set->header, fragment)) set = set->beside;
    return set;
}

bool FragmentSets::is_full(const tav_ipc_hdr_st &fragment) const {
    int beside = 0;
    for (const FragmentSet *set = first_with(table_, key_of(fragment)); set; set = set->beside) ++beside;
    return beside >= kMostBeside;
}

FragmentSet *FragmentSets::create(const tav_ipc_hdr_st &fragment, time_t now_s) {
    const FragmentKey key = key_of(fragment);
    std::unique_ptr<FragmentSet> set(
        new (std::nothrow) FragmentSet{.key = key, .header = whole_header(fragment), .last_seen = now_s});
    if (!set) return nullptr;
    FragmentSet *last = first_with(table_, key);
    while (last && last->beside) last = last->beside;
    if (last)
        last->beside = set.get();
    else if (xhash_insert(table_, &key, sizeof key, set.get()) != 0)
        return nullptr;
    live_by_age_.append(*set);
    waiting_.append(*set);
    ++live_;
    return set.release();
}

void FragmentSets::refresh(FragmentSet &set, time_t now_s) {
    assert(!set.evicted);
    set.last_seen = now_s;
    waiting_.remove(set);
    waiting_.append(set);
}

std::unique_ptr<FragmentSet> FragmentSets::remove(FragmentSet &set) {
    assert(!set.buffer);
    if (set.evicted) {
        marks_.remove(set);
        --marked_;
    } else {
        live_by_age_.remove(set);
        waiting_.remove(set);
        --live_;
    }
    FragmentSet *first = first_with(table_, set.key);
    assert(first);
    if (first != &set) {
        while (first->beside != &set) first = first->beside;
        first->beside = set.beside;
    } else if (set.beside) {
        xhash_insert(table_, &set.key, sizeof set.key, set.beside); // the entry exists: this cannot fail
    } else {
        xhash_delete(table_, &set.key, sizeof set.key);
    }
    return std::unique_ptr<FragmentSet>(&set);
}

void FragmentSets::mark_evicted(FragmentSet &set, time_t now_s) {
    assert(!set.evicted && !set.buffer);
    live_by_age_.remove(set);
    waiting_.remove(set);
    --live_;
    if (marked_ == kMostMarks) remove(*marks_.oldest());
    set.evicted = true;
    set.last_seen = now_s;
    marks_.append(set);
    ++marked_;
}

// A stalled set, the longest waiting first; else the newest. So the oldest message that still gets fragments
// is completed, whatever begins after it.
FragmentSet *FragmentSets::victim(time_t now_s, const FragmentSet *except) const {
    FragmentSet *waiting = waiting_.oldest();
    if (waiting && waiting != except && now_s - waiting->last_seen >= kStalled_s) return waiting;
    FragmentSet *newest = live_by_age_.newest();
    return newest && newest == except ? newest->by_age.before : newest;
}

} // namespace tavipc
