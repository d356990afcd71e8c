// INI files, parsed by libinih from a copy in memory.
//
// The file is read whole, up to a limit, and passed on line by line. A line that does not fit libinih's
// buffer is skipped, never passed in pieces: libinih gets an empty one, so that it counts the lines as we do.
// A section head that is too long opens a section that no caller can ask for, so its keys do not count as the
// previous section's.
#include "tavbase.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <ini.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/regular_file.h"

using namespace std::string_literals;

namespace {

// Section and key. A search uses views, which need no memory.
template <typename Text> using Name = std::pair<Text, Text>;

struct Before {
    using is_transparent = void;
    template <typename A, typename B> bool operator()(const Name<A> &a, const Name<B> &b) const {
        const int sections = std::string_view(a.first).compare(b.first);
        return sections != 0 ? sections < 0 : std::string_view(a.second) < std::string_view(b.second);
    }
};

} // namespace

struct ini_file {
    struct Value {
        std::string text;
        mutable bool used = false;
    };
    std::map<Name<std::string>, Value, Before> values;
    std::vector<std::string> ignored; // further lines for a key, and the first line in another form
    std::string unused;               // that was returned last
};

namespace {

constexpr size_t kMaxFile = 1 << 20;       // bytes; documented in tavbase.h
constexpr int kLineBuffer = 4096;          // bytes; the default of 200 is too short for a path as a value
constexpr size_t kMaxSectionHead = 49 + 2; // bytes; libinih keeps 49 of a section name
constexpr std::string_view kUnreachableSection = "[\x01]";

// Reads a regular file into text. Returns 0 or an errno value.
int read_file(const char *path, std::string &text) {
    const tavipc::UniqueFd file = tavipc::open_regular(path, O_RDONLY);
    if (!file) return errno;
    struct stat status;
    if (fstat(file.get(), &status) != 0) return errno;
    if (status.st_size > static_cast<off_t>(kMaxFile)) return EFBIG;
    char block[16384];
    for (;;) { // to the end, not to the size: it is 0 for files of /proc, and a file may be growing
        const ssize_t got = read(file.get(), block, sizeof block);
        if (got == 0) return 0;
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        text.append(block, static_cast<size_t>(got));
        if (text.size() > kMaxFile) return EFBIG;
    }
}

// Gives libinih one whole line at a time, each with a line end.
class LineReader {
  public:
    explicit LineReader(std::string_view text) : rest_(text) {
        if (rest_.starts_with("\xEF\xBB\xBF")) rest_.remove_prefix(3);
    }

    static char *next(char *buffer, int size, void *self) {
        return static_cast<LineReader *>(self)->next(buffer, static_cast<size_t>(size));
    }
    int first_skipped() const { return first_skipped_; } // the number of the line, or 0

  private:
    char *next(char *buffer, size_t size) {
        if (rest_.empty()) return nullptr;
        const std::string_view whole = take_line(), line = usable(whole, size);
        ++taken_;
        if (line.empty() && !whole.empty() && first_skipped_ == 0) first_skipped_ = taken_;
        line.copy(buffer, line.size());
        memcpy(buffer + line.size(), "\n", 2);
        return buffer;
    }

    std::string_view take_line() {
        const size_t end = rest_.find('\n');
        std::string_view line = rest_.substr(0, end);
        rest_.remove_prefix(end == rest_.npos ? rest_.size() : end + 1);
        // libinih treats an indented line as a continuation of the previous value.
        line.remove_prefix(std::min(line.find_first_not_of(" \t\r\v\f"), line.size()));
        return line;
    }

    // Returns the line, the unreachable section in its place, or nothing.
    static std::string_view usable(std::string_view line, size_t size) {
        const bool fits = line.size() + 2 <= size && line.find('\0') == line.npos;
        if (line.starts_with('[')) {
            const size_t head = line.find(']');
            if (head != line.npos && (!fits || head + 1 > kMaxSectionHead)) return kUnreachableSection;
        }
        return fits ? line : std::string_view();
    }

    std::string_view rest_;
    int taken_ = 0, first_skipped_ = 0;
};

struct Loading {
    ini_file_t *file;
    bool out_of_memory = false;

    static int keep(void *self, const char *section, const char *name, const char *value) {
        auto *loading = static_cast<Loading *>(self);
        if (!name || !value) return 1;
        try {
            if (!loading->file->values.try_emplace({section, name}, ini_file::Value{value}).second)
                loading->file->ignored.push_back("a second ["s + section + "] " + name);
        } catch (const std::exception &) {
            loading->out_of_memory = true; // an exception must not pass the C frames of the parser
        }
        return 1;
    }
};

// Raises libinih's limit, but keeps a larger one that the program has set.
void allow_long_lines() {
    static std::once_flag once;
    std::call_once(once, [] { ini_max_line = std::max(ini_max_line, kLineBuffer); });
}

ini_file_t *fail(int error) {
    errno = error;
    return nullptr;
}

} // namespace

ini_file_t *ini_file_load(const char *path) noexcept {
    if (!path) return fail(EINVAL);
    try {
        std::string text;
        if (const int error = read_file(path, text); error != 0) return fail(error);
        allow_long_lines();
        auto file = std::make_unique<ini_file>();
        LineReader lines(text);
        Loading loading{file.get()};
        const int result = ini_parse_stream(LineReader::next, &lines, Loading::keep, &loading);
        if (loading.out_of_memory || result == -2) return fail(ENOMEM);
        const int skipped = lines.first_skipped(); // result: the first line that libinih does not understand
        const int odd = result > 0 && skipped > 0 ? std::min(result, skipped) : std::max(result, skipped);
        if (odd > 0) file->ignored.push_back("line " + std::to_string(odd));
        return file.release();
    } catch (const std::exception &) {
        return fail(ENOMEM);
    }
}

const char *ini_file_get(const ini_file_t *file, const char *section, const char *key) noexcept {
    if (!file || !section || !key) return nullptr;
    const auto found = file->values.find(Name<std::string_view>(section, key));
    if (found == file->values.end()) return nullptr;
    found->second.used = true;
    return found->second.text.c_str();
}

const char *ini_file_next_unused(ini_file_t *file) noexcept try {
    if (!file) return nullptr;
    const auto unused = [](const auto &entry) { return !entry.second.used; };
    const auto found = std::find_if(file->values.begin(), file->values.end(), unused);
    if (found == file->values.end()) {
        if (file->ignored.empty()) return nullptr;
        file->unused = std::move(file->ignored.back());
        file->ignored.pop_back();
        return file->unused.c_str();
    }
    file->unused = '[' + found->first.first + "] " + found->first.second;
    found->second.used = true;
    return file->unused.c_str();
} catch (const std::bad_alloc &) {
    return fail(ENOMEM), nullptr;
}

void ini_file_free(ini_file_t *file) noexcept { delete file; }
