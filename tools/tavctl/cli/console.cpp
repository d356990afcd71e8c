#include <cctype>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <cwctype>

#include <poll.h>
#include <sys/ioctl.h>

#include "cli/cli.h"

namespace tavctl {
namespace {

std::string formatted(const char *format, double number, const char *unit) {
    char text[64];
    snprintf(text, sizeof text, format, number, unit);
    return text;
}

// Calls visit with the offset and length of each character, and whether it may be shown. A byte that is not
// UTF-8 counts as a character that may not.
template <class Visit> void for_each_character(std::string_view text, Visit visit) {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t before = uselocale(utf8);
    for (size_t at = 0, length; at < text.size(); at += length) {
        wchar_t character = 0;
        mbstate_t state{};
        length = mbrtowc(&character, &text[at], text.size() - at, &state);
        const bool valid = length != 0 && length <= text.size() - at;
        if (!valid) length = 1;
        visit(at, length, valid && !iswcntrl(static_cast<wint_t>(character)));
    }
    uselocale(before);
}

std::string json_string(std::string_view text) {
    constexpr std::string_view kEscaped = "\t\n\r\"\\", kLetters = "tnr\"\\";
    std::string json = "\"";
    for (const char c : is_text(text) ? std::string(text) : harmless(text)) {
        const size_t at = kEscaped.find(c);
        json += at == kEscaped.npos ? std::string(1, c) : std::string("\\") + kLetters[at];
    }
    return json + "\"";
}

std::string json_number(double number) {
    char text[32];
    snprintf(text, sizeof text, "%.9g", number);
    return std::isfinite(number) ? text : "null";
}

} // namespace

void Record::put(const std::string &name, std::string_view text) {
    fields_.push_back({name, json_string(text), harmless(text)});
}
void Record::put(const std::string &name, double number) {
    fields_.push_back({name, json_number(number), json_number(number)});
}
void Record::put(const std::string &name, const Stamp &time) {
    fields_.push_back({name, json_string(time.rfc3339()), time.clock()});
}
void Record::put(const std::string &name, const Duration &time) {
    fields_.push_back({name, json_number(time.seconds * 1e6), time_text(time.seconds)});
}
void Record::put(const std::string &name, const std::vector<std::string> &texts) {
    std::string json;
    for (const std::string &text : texts) json += (json.empty() ? "" : ",") + json_string(text);
    fields_.push_back({name, "[" + json + "]", ""});
}

std::string Record::json() const {
    std::string json;
    for (const Field &field : fields_)
        json += (json.empty() ? "{\"" : ",\"") + field.name + "\":" + field.json;
    return json + "}";
}

std::string Record::fill(std::string_view pattern) const {
    std::string text;
    for (size_t at; (at = pattern.find('{')) != pattern.npos;) {
        const size_t end = pattern.find('}', at);
        const std::string_view key = pattern.substr(at + 1, end - at - 1),
                               name = key.substr(0, key.find(','));
        const auto field = std::ranges::find(fields_, name, &Field::name);
        const std::string value = field == fields_.end() ? "?" : field->text;
        text += pattern.substr(0, at);
        if (key.size() == name.size())
            text += value;
        else if (key.size() == name.size() + 1)
            text += grouped(std::stoull(value));
        else
            text += counted(std::stoull(value), std::string(key.substr(name.size() + 1)).c_str());
        pattern.remove_prefix(end + 1);
    }
    return text.append(pattern);
}

Console::Console(bool json) : json_(json), terminal_(isatty(STDOUT_FILENO) != 0) {}
Console::~Console() {
    clear_progress();
    std::cout.flush();
}

void Console::clear_progress() {
    if (progress_shown_) std::cout << "\r\033[K";
    progress_shown_ = false;
}

void Console::write(const std::string &line) {
    clear_progress();
    std::cout << line << std::endl; // flushed: a reader gets each line at once
}

void Console::say(const Record &record, std::string_view pattern, const std::string &more) {
    if (json_)
        write(record.json());
    else if (const std::string text = record.fill(pattern) + more; !text.empty())
        write(text);
}

void Console::tell(const std::string &text) {
    if (!json_) write(text);
}

void Console::progress(const std::string &text) {
    if (!shows_progress()) return;
    std::cout << "\r\033[K" << fit(text, width() > 0 ? width() - 1 : 0) << std::flush;
    progress_shown_ = true;
}

unsigned Console::width() const {
    winsize size{};
    if (!terminal_ || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
    return size.ws_col;
}

// Whether standard output is a pipe that nobody reads any more: the reader, head for example, has enough.
static bool output_is_not_wanted() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) > 0 && (output.revents & POLLERR);
}

void Console::finish() {
    clear_progress();
    if (!std::cout.flush() && !output_is_not_wanted())
        throw Problem("cannot write to standard output", "is the disk full?");
}

