// The content of a copy: record and header, and the words for kinds, outcomes and reasons.
#include "monitor/monitor.h"
#include "tavipc/tav_ipc_stats.h"

namespace tavctl {

const char *const kKinds[] = {"answer", "ack", "file", "probe", "request", "message"};
const char *const kOutcomeNames[] = {"hello",    "sent",    "waiting",   "dropped",
                                     "received", "refused", "incomplete"};

namespace {

// In the order in which a receiver looks at them; a datagram without any is a message.
constexpr unsigned kKindFlags[] = {IPC_FLAG_RESPONSE, IPC_FLAG_ACK,     IPC_FLAG_FILE,
                                   IPC_FLAG_PROBE,    IPC_FLAG_REQUEST, 0};

#define REASON(name, text, kind, meaning) text,
constexpr const char *kReasons[] = {TAV_IPC_STATS_VALUES(REASON)};
#undef REASON

} // namespace

const char *kind_of(const tav_ipc_hdr_st &header) {
    size_t kind = 0;
    while (kKindFlags[kind] != 0 && (header.flags & kKindFlags[kind]) == 0) ++kind;
    return kKinds[kind];
}

std::string reason_text(unsigned reason) {
    if (reason == 0 || reason >= std::size(kReasons)) return reason == 0 ? "" : std::to_string(reason);
    const std::string text = kReasons[reason];
    return text.substr(text.find('_') + 1); // without "dropped_" or "bad_", which the outcome says
}

std::string outcome_text(unsigned outcome, unsigned reason, unsigned tries) {
    std::string text = reason_text(reason);
    std::ranges::replace(text, '_', ' ');
    if (outcome == TAV_IPC_MONITOR_WAITING && tries > 0) text = "try " + std::to_string(tries);
    return kOutcomeNames[outcome] + (text.empty() ? text : ": " + text);
}

bool Copy::parse() {
    if (bytes.size() < sizeof record) return false;
    std::memcpy(&record, bytes.data(), sizeof record);
    if (record.magic != TAV_IPC_MONITOR_MAGIC || record.event > TAV_IPC_MONITOR_REFUSED ||
        record.record_size < sizeof record || record.record_size > bytes.size())
        return false;
    if (record.event == TAV_IPC_MONITOR_HELLO) record.captured = 0;
    const size_t rest = bytes.size() - record.record_size;
    if (record.captured > rest) return false;
    const size_t head = rest - record.captured;
    std::memcpy(&header, &bytes[record.record_size], std::min(head, sizeof header));
    return head <= sizeof header && (record.captured == 0 || head == sizeof header);
}

} // namespace tavctl
