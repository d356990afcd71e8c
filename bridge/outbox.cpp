#include "outbox.h"

#include <new>

namespace tavbridge {
namespace {

constexpr uint64_t kAnswer_ms = 5000;  // a cluster elects a new leader in less
constexpr uint64_t kRefused_ms = 1000; // pause after a refusal: a full stream empties slowly
constexpr uint64_t kOverhead = 1000; // bytes of an entry beside its datagram: subjects, and a header's table

Message durable_message(const std::string &subject, const std::string &reply, const std::string &id,
                        std::string_view datagram) {
    natsMsg *made = nullptr;
    natsStatus status = natsMsg_Create(&made, subject.c_str(), reply.c_str(), datagram.data(),
                                       static_cast<int>(datagram.size()));
    Message message(made);
    if (status == NATS_OK) status = natsMsgHeader_Set(made, "Nats-Msg-Id", id.c_str());
    if (status != NATS_OK) throw std::bad_alloc();
    return message;
}

} // namespace

void Outbox::send(Entry &entry) {
    entry.due_ms = cl_event_loop_now() + kAnswer_ms;
    engine_.publish(entry.message.get());
}

void Outbox::add(uint64_t ticket, const std::string &subject, const std::string &id,
                 std::string_view datagram) {
    Entry entry{durable_message(subject, engine_.reply_subject(ticket), id, datagram), 0};
    const auto at = entries_.emplace(ticket, std::move(entry)).first;
    bytes_ += datagram.size() + kOverhead;
    counters_.add(kSentDurable);
    send(at->second);
}

bool Outbox::answered(uint64_t ticket, bool stored, bool before) {
    const auto at = entries_.find(ticket);
    if (at == entries_.end()) return false;
    if (!stored) {
        at->second.due_ms = cl_event_loop_now() + kRefused_ms;
        return false;
    }
    counters_.add(kStored);
    if (before) counters_.add(kDuplicates);
    bytes_ -= content(at->second.message.get()).size() + kOverhead;
    entries_.erase(at);
    return true;
}

void Outbox::resend(bool all) {
    const uint64_t now_ms = cl_event_loop_now();
    for (auto &[ticket, entry] : entries_) {
        if (!all && entry.due_ms > now_ms) continue;
        counters_.add(kRepeated);
        send(entry);
    }
}

} // namespace tavbridge
