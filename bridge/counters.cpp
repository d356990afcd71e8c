#include "counters.h"

#include "common/datagram.h"
#include "common/log.h"

namespace tavbridge {
namespace {

#define TAV_BRIDGE_TEXT(name, text, meaning) text,
constexpr const char *kNames[] = {TAV_BRIDGE_COUNTERS(TAV_BRIDGE_TEXT)};
#undef TAV_BRIDGE_TEXT

} // namespace

void Counters::drop(Drop reason, std::string_view datagram, const char *where) {
    static tavipc::RateLimit limits[kCounters]; // one line in 5 s for each reason
    ++counts_[reason];
    if (!error_output_check(2) || !limits[reason].pass()) return;
    tav_ipc_hdr_st h{};
    if (datagram.size() >= sizeof h) h = tavipc::read_header(datagram.data());
    error_output(2, "tav_bridge", __LINE__,
                 "drop it|%s|%s|src=[%u:%s:%u]|dest=[%u:%s:%u]|reqid=%u|size=%u|total=%llu", kNames[reason],
                 where, h.src.hostid, tavipc::name_text(h.src).text, h.src.loc, h.dest.hostid,
                 tavipc::name_text(h.dest).text, h.dest.loc, h.reqid, h.size,
                 static_cast<unsigned long long>(counts_[reason]));
}

std::string Counters::text() const {
    std::string text;
    for (size_t i = 0; i < kCounters; ++i) text += kNames[i] + (' ' + std::to_string(counts_[i])) + '\n';
    return text;
}

} // namespace tavbridge
