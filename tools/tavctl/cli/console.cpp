#include "cli/console.h"

#include <algorithm>
#include <cmath>
#include <iostream>

#include <sys/ioctl.h>
#include <unistd.h>

#include "cli/problem.h"

namespace tavctl {
namespace {

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

void Console::finish() {
    clear_progress();
    if (!std::cout.flush())
        throw Problem("cannot write to standard output", "is the disk full, or the pipe closed?");
}

} // namespace tavctl
