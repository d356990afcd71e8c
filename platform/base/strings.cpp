// Bounded strings: nothing is written beyond the given size, and every text ends with a NUL.
#include "tavbase.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

namespace {

int format_bounded(char *buffer, size_t size, const char *format, va_list arguments) {
    if (!buffer || size == 0) return 0;
    buffer[0] = '\0';
    if (!format) return 0;
    size = std::min(size, static_cast<size_t>(INT_MAX));
    const int wanted = vsnprintf(buffer, size, format, arguments);
    if (wanted < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return std::min(wanted, static_cast<int>(size - 1));
}

} // namespace

int str_snprintf(char *buffer, size_t size, const char *format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    const int stored = format_bounded(buffer, size, format, arguments);
    va_end(arguments);
    return stored;
}

int str_magic_vsprintf(char *buffer, size_t size, const char *format, va_list arguments) noexcept {
    return format_bounded(buffer, size, format, arguments);
}

size_t str_strlcpy(char *destination, const char *source, size_t size) noexcept {
    const size_t length = source ? strlen(source) : 0;
    if (destination && size > 0) {
        const size_t copied = std::min(length, size - 1);
        if (copied > 0) memcpy(destination, source, copied);
        destination[copied] = '\0';
    }
    return length;
}

int str_find(const char *needle, int needle_len, const char *haystack, int haystack_len, int start) noexcept {
    if (!needle || !haystack || needle_len < 0 || start < 0 || start > haystack_len) return -1;
    if (needle_len == 0) return start;
    const void *found = memmem(haystack + start, static_cast<size_t>(haystack_len - start), needle,
                               static_cast<size_t>(needle_len));
    return found ? static_cast<int>(static_cast<const char *>(found) - haystack) : -1;
}
