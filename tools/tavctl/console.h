// What a command says: for people a line of text, for programs (--json) one JSON object a line. A command
// describes each fact once as a Record and gives the text beside it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <cjson/cJSON.h>

namespace tavctl {

// A JSON object in the making. Text that is not UTF-8 is kept out of it by the caller (see is_text).
class Record {
  public:
    Record() : object_(cJSON_CreateObject()) {}
    Record &add(const char *name, std::string_view text);
    Record &add(const char *name, const char *text) { return add(name, std::string_view(text)); }
    Record &add(const char *name, double number);
    template <class Number>
    requires std::is_integral_v<Number> Record &add(const char *name, Number number) {
        if constexpr (std::is_same_v<Number, bool>)
            return add_raw(name, number ? "true" : "false");
        else
            return add_raw(name, std::to_string(number));
    }
    Record &add_null(const char *name) { return add_raw(name, "null"); }
    Record &add(const char *name, const std::vector<std::string> &texts);
    std::string json() const;

  private:
    struct Delete {
        void operator()(cJSON *object) const { cJSON_Delete(object); }
    };
    Record &add_raw(const char *name, const std::string &text);
    std::unique_ptr<cJSON, Delete> object_;
};

class Console {
  public:
    Console();
    ~Console(); // a problem is told on a line of its own
    Console(const Console &) = delete;
    void use_json() { json_ = true; }
    bool json() const { return json_; }

    // The fact, in one of both forms; an empty text says nothing to people.
    void say(const Record &record, const std::string &text);
    // To people only: titles, blank lines, hints.
    void tell(const std::string &text);
    // A line that the next one replaces, where standard output is a terminal and people read it.
    void progress(const std::string &text);
    bool shows_progress() const { return terminal_ && !json_; }
    // Columns of the terminal; 0 where there is none, so that nothing is cut in a pipe.
    unsigned width() const;
    // The text, cut to so many columns with "..." where it is longer; 0: not cut.
    static std::string fit(const std::string &text, unsigned columns);
    // Ends the output; throws Problem when it could not be written.
    void finish();

  private:
    void write(const std::string &line);
    bool json_ = false;
    bool terminal_;
    bool progress_shown_ = false;
};

// --- texts
std::string grouped(uint64_t number);               // 65,471,999
std::string bytes_text(double bytes);               // "312 B", "64.0 kB", "1.2 GB"
std::string time_text(double seconds);              // "47 us", "1.3 ms", "2.5 s", "3 min 20 s"
std::string padded(std::string text, size_t width); // blanks behind it
std::string clock_text();                           // wall clock, "12:34:56.789"
// Whether the bytes are UTF-8 without control characters other than tab and line end.
bool is_text(std::string_view bytes);
std::string quoted(const std::string &path); // as a shell takes it
std::string hex_of(std::string_view bytes);
// Rows of 16 bytes with offset, hexadecimal and characters, each with the indent in front; at most so many
// bytes.
std::string hex_dump(std::string_view bytes, size_t limit, const std::string &indent);
// The text with what a terminal would obey replaced by "?".
std::string harmless(std::string_view text);
std::string one_line(std::string_view text); // and tabs and line ends as well

} // namespace tavctl
