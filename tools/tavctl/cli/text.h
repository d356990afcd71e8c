// Texts for people: numbers, times, and bytes that are safe to show.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace tavctl {

// --- numbers
long number_of(std::string_view text);                   // the number that is the whole text, or -1
std::string grouped(uint64_t number);                    // 65,471,999
std::string counted(uint64_t number, const char *thing); // "1 file", "2 files"
std::string bytes_text(double bytes);                    // "312 B", "64.0 kB", "1.2 GB"
std::string time_text(double seconds);                   // "47 us", "1.3 ms", "2.5 s", "3 min 20 s"

// A point in time of the wall clock.
class Stamp {
  public:
    Stamp();
    explicit Stamp(time_t seconds) : time_{seconds, 0} {}
    std::string clock() const;   // local, "12:34:56.789"
    std::string rfc3339() const; // "2026-11-23T12:34:56.789+01:00"
    std::string format(const char *strftime_format) const;

  private:
    timespec time_;
};

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

} // namespace tavctl
