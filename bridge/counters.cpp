#include "counters.h"

#include "common/datagram.h"
#include "common/log.h"

namespace tavbridge {
namespace {

#define TAV_BRIDGE_TEXT(name, text, meaning) text,
constexpr const char *kCountNames[] = {TAV_BRIDGE_COUNTS(TAV_BRIDGE_TEXT)};
constexpr const char *kDropNames[] = {"", TAV_BRIDGE_DROPS(TAV_BRIDGE_TEXT)};
#undef TAV_BRIDGE_TEXT

} // namespace

void Counters::drop(Drop reason, std::string_view datagram, const char *where) {
    static tavipc::RateLimit limits[kDrops]; // one line in 5 s for each reason
    ++drops_[reason];
    if (!error_output_check(2) || !limits[reason].pass()) return;
    tav_ipc_hdr_st h{};
    if (datagram.size() >= sizeof h) h = tavipc::read_header(datagram.data());
    error_output(2, "tav_bridge", __LINE__,
                 "drop it|%s|%s|src=[%u:%s:%u]|dest=[%u:%s:%u]|reqid=%u|size=%u|total=%llu",
                 kDropNames[reason], where, h.src.hostid, tavipc::name_text(h.src).text, h.src.loc,
                 h.dest.hostid, tavipc::name_text(h.dest).text, h.dest.loc, h.reqid, h.size,
                 static_cast<unsigned long long>(drops_[reason]));
}

std::string Counters::text() const {
    std::string out;
    const auto line = [&](const char *name, uint64_t value) {
        out += std::string(name) + ' ' + std::to_string(value) + '\n';
    };
    for (int i = 0; i < kCounts; ++i) line(kCountNames[i], counts_[i]);
    for (int i = kNoDrop + 1; i < kDrops; ++i) line(kDropNames[i], drops_[i]);
    return out;
}

} // namespace tavbridge
