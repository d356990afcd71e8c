#include "subjects.h"

#include <charconv>
#include <cstring>
#include <vector>

#include "common/datagram.h"

namespace tavbridge {
namespace {

constexpr size_t kTokens = 8; // of a subject; see subjects.h

template <typename Number> bool read_number(std::string_view text, Number &number) {
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && stop == text.data() + text.size();
}

bool split(std::string_view text, std::string_view (&tokens)[kTokens]) {
    for (size_t i = 0; i < kTokens; ++i) {
        const size_t dot = i + 1 < kTokens ? text.find('.') : text.size();
        if (dot == text.npos) return false;
        tokens[i] = text.substr(0, dot);
        if (!is_token(tokens[i])) return false;
        text.remove_prefix(std::min(dot + 1, text.size()));
    }
    return true;
}

std::string host_text(uint32_t hostid) { return hostid ? std::to_string(hostid) : "any"; }

bool read_place(std::string_view location, std::string_view host, Place &place) {
    if (!read_number(location, place.location) || place.location == 0) return false;
    if (host == "any") return true;
    return read_number(host, place.hostid) && place.hostid != 0;
}

// Whether an endpoint can have the name. The rest are the bridges' own sockets.
bool is_endpoint_name(std::string_view name) {
    return !name.empty() && name.size() <= TAV_IPC_NAME_MAX && is_token(name) && !name.starts_with("_pr");
}

// What is wrong with the datagram itself, wherever it comes from.
Drop judge_form(const void *datagram, uint32_t size, tav_ipc_hdr_st &header) {
    if (!datagram || size < tavipc::kHeaderSize) return kShort;
    header = tavipc::read_header(datagram);
    if (header.size > tavipc::kFragmentPayload || header.size > size - tavipc::kHeaderSize) return kBadSize;
    if (tav_ipc_hdr_magic(&header) != header.magic) return kBadCheck;
    if (header.src.name[TAV_IPC_NAME_MAX] != '\0' || header.dest.name[TAV_IPC_NAME_MAX] != '\0')
        return kBadName;
    return kNoDrop;
}

uint64_t hash(const void *data, size_t size) {
    uint64_t sum = 0x9E3779B97F4A7C15u ^ size, word;
    const auto *at = static_cast<const unsigned char *>(data);
    for (; size > 0; at += sizeof word) {
        const size_t n = std::min(size, sizeof word);
        std::memcpy(&(word = 0), at, n);
        sum = (sum ^ word) * 0xD6E8FEB86659FD93u;
        sum ^= sum >> 32;
        size -= n;
    }
    return sum;
}

} // namespace

bool is_token(std::string_view text) {
    for (const char c : text)
        if (c <= ' ' || c > '~' || c == '.' || c == '*' || c == '>' || c == '/') return false;
    return !text.empty();
}

std::string subject_text(std::string_view domain, const Subject &subject) {
    std::string text = "tav.";
    text.append(domain).append(1, '.').append(std::to_string(subject.to.location)).append(1, '.');
    text.append(host_text(subject.to.hostid)).append(1, '.').append(subject.name).append(1, '.');
    text.append(1, static_cast<char>(subject.kind)).append(1, '.');
    return text.append(std::to_string(subject.from.location))
        .append(1, '.')
        .append(host_text(subject.from.hostid));
}

std::optional<Subject> parse_subject(std::string_view domain, std::string_view text) {
    std::string_view token[kTokens];
    if (!split(text, token) || token[0] != "tav" || token[1] != domain) return {};
    Subject subject;
    if (!read_place(token[2], token[3], subject.to) || !is_endpoint_name(token[4])) return {};
    subject.name = token[4];
    if (token[5] != "c" && token[5] != "d" && token[5] != "a") return {};
    subject.kind = static_cast<Class>(token[5][0]);
    if (!read_place(token[6], token[7], subject.from) || subject.from.hostid == 0) return {};
    return subject;
}

Drop judge_outgoing(const Home &home, const void *datagram, uint32_t size, Subject &subject) {
    tav_ipc_hdr_st header;
    if (const Drop bad = judge_form(datagram, size, header); bad != kNoDrop) return bad;
    if (!(Place{header.src.loc, header.src.hostid} == home.place)) return kForgedSource;
    subject.to = {header.dest.loc, header.dest.hostid};
    if (subject.to.location == 0 || subject.to.location == home.place.location) return kLoop;
    subject.name = tavipc::name_text(header.dest).text;
    if (!is_endpoint_name(subject.name)) return kBadName;
    if (!home.reachable[subject.to.location]) return kUnknownLocation;
    subject.from = home.place;
    if (!home.durable || (header.flags & IPC_FLAGS_CONTROL))
        subject.kind = Class::kControl;
    else
        subject.kind = home.any_to_all && subject.to.hostid == 0 ? Class::kAll : Class::kDurable;
    return kNoDrop;
}

Drop judge_incoming(const Home &home, const Subject &subject, const void *datagram, uint32_t size) {
    if (subject.to.location != home.place.location) return kNotHere;
    if (subject.to.hostid != 0 && subject.to.hostid != home.place.hostid) return kNotHere;
    tav_ipc_hdr_st header;
    if (const Drop bad = judge_form(datagram, size, header); bad != kNoDrop) return bad;
    if (!(Place{header.src.loc, header.src.hostid} == subject.from)) return kForgedSource;
    if (header.src.loc == home.place.location) return kLoop;
    if (!(Place{header.dest.loc, header.dest.hostid} == subject.to)) return kBadSubject;
    if (subject.name != tavipc::name_text(header.dest).text) return kBadSubject;
    return kNoDrop;
}

std::string message_id(const void *datagram, uint32_t size, std::string_view socket) {
    const tav_ipc_hdr_st header = tavipc::read_header(datagram);
    char text[96];
    const unsigned fragment = tavipc::is_fragment(header) ? tavipc::fragment_sequence(header) + 1u : 0u;
    const int length = std::snprintf(text, sizeof text, "%u.%u.%u.%u.%016llx.%016llx", header.src.loc,
                                     header.src.hostid, header.reqid, fragment,
                                     static_cast<unsigned long long>(hash(socket.data(), socket.size())),
                                     static_cast<unsigned long long>(hash(datagram, size)));
    return {text, static_cast<size_t>(length)};
}

Origin parse_origin(std::string_view reply) {
    std::vector<std::string_view> tokens;
    for (size_t begin = 0; begin <= reply.size();) {
        const size_t dot = std::min(reply.find('.', begin), reply.size());
        tokens.push_back(reply.substr(begin, dot - begin));
        begin = dot + 1;
    }
    const size_t stream = tokens.size() == 9 ? 2 : 4;
    if (tokens.size() != 9 && tokens.size() < 11) return {};
    Origin origin;
    uint64_t sequence = 0, time = 0;
    if (!read_number(tokens[stream + 3], sequence) || !read_number(tokens[stream + 5], time)) return {};
    if (sequence == 0 || !read_number(tokens[stream + 2], origin.times)) return {};
    // A bridge has two streams at most. A server that was killed may use the last sequence numbers again.
    origin.time_ns = time;
    origin.key = (sequence << 1 | tokens[stream].ends_with("_ALL")) * 0x9E3779B97F4A7C15u ^ time;
    return origin;
}

} // namespace tavbridge