long number_of(std::string_view text) {
    if (text.empty() || text.front() == '-') return -1;
    long number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

std::string grouped(uint64_t number) {
    std::string text = std::to_string(number);
    for (auto at = static_cast<int>(text.size()) - 3; at > 0; at -= 3)
        text.insert(static_cast<size_t>(at), 1, ',');
    return text;
}

std::string counted(uint64_t number, const char *thing) {
    return grouped(number) + " " + thing + (number == 1 ? "" : "s");
}

std::string bytes_text(double bytes) {
    if (bytes < 1000) return formatted("%.0f %s", bytes, "B");
    for (const char *unit : {"kB", "MB", "GB"})
        if ((bytes /= 1000) < 999.95) return formatted("%.1f %s", bytes, unit);
    return formatted("%.1f %s", bytes / 1000, "TB");
}

std::string time_text(double seconds) {
    if (seconds < 0.9995e-3) return formatted("%.0f %s", seconds * 1e6, "us");
    if (seconds < 0.9995) return formatted("%.1f %s", seconds * 1e3, "ms");
    if (seconds < 99.5) return formatted("%.1f %s", seconds, "s");
    const auto whole = static_cast<uint64_t>(std::llround(seconds));
    return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
}

std::string age_text(double seconds) {
    if (seconds < 0) return "-"; // the clock was set back
    const auto whole = static_cast<uint64_t>(seconds);
    if (whole < 60) return std::to_string(whole) + " s";
    if (whole < 3600) return std::to_string(whole / 60) + " min";
    if (whole < 2 * 86400) return std::to_string(whole / 3600) + " h";
    return std::to_string(whole / 86400) + " d";
}

Stamp::Stamp() { clock_gettime(CLOCK_REALTIME, &time_); }

std::string Stamp::format(const char *strftime_format) const {
    tm local{};
    char text[64];
    localtime_r(&time_.tv_sec, &local);
    return std::string(text, strftime(text, sizeof text, strftime_format, &local));
}

std::string Stamp::clock() const {
    return format("%H:%M:%S") + formatted(".%03.0f%s", std::floor(double(time_.tv_nsec) / 1e6), "");
}

std::string Stamp::rfc3339() const {
    const std::string zone = format("%z"); // "+0100"
    return format("%Y-%m-%dT") + clock() + zone.substr(0, 3) + ":" + zone.substr(3);
}

std::string padded(std::string text, size_t width) {
    size_t characters = 0;
    for_each_character(text, [&](size_t, size_t, bool) { ++characters; });
    if (characters < width) text.append(width - characters, ' ');
    return text;
}

std::string fit(const std::string &text, unsigned columns) {
    size_t characters = 0, end = text.size();
    for_each_character(text, [&](size_t at, size_t, bool) {
        if (columns > 3 && characters++ == columns - 3) end = at;
    });
    if (columns <= 3 || characters <= columns) return text;
    return text.substr(0, end) + "...";
}

bool is_text(std::string_view bytes) {
    bool valid = true;
    for_each_character(bytes, [&](size_t at, size_t, bool shown) {
        valid = valid && (shown || bytes[at] == '\t' || bytes[at] == '\r' || bytes[at] == '\n');
    });
    return valid;
}

std::string harmless(std::string_view text) {
    std::string result;
    for_each_character(text, [&](size_t at, size_t length, bool shown) {
        result += shown || text[at] == '\t' || text[at] == '\n' ? text.substr(at, length) : "?";
    });
    return result;
}

std::string one_line(std::string_view text) {
    std::string line = harmless(text);
    std::ranges::replace(line, '\t', '?');
    std::ranges::replace(line, '\n', '?');
    return line;
}

std::string quoted(const std::string &path) {
    const auto is_plain = [](unsigned char c) {
        return std::isalnum(c) || c >= 0x80 ||
               std::string_view("/._+-=@%,:").find(static_cast<char>(c)) != std::string_view::npos;
    };
    if (!path.empty() && std::ranges::all_of(path, is_plain)) return path;
    std::string text = "'";
    for (const char c : path) text += c == '\'' ? "'\\''" : std::string(1, c);
    return text + "'";
}

std::string hex_of(std::string_view bytes) {
    std::string hex;
    for (const unsigned char byte : bytes) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

std::string hex_dump(std::string_view bytes, size_t limit, const std::string &indent) {
    const size_t shown = std::min(bytes.size(), limit);
    std::string dump;
    for (size_t at = 0; at < shown; at += 16) {
        const std::string_view row = bytes.substr(at, std::min<size_t>(16, shown - at));
        char offset[24];
        snprintf(offset, sizeof offset, "%06zx ", at);
        dump += (dump.empty() ? "" : "\n") + indent + offset;
        for (size_t i = 0; i < 16; ++i)
            dump += (i % 8 == 0 ? "  " : " ") + (i < row.size() ? hex_of(row.substr(i, 1)) : "  ");
        dump += "  ";
        for (const unsigned char byte : row)
            dump += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    }
    if (shown < bytes.size()) dump += "\n" + indent + "... " + grouped(bytes.size() - shown) + " bytes more";
    return dump;
}

} // namespace tavctl
