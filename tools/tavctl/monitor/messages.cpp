// One set for each fragmented message that a process sends or receives, from the first copy of a fragment on.
#include <cstddef>

#include "module/module.h"
#include "monitor/monitor.h"

namespace tavctl {
namespace {

constexpr double kQuiet_s = 10;   // a receiver gives up an unfinished message after the same time
constexpr size_t kMostSets = 256; // bounds memory; the oldest set is then reported as incomplete

// The same for all copies of one message that a module sends, and for those that it receives. The header
// begins with both addresses and the message id.
std::string key_of(const Copy &copy) {
    const char *header = reinterpret_cast<const char *>(&copy.header);
    const bool outgoing = copy.record.event <= TAV_IPC_MONITOR_DROPPED;
    return std::string(header, offsetof(tav_ipc_hdr_st, flags)) + (outgoing ? '>' : '<') +
           std::string(copy.record.endpoint, sizeof copy.record.endpoint) + std::to_string(copy.process);
}

} // namespace

void Messages::add(const Copy &copy) {
    const uint64_t fragments =
        (uint64_t{copy.header.frag_orig} + TAV_IPC_FRAGMENT_PAYLOAD - 1) / TAV_IPC_FRAGMENT_PAYLOAD;
    Message message{copy.record,
                    copy.header,
                    copy.process,
                    copy.record.event,
                    copy.record.reason,
                    copy.record.tries,
                    1,
                    1,
                    copy.header.size,
                    std::string(copy.payload())};
    if (!copy.is_fragment() || fragments > 1023 || copy.sequence() >= fragments) return report_(message);
    message.fragments = static_cast<unsigned>(fragments);
    message.size = copy.header.frag_orig;
    // What is refused belongs to no message.
    if (message.outcome == TAV_IPC_MONITOR_REFUSED) return report_(message);
    if (sets_.size() >= kMostSets && !sets_.contains(key_of(copy)))
        give_up(
            std::ranges::min_element(sets_, {}, [](const auto &entry) { return entry.second.changed_s; }));
    const auto entry = sets_.try_emplace(key_of(copy), Set{message, {}}).first;
    Set &set = entry->second;
    set.changed_s = now_seconds();
    message.seen = static_cast<unsigned>(set.seen.count());
    if (message.outcome == TAV_IPC_MONITOR_WAITING) {
        if (!std::exchange(set.waiting, true)) report_(message);
        return;
    }
    set.seen.set(copy.sequence());
    message.seen = static_cast<unsigned>(set.seen.count());
    if (set.message.outcome == TAV_IPC_MONITOR_DROPPED) // one dropped fragment decides
        message.outcome = TAV_IPC_MONITOR_DROPPED, message.reason = set.message.reason;
    if (copy.sequence() != 0) message.payload = std::move(set.message.payload);
    set.message = std::move(message);
    if (set.message.seen < fragments) return;
    report_(set.message);
    sets_.erase(entry);
}

Messages::Sets::iterator Messages::give_up(Sets::iterator entry) {
    Message &message = entry->second.message;
    if (message.outcome != TAV_IPC_MONITOR_DROPPED) message.outcome = kIncomplete, message.reason = 0;
    message.seen = static_cast<unsigned>(entry->second.seen.count());
    report_(message);
    return sets_.erase(entry);
}

void Messages::expire(double now_s) {
    for (auto entry = sets_.begin(); entry != sets_.end();)
        entry = now_s - entry->second.changed_s > kQuiet_s ? give_up(entry) : std::next(entry);
}

} // namespace tavctl
