#include "outbox.h"

#include "engine.h"

namespace tavbridge {
namespace {

constexpr uint64_t kAnswer_ms = 5000;  // a cluster elects a new leader in less
constexpr uint64_t kRefused_ms = 1000; // pause after a refusal: a full stream empties slowly
constexpr uint64_t kOverhead = 300;    // bytes of an entry beside its datagram

} // namespace

void Outbox::send(Entry &entry, uint64_t id, uint64_t now_ms) {
    entry.due_ms = now_ms + kAnswer_ms;
    engine_.publish_durable(entry.subject, entry.id_header, id, entry.datagram);
}

void Outbox::add(uint64_t ticket, std::string subject, std::string id_header, std::string_view datagram,
                 uint64_t now_ms) {
    entries_.push_back({std::move(subject), std::move(id_header), std::string(datagram), ticket, 0});
    bytes_ += datagram.size() + kOverhead;
    ++waiting_;
    counters_.add(kSentDurable);
    send(entries_.back(), first_ + entries_.size() - 1, now_ms);
}

void Outbox::answered(uint64_t id, bool stored, bool before) {
    if (id < first_ || id - first_ >= entries_.size()) return;
    Entry &entry = entries_[id - first_];
    if (entry.due_ms == 0) return;
    if (!stored) {
        entry.due_ms -= kAnswer_ms - kRefused_ms;
        return;
    }
    counters_.add(kStored);
    if (before) counters_.add(kDuplicates);
    bytes_ -= entry.datagram.size() + kOverhead;
    --waiting_;
    const uint64_t ticket = entry.ticket;
    entry = {};
    for (; !entries_.empty() && entries_.front().due_ms == 0; ++first_) entries_.pop_front();
    stored_(ticket);
}

void Outbox::resend(uint64_t now_ms, bool all) {
    uint64_t id = first_;
    for (Entry &entry : entries_) {
        if (entry.due_ms != 0 && (all || entry.due_ms <= now_ms)) {
            counters_.add(kRepeated);
            send(entry, id, now_ms);
        }
        ++id;
    }
}

} // namespace tavbridge
