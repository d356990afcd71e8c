#include "subjects.h"

#include <array>
#include <cstdio>

#include "common/datagram.h"

namespace tavbridge {
namespace {

constexpr size_t kSubjectTokens = 8, kReplyTokens = 9;
using Tokens = std::array<std::string_view, kReplyTokens>;

// Splits the text at its dots. Returns how many tokens it has; those beyond the array are only counted.
size_t split(std::string_view text, Tokens &tokens) {
    for (size_t count = 0;; ++count) {
        const size_t end = std::min(text.find('.'), text.size());
        if (count < tokens.size()) tokens[count] = text.substr(0, end);
        if (end == text.size()) return count + 1;
        text.remove_prefix(end + 1);
    }
}

bool read_place(std::string_view location, std::string_view host, Place &place) {
    if (!read_number(location, place.location) || place.location == 0) return false;
    return host == "any" || (read_number(host, place.hostid) && place.hostid != 0);
}

// Whether an endpoint can have the name. The rest are the bridges' own sockets.
bool is_endpoint_name(std::string_view name) {
    return name.size() <= TAV_IPC_NAME_MAX && is_token(name) && !name.starts_with("_pr");
}

// What is wrong with the datagram itself, wherever it comes from.
Drop judge_form(std::string_view datagram, tav_ipc_hdr_st &header) {
    if (datagram.size() < tavipc::kHeaderSize) return kShort;
    header = tavipc::read_header(datagram.data());
    if (header.size > tavipc::kFragmentPayload || header.size > datagram.size() - tavipc::kHeaderSize)
        return kBadSize;
    if (tav_ipc_hdr_magic(&header) != header.magic) return kBadCheck;
    if (header.src.name[TAV_IPC_NAME_MAX] != '\0' || header.dest.name[TAV_IPC_NAME_MAX] != '\0')
        return kBadName;
    return kNoDrop;
}

} // namespace

bool is_token(std::string_view text) {
    for (const char c : text)
        if (c <= ' ' || c > '~' || c == '.' || c == '*' || c == '>' || c == '/') return false;
    return !text.empty();
}

std::string place_text(const Place &place) {
    return std::to_string(place.location) + '.' + (place.hostid ? std::to_string(place.hostid) : "any");
}

std::string subject_text(std::string_view domain, const Subject &subject) {
    return "tav." + std::string(domain) + '.' + place_text(subject.to) + '.' + subject.name + '.' +
           static_cast<char>(subject.kind) + '.' + place_text(subject.from);
}

std::optional<Subject> parse_subject(std::string_view domain, std::string_view text) {
    Tokens token;
    if (split(text, token) != kSubjectTokens || token[0] != "tav" || token[1] != domain) return {};
    Subject subject;
    if (!read_place(token[2], token[3], subject.to) || !is_endpoint_name(token[4])) return {};
    subject.name = token[4];
    if (token[5] != "c" && token[5] != "d" && token[5] != "a") return {};
    subject.kind = static_cast<Class>(token[5][0]);
    if (!read_place(token[6], token[7], subject.from) || subject.from.hostid == 0) return {};
    return subject;
}

Drop judge_outgoing(const Home &home, std::string_view datagram, Subject &subject) {
    tav_ipc_hdr_st header;
    if (const Drop bad = judge_form(datagram, header); bad != kNoDrop) return bad;
    if (!(Place{header.src.loc, header.src.hostid} == home.place)) return kForgedSource;
    subject.to = {header.dest.loc, header.dest.hostid};
    if (subject.to.location == 0 || subject.to.location == home.place.location) return kLoop;
    subject.name = tavipc::name_text(header.dest).text;
    if (!is_endpoint_name(subject.name)) return kBadName;
    subject.from = home.place;
    const bool control = !home.durable || (header.flags & IPC_FLAGS_CONTROL);
    const bool all = home.any_to_all && subject.to.hostid == 0;
    subject.kind = control ? Class::kControl : all ? Class::kAll : Class::kDurable;
    return kNoDrop;
}

Drop judge_incoming(const Home &home, const Subject &subject, std::string_view datagram) {
    if (subject.to.location != home.place.location) return kNotHere;
    if (subject.to.hostid != 0 && subject.to.hostid != home.place.hostid) return kNotHere;
    tav_ipc_hdr_st header;
    if (const Drop bad = judge_form(datagram, header); bad != kNoDrop) return bad;
    // A bridge sends nothing behind a datagram, and what waits here must not be larger.
    if (datagram.size() - tavipc::kHeaderSize != header.size) return kBadSize;
    if (!(Place{header.src.loc, header.src.hostid} == subject.from)) return kForgedSource;
    if (header.src.loc == home.place.location) return kLoop;
    if (!(Place{header.dest.loc, header.dest.hostid} == subject.to)) return kBadSubject;
    if (subject.name != tavipc::name_text(header.dest).text) return kBadSubject;
    return kNoDrop;
}

std::string_view cut_datagram(std::string_view &payload) {
    size_t size = payload.size();
    if (size >= tavipc::kHeaderSize)
        size = std::min<uint64_t>(size,
                                  uint64_t{tavipc::kHeaderSize} + tavipc::read_header(payload.data()).size);
    const std::string_view first = payload.substr(0, size);
    payload.remove_prefix(size);
    return first;
}

// libstdc++ hashes strings without a seed of the process, so a bridge that replaces a killed one, and gives
// the engine the same datagrams again, makes the same ids.
std::string message_id(std::string_view datagram, std::string_view time) {
    const tav_ipc_hdr_st header = tavipc::read_header(datagram.data());
    const unsigned fragment = tavipc::is_fragment(header) ? tavipc::fragment_sequence(header) + 1u : 0u;
    const std::hash<std::string_view> hash;
    char text[96];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u.%zx.%zx", header.src.loc, header.src.hostid, header.reqid,
                  fragment, hash(time), hash(datagram));
    return text;
}

Origin parse_origin(std::string_view reply) {
    Tokens token;
    Origin origin;
    uint64_t sequence = 0;
    if (split(reply, token) != kReplyTokens || !read_number(token[5], sequence) || sequence == 0 ||
        !read_number(token[7], origin.time_ns) || !read_number(token[4], origin.times))
        return {};
    // A bridge has two streams at most. A server that was killed may use the last sequence numbers again.
    origin.key = (sequence << 1 | token[2].ends_with("_ALL")) * 0x9E3779B97F4A7C15u ^ origin.time_ns;
    return origin;
}

} // namespace tavbridge
