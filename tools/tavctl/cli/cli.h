// What every command uses: how it fails, what it was given, how it reads files, how it prints.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/unique_fd.h"

namespace tavctl {

namespace fs = std::filesystem;
using tavipc::UniqueFd;

// --- how a command fails: what happened, what the user may do next, and the exit status
enum Status : int {
    kSuccess = 0,
    kFailure = 1,   // failed, refused, or "no" as an answer
    kMisuse = 2,    // wrong usage
    kNoAnswer = 3,  // time-out: nobody answered
    kNotAllowed = 4 // the tool itself may not open an endpoint
};

class Problem : public std::runtime_error {
  public:
    explicit Problem(const std::string &what, std::string remedy = {}, Status status = kFailure)
        : runtime_error(what), remedy_(std::move(remedy)), status_(status) {}
    const std::string &remedy() const { return remedy_; }
    Status status() const { return status_; }

  private:
    std::string remedy_;
    Status status_;
};

inline Problem misuse(const std::string &what, const std::string &remedy = {}) {
    return Problem(what, remedy, kMisuse);
}

// Appends the text of errno.
inline Problem system_problem(const std::string &what, std::string remedy = {}) {
    const int error = errno;
    return Problem(what + ": " + strerror(error), std::move(remedy));
}

// --- standard output: a line of text for people, or with --json one JSON object per line for programs. A
// command names each fact once, as a field of a Record; the text refers to the fields.

// A point in time of the wall clock.
class Stamp {
  public:
    Stamp();
    explicit Stamp(time_t seconds, long nanoseconds = 0) : time_{seconds, nanoseconds} {}
    std::string clock() const;   // local, "12:34:56.789"
    std::string rfc3339() const; // "2026-11-23T12:34:56.789+01:00"
    std::string format(const char *strftime_format) const;

  private:
    timespec time_;
};

struct Duration { // JSON: microseconds
    double seconds;
};

class Record {
  public:
    Record() = default;
    // Names and values in turn. nullptr is null, a Stamp is RFC 3339; bytes that are not text become "?".
    template <class... Fields> explicit Record(const char *name, const Fields &...fields) {
        add(name, fields...);
    }
    template <class Value, class... Fields>
    Record &add(const std::string &name, const Value &value, const Fields &...fields) {
        put(name, value);
        if constexpr (sizeof...(fields) > 0) add(fields...);
        return *this;
    }
    std::string json() const;
    // The pattern with each "{field}" replaced by its value as people read it, "{field,}" by the number with
    // separators, and "{field,thing}" by "1 thing" or "2 things".
    std::string fill(std::string_view pattern) const;

  private:
    struct Field {
        std::string name, json, text;
    };
    void put(const std::string &name, std::string_view text);
    void put(const std::string &name, const std::vector<std::string> &texts);
    void put(const std::string &name, double number);
    void put(const std::string &name, const Stamp &time);
    void put(const std::string &name, const Duration &time);
    void put(const std::string &name, std::nullptr_t) { fields_.push_back({name, "null", "-"}); }
    template <class Value> void put(const std::string &name, const std::optional<Value> &value) {
        value ? put(name, *value) : put(name, nullptr);
    }
    template <class Number>
    requires std::is_integral_v<Number>
    void put(const std::string &name, Number number) {
        const std::string digits = std::to_string(number);
        const char *word = number ? "true" : "false";
        fields_.push_back({name, std::is_same_v<Number, bool> ? word : digits, digits});
    }
    std::vector<Field> fields_;
};

class Console {
  public:
    explicit Console(bool json);
    ~Console(); // clears the progress line, so that an error message starts on a line of its own
    Console(const Console &) = delete;

    // Writes the record, or the pattern filled from it and the text after that. An empty line is not written.
    void say(const Record &record, std::string_view pattern, const std::string &more = {});
    // Writes for people only: titles, blank lines, hints.
    void tell(const std::string &text);
    void tell_remedy(const std::string &remedy) { tell("  what to do: " + remedy); }
    // Shows a line that the next one replaces; on a terminal only.
    void progress(const std::string &text);
    bool shows_progress() const { return terminal_ && !json_; }
    // Columns of the terminal; 0 without one, so that nothing is cut in a pipe.
    unsigned width() const;
    // Ends the output. Throws Problem when it could not be written.
    void finish();

