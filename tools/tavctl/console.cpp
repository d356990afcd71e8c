#include "console.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iostream>

#include <sys/ioctl.h>
#include <unistd.h>

#include "problem.h"

namespace tavctl {
namespace {

std::string formatted(const char *format, double number, const char *unit) {
    char text[64];
    snprintf(text, sizeof text, format, number, unit);
    return text;
}

// Bytes of the UTF-8 sequence at the front, 0 when there is none.
size_t utf8_length(std::string_view bytes) {
    const auto at = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char first = at(0);
    const size_t length = first < 0x80                    ? 1
                          : first >= 0xC2 && first < 0xE0 ? 2
                          : first >= 0xE0 && first < 0xF0 ? 3
                          : first >= 0xF0 && first < 0xF5 ? 4
                                                          : 0;
    if (length == 0 || length > bytes.size()) return 0;
    for (size_t i = 1; i < length; ++i)
        if ((at(i) & 0xC0) != 0x80) return 0;
    if (length == 3 && ((first == 0xE0 && at(1) < 0xA0) || (first == 0xED && at(1) >= 0xA0))) return 0;
    if (length == 4 && ((first == 0xF0 && at(1) < 0x90) || (first == 0xF4 && at(1) >= 0x90))) return 0;
    return length;
}

bool is_control(std::string_view bytes, size_t length) {
    const auto first = static_cast<unsigned char>(bytes[0]);
    if (length == 1) return first < 0x20 || first == 0x7F;
    return first == 0xC2 && static_cast<unsigned char>(bytes[1]) < 0xA0; // C1 controls
}

} // namespace

Record &Record::add(const char *name, std::string_view text) {
    cJSON_AddStringToObject(object_.get(), name,
                            (is_text(text) ? std::string(text) : harmless(text)).c_str());
    return *this;
}

Record &Record::add(const char *name, double number) {
    if (!std::isfinite(number)) return add_null(name);
    char text[32];
    snprintf(text, sizeof text, "%.9g", number);
    return add_raw(name, text);
}

Record &Record::add(const char *name, const std::vector<std::string> &texts) {
    cJSON *array = cJSON_AddArrayToObject(object_.get(), name);
    for (const std::string &text : texts) cJSON_AddItemToArray(array, cJSON_CreateString(text.c_str()));
    return *this;
}

Record &Record::add_raw(const char *name, const std::string &text) {
    cJSON_AddRawToObject(object_.get(), name, text.c_str());
    return *this;
}

std::string Record::json() const {
    const std::unique_ptr<char, void (*)(void *)> text(cJSON_PrintUnformatted(object_.get()), cJSON_free);
    if (!text) throw std::bad_alloc();
    return text.get();
}

Console::Console() : terminal_(isatty(STDOUT_FILENO) != 0) {}
Console::~Console() {
    if (progress_shown_) std::cout << "\r\033[K" << std::flush;
}

void Console::write(const std::string &line) {
    if (progress_shown_) std::cout << "\r\033[K";
    progress_shown_ = false;
    std::cout << line << std::endl; // whoever reads along gets each line when it is there
}

void Console::say(const Record &record, const std::string &text) {
    if (json_)
        write(record.json());
    else if (!text.empty())
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

std::string Console::fit(const std::string &text, unsigned columns) {
    size_t characters = 0, end = text.size();
    for (size_t i = 0; i < text.size(); ++characters) {
        if (columns > 3 && characters == columns - 3) end = i;
        i += std::max<size_t>(1, utf8_length(std::string_view(text).substr(i)));
    }
    if (columns <= 3 || characters <= columns) return text;
    return text.substr(0, end) + "...";
}

void Console::finish() {
    if (progress_shown_) std::cout << "\r\033[K";
    progress_shown_ = false;
    if (!std::cout.flush())
        throw Problem("cannot write to standard output", "is the disk full, or the pipe closed?");
}

std::string grouped(uint64_t number) {
    std::string text = std::to_string(number);
    for (auto at = static_cast<int>(text.size()) - 3; at > 0; at -= 3)
        text.insert(static_cast<size_t>(at), 1, ',');
    return text;
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

std::string padded(std::string text, size_t width) {
    size_t characters = 0;
    for (size_t i = 0; i < text.size(); ++characters)
        i += std::max<size_t>(1, utf8_length(std::string_view(text).substr(i)));
    if (characters < width) text.append(width - characters, ' ');
    return text;
}

std::string clock_text() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[64];
    snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
             now.tv_nsec / 1'000'000);
    return text;
}

bool is_text(std::string_view bytes) {
    while (!bytes.empty()) {
        const size_t length = utf8_length(bytes);
        if (length == 0) return false;
        if (is_control(bytes, length) && std::string_view("\t\r\n").find(bytes[0]) == std::string_view::npos)
            return false;
        bytes.remove_prefix(length);
    }
    return true;
}

std::string harmless(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length == 0 || is_control(text, length))
            result += text[0] == '\t' || text[0] == '\n' ? text[0] : '?';
        else
            result += text.substr(0, length);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return result;
}

std::string one_line(std::string_view text) {
    std::string line = harmless(text);
    for (char &c : line)
        if (c == '\t' || c == '\n') c = '?';
    return line;
}

std::string quoted(const std::string &path) {
    if (!path.empty() && std::ranges::all_of(path, [](unsigned char c) {
            return std::isalnum(c) || c >= 0x80 ||
                   std::string_view("/._+-=@%,:").find(static_cast<char>(c)) != std::string_view::npos;
        }))
        return path;
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
