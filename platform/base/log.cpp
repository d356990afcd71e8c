// The log: a threshold that every call site tests, and lines that go to a sink or to standard error.
//
// The threshold is unread until its first use, then a number. Without a sink, a line is one write of at most
// PIPE_BUF bytes, so lines of several processes on one pipe do not mix, and no lock is taken. With a sink,
// one mutex guards the sink, its context and the call.
//
// A thread inside the sink already holds that mutex. Lines that it writes then go to standard error, so a
// sink that logs cannot call itself. Such a line must be one of the sink's own: code that a sink's send could
// run on behalf of others asks error_output_in_sink and waits until the sink has returned.
#include "tavbase.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include <pthread.h>
#include <unistd.h>

namespace {

constexpr int kDefaultThreshold = 1;
constexpr int kLeastThreshold = -1;
constexpr int kGreatestThreshold = 4;
constexpr int kUnread = INT_MIN;
// Sizes in bytes.
constexpr size_t kMaxLine = PIPE_BUF; // a pipe takes a longer line in pieces
constexpr size_t kMaxPrefix = 128;    // time 25, level 3, source 41, line 11, process 14, with space to spare
constexpr size_t kMaxText = kMaxLine - kMaxPrefix - 1; // 1 for the line end

std::atomic<int> g_threshold{kUnread};

std::mutex g_sink_mutex;
std::atomic<error_output_sink> g_sink{nullptr}; // written under the mutex; without it only compared with null
void *g_sink_context = nullptr;
thread_local bool t_in_sink = false;

int clamp_threshold(long level) {
    return static_cast<int>(
        std::clamp(level, static_cast<long>(kLeastThreshold), static_cast<long>(kGreatestThreshold)));
}

[[gnu::noinline]] int read_threshold() {
    int level = kDefaultThreshold;
    if (const char *text = getenv("TAV_LOG_LEVEL"); text && *text) {
        char *end = nullptr;
        const long number = strtol(text, &end, 10);
        if (*end == '\0') level = clamp_threshold(number);
    }
    int expected = kUnread;
    return g_threshold.compare_exchange_strong(expected, level, std::memory_order_relaxed) ? level : expected;
}

int threshold() {
    const int level = g_threshold.load(std::memory_order_relaxed);
    return level != kUnread ? level : read_threshold();
}

// A text that was cut ends in "...", which begins at a character boundary of UTF-8.
size_t mark_cut(char *text, size_t length) {
    length -= 3;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
    memcpy(text + length, "...", 4);
    return length + 3;
}

// Formats into text (kMaxText + 1 bytes), without a line end. Control characters inside are replaced, because
// lines contain names and file contents that other processes choose.
size_t format_text(char *text, const char *format, va_list arguments) {
    int wanted = vsnprintf(text, kMaxText + 1, format, arguments);
    if (wanted < 0) wanted = snprintf(text, kMaxText + 1, "%s", format);
    size_t length = static_cast<size_t>(std::max(wanted, 0));
    if (length > kMaxText) length = mark_cut(text, kMaxText);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) text[--length] = '\0';
    for (size_t i = 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if ((c < 0x20 && c != '\t') || c == 0x7F) text[i] = '?';
    }
    return length;
}

// "2024-05-06 07:08:09.123Z L2 source:line [pid] ". Calculated here, because the C library's calendar takes a
// lock that a forked child may find locked for ever.
size_t format_prefix(char *prefix, int level, const char *source, int line) {
    using namespace std::chrono;
    const auto now = floor<milliseconds>(system_clock::now());
    const auto day = floor<days>(now);
    const year_month_day date(day);
    const hh_mm_ss time(now - day);
    const int wanted = snprintf(
        prefix, kMaxPrefix, "%04d-%02u-%02u %02d:%02d:%02d.%03dZ L%d %.40s:%d [%d] ",
        static_cast<int>(date.year()), static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()), level, source,
        line, static_cast<int>(getpid()));
    return std::min(static_cast<size_t>(std::max(wanted, 0)), kMaxPrefix - 1);
}

void write_line(const char *line, size_t length) {
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, line, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        line += written;
        length -= static_cast<size_t>(written);
    }
}

void write_stderr(int level, const char *source, int line, const char *text, size_t length) {
    char buffer[kMaxLine];
    size_t used = format_prefix(buffer, level, source, line);
    memcpy(buffer + used, text, length);
    used += length;
    buffer[used++] = '\n';
    write_line(buffer, used);
}

bool give_to_sink(int level, const char *source, int line, const char *text) {
    if (t_in_sink || !g_sink.load(std::memory_order_acquire)) return false;
    const std::lock_guard lock(g_sink_mutex);
    const error_output_sink sink = g_sink.load(std::memory_order_relaxed);
    if (!sink) return false;
    t_in_sink = true;
    sink(level, source, line, text, g_sink_context);
    t_in_sink = false;
    return true;
}

// In a forked child the lock may belong to a thread that does not exist there. The forking thread keeps its
// own.
void renew_mutex_in_child() {
    if (!t_in_sink) new (&g_sink_mutex) std::mutex;
}

} // namespace

int error_output_check(int level) noexcept { return level >= 0 && level <= threshold(); }

void error_output(int level, const char *source, int line, const char *format, ...) noexcept {
    if (!format) return;
    const int saved_errno = errno;
    if (!source) source = "-";
    char text[kMaxText + 1];
    va_list arguments;
    va_start(arguments, format);
    const size_t length = format_text(text, format, arguments);
    va_end(arguments);
    if (!give_to_sink(level, source, line, text)) write_stderr(level, source, line, text, length);
    errno = saved_errno;
}

void error_output_set_level(int level) noexcept {
    g_threshold.store(clamp_threshold(level), std::memory_order_relaxed);
}

int error_output_in_sink() noexcept { return t_in_sink ? 1 : 0; }

void error_output_set_sink(error_output_sink sink, void *context) noexcept {
    [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, renew_mutex_in_child);
    std::unique_lock lock(g_sink_mutex, std::defer_lock);
    if (!t_in_sink) lock.lock();
    g_sink_context = context;
    g_sink.store(sink, std::memory_order_release);
}