  private:
    void write(const std::string &line);
    void clear_progress();
    const bool json_, terminal_;
    bool progress_shown_ = false;
};

// --- numbers
long number_of(std::string_view text);                   // the number that is the whole text, or -1
std::string grouped(uint64_t number);                    // 65,471,999
std::string counted(uint64_t number, const char *thing); // "1 file", "2 files"
std::string bytes_text(double bytes);                    // "312 B", "64.0 kB", "1.2 GB"
std::string age_text(double seconds);                    // "5 s", "3 min", "2 d"; "-" if negative
std::string time_text(double seconds);                   // "47 us", "1.3 ms", "2.5 s", "3 min 20 s"

// --- layout
std::string padded(std::string text, size_t width);         // with blanks behind it
std::string fit(const std::string &text, unsigned columns); // cut, with "..." at the end; 0: not cut

// --- bytes from elsewhere
// Whether the bytes are UTF-8 without control characters other than tab and line end.
bool is_text(std::string_view bytes);
// The text with "?" in place of what a terminal would interpret; one_line replaces tabs and line ends too.
std::string harmless(std::string_view text);
std::string one_line(std::string_view text);
std::string quoted(const std::string &path); // for a shell
std::string hex_of(std::string_view bytes);
// At most limit bytes in rows of 16: offset, hexadecimal digits, characters.
std::string hex_dump(std::string_view bytes, size_t limit, const std::string &indent);

// --- commands, and what the command line gives for their options

class Args {
  public:
    // By the option's long name without dashes, or the argument's name. What was not given has its default,
    // or is empty or 0.
    bool has(const std::string &name) const { return values_.contains(name); }
    std::vector<std::string> all(const std::string &name) const {
        return has(name) ? values_.at(name) : std::vector<std::string>();
    }
    std::string text(const std::string &name) const { return has(name) ? values_.at(name).back() : ""; }
    uint64_t number(const std::string &name) const { return std::strtoull(text(name).c_str(), nullptr, 10); }
    double seconds(const std::string &name) const { return std::strtod(text(name).c_str(), nullptr); }
    // Whether --count ends the command after this many; 0 does not end it.
    bool count_reached(uint64_t done) const { return number("count") > 0 && done >= number("count"); }
    void set(const std::string &name, const std::string &value) { values_[name].push_back(value); }

  private:
    std::map<std::string, std::vector<std::string>> values_;
};

// One line of usage for each option or argument, and two blanks before its description:
//   -q, --quiet              a flag               NAME        an argument
//   -c, --count N:0-99=4     with range, default  [NAME]      one that may be missing
//   --key FILE!              that must be given   [NAME...]   any number of them
// N and CODE stand for whole numbers, SECONDS for a time.
using Run = int(Console &out, const Args &args); // returns the exit status, or throws Problem
struct Command {
    const char *name; // "probe", or of a group "allowlist add"
    const char *help, *usage;
    Run *run;
};

// Runs the command that the command line names. Returns the exit status, or throws Problem.
int run_command_line(std::span<const Command> commands, std::span<char *const> words);

struct Option {
    explicit Option(const std::string &line);
    std::vector<std::string> names; // "-c", "--count"; of an argument its name
    std::string key, value;         // value: "N"; empty for a flag
    std::string preset, help;       // preset: the default, empty for none
    double least = 0, most = 0;     // where they differ
    bool argument, required = false, repeated = false;
};
std::vector<Option> options_of(const char *usage);
const Option *find_option(const std::vector<Option> &options, const std::string &name); // or nullptr
extern const char kGlobalOptions[];

// --- small files, read and replaced whole
inline constexpr size_t kMaxFileSize = 10'485'760; // bytes: what the library reads of a list or a signature

// Throw Problem, also when the file is longer than limit bytes. read_regular_file refuses a pipe or device in
// the place of a configuration file instead of waiting for it.
std::string read_file(const std::string &path, size_t limit = kMaxFileSize);
std::string read_regular_file(const std::string &path, size_t limit = kMaxFileSize);
std::string read_descriptor(int fd, const std::string &name, size_t limit);
UniqueFd open_regular_file(const std::string &path);

// The paths in a directory, in no order; none of one that cannot be read.
std::vector<fs::path> files_in(const std::string &directory);

// A new file that replaces path in one step: a reader sees the old file or the whole new one. The old file's
// mode and owner are kept; mode is for a file that did not exist. Links of root and of this user are
// followed.
class NewFile {
  public:
    NewFile(const std::string &path, std::string_view content, unsigned mode = 0644);
    ~NewFile(); // removes it, if put has not renamed it
    NewFile(const NewFile &) = delete;
    void put();

  private:
    explicit NewFile(const std::string &path);
    const std::string path_, temporary_;
};
inline void write_file(const std::string &path, std::string_view content, unsigned mode = 0644) {
    NewFile(path, content, mode).put();
}

} // namespace tavctl
