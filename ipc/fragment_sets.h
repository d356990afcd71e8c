// The fragment sets of an endpoint: which messages have begun to arrive.
//
// A set is live until its message is complete, dropped or evicted. An evicted set has lost its buffer and
// stays for ten seconds as a mark: further fragments of its message are refused, because a new set could
// never be complete.
//
// Sets are found in the endpoint's table by a key of 12 bytes. Senders draw the fragment id of a message from
// the clock, so several messages may have the same key at the same time. Their sets hang at the same entry of
// the table, beside each other, and are distinguished by the sender's name and the message id.
#pragma once

#include <bitset>
#include <cstdint>
#include <ctime>
#include <memory>

#include "ipc/reassembly_buffers.h"
#include "ipc/wire.h"
#include "tavbase.h"

namespace tavipc {

struct FragmentKey {
    uint32_t src_hostid;
    uint32_t dest_hostid;
    uint32_t frag_id;
};
static_assert(sizeof(FragmentKey) == 12);

struct FragmentSet;
struct SetLinks {
    FragmentSet *before = nullptr, *behind = nullptr;
};

struct FragmentSet {
    FragmentKey key;
    tav_ipc_hdr_st header;     // of the whole message
    time_t last_seen;          // seconds; of a mark, when it was evicted
    bool evicted = false;      // a mark: it has no buffer any more
    uint64_t received = 0;     // payload bytes accepted, duplicates included
    ReassemblyBuffer buffer{}; // empty before the first accepted fragment, and if it can never be complete
    std::bitset<kMostPieces> seen{};
    FragmentSet *beside = nullptr;     // next with the same key
    SetLinks by_age{}, by_last_seen{}; // by_age: live sets alone

    uint32_t expected() const { return header.size; } // payload bytes of the whole message
    // A message that claims more than 1,024 fragments can carry stays incomplete and gets no buffer.
    bool can_be_complete() const { return expected() <= kMostPieces * kFragmentPayload; }
};

// A list through the sets' own links, oldest first. It does not own the sets.
template <SetLinks FragmentSet::*kLinks> class SetList {
  public:
    FragmentSet *oldest() const { return oldest_; }
    FragmentSet *newest() const { return newest_; }
    void append(FragmentSet &set) {
        set.*kLinks = {newest_, nullptr};
        (newest_ ? (newest_->*kLinks).behind : oldest_) = &set;
        newest_ = &set;
    }
    void remove(FragmentSet &set) {
        const SetLinks links = set.*kLinks;
        (links.before ? (links.before->*kLinks).behind : oldest_) = links.behind;
        (links.behind ? (links.behind->*kLinks).before : newest_) = links.before;
    }

  private:
    FragmentSet *oldest_ = nullptr, *newest_ = nullptr;
};

class FragmentSets {
  public:
    // What a set costs with its table entry, in bytes, without its buffer.
    static constexpr size_t kSetBytes = 1024;

    // The table holds nothing yet and lives longer.
    explicit FragmentSets(xhash_t *table) : table_(table) {}
    FragmentSets(const FragmentSets &) = delete;
    ~FragmentSets(); // all sets and marks must be gone

    // The set or mark of the fragment's message; null when there is none.
    FragmentSet *find(const tav_ipc_hdr_st &fragment) const;
    // Whether too many sets have the fragment's key for another one.
    bool is_full(const tav_ipc_hdr_st &fragment) const;
    // Makes the set of a fragment's message, which has none. Null when memory is short.
    FragmentSet *create(const tav_ipc_hdr_st &fragment, time_t now_s);
    // A fragment was accepted: the set has waited least of all now.
    void refresh(FragmentSet &set, time_t now_s);
    // Takes a set or mark out.
    std::unique_ptr<FragmentSet> remove(FragmentSet &set);
    // Makes a live set a mark. Its buffer must be gone.
    void mark_evicted(FragmentSet &set, time_t now_s);

    // Which live set, apart from one, to evict; null when there is none.
    FragmentSet *victim(time_t now_s, const FragmentSet *except) const;
    // Any set or mark; null when there is none.
    FragmentSet *any() const { return waiting_.oldest() ? waiting_.oldest() : marks_.oldest(); }
    size_t live() const { return live_; } // without the marks
    size_t bytes() const { return live_ * kSetBytes; }

  private:
    SetList<&FragmentSet::by_age> live_by_age_;
    SetList<&FragmentSet::by_last_seen> waiting_; // live sets
    SetList<&FragmentSet::by_last_seen> marks_;
    size_t live_ = 0, marked_ = 0;
    xhash_t *table_;
};

// Is the set or mark so old that it is dropped?
bool is_expired(const FragmentSet &set, time_t now_s);

} // namespace tavipc
