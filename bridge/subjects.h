// The engine's subjects, and who may send what to whom.
//
// A datagram travels under "tav.<domain>.<location>.<hostid or any>.<name>.<class>.<location>.<hostid>": its
// destination, its class, and the machine whose bridge sent it. The server's permissions bind the last two to
// the bridge's credentials, so a receiving bridge can compare them with the source in the header. Every token
// is checked: no wildcard, dot, blank or control character gets into a subject.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "counters.h"

namespace tavbridge {

enum class Class : char {
    kControl = 'c', // core messages, at most once: what has a time-out of its own
    kDurable = 'd', // stored until one machine has it
    kAll = 'a'      // stored until each machine of the location has it
};

struct Place {
    uint8_t location = 0;
    uint32_t hostid = 0; // 0: any machine of the location
    bool operator==(const Place &) const = default;
};

struct Subject {
    Place to;
    std::string name; // of the destination
    Class kind = Class::kControl;
    Place from;
    bool operator==(const Subject &) const = default;
};

// Whether the text is a number that fits; and nothing else.
template <typename Number> bool read_number(std::string_view text, Number &number) {
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && stop == text.data() + text.size();
}
// Whether the text can be one token of a subject.
bool is_token(std::string_view text);
// "<location>.<hostid or any>"
std::string place_text(const Place &place);
// The text for a subject whose name is a token.
std::string subject_text(std::string_view domain, const Subject &subject);
// Nothing for a text in any other form.
std::optional<Subject> parse_subject(std::string_view domain, std::string_view text);

// A bridge's own place and policy.
struct Home {
    Place place;
    bool durable = true;    // false: everything is control traffic
    bool any_to_all = true; // host id 0 means all machines of the location, else one of them
};

// Judges a datagram of a local module: kNoDrop, and the subject under which it goes out; or why it does not.
Drop judge_outgoing(const Home &home, std::string_view datagram, Subject &subject);
// Judges a datagram that came from the engine under the subject, for a local socket.
Drop judge_incoming(const Home &home, const Subject &subject, std::string_view datagram);

// Cuts the first datagram off a payload of one or more. Where its header claims more than there is, the
// result is all of the payload, which is not a good datagram.
std::string_view cut_datagram(std::string_view &payload);

// The id by which the engine recognises a datagram that it is given twice: source, message id and fragment
// number. These begin anew when a module restarts and some modules choose ids themselves, so a hash of the
// bytes and of the time when the datagram was sent (see pipe.h) are part of it, too.
std::string message_id(std::string_view datagram, std::string_view time);

// The place of a message in its stream, from the subject for its acknowledgement:
// "$JS.ACK.<stream>.<consumer>.<times delivered>.<sequence>.<sequence>.<time>.<pending>".
struct Origin {
    uint64_t key = 0; // of stream, sequence and time; 0: none
    uint64_t times = 0;
    uint64_t time_ns = 0; // when it was stored
};
Origin parse_origin(std::string_view reply);

} // namespace tavbridge
