// What the fuzz targets share: the input as a stream of small numbers and texts, a check that ends the run,
// and files that exist in memory alone.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

#define FUZZ_CHECK(condition)                                                                                \
    ((condition) ? void() : fuzz::fail("check failed: " #condition, __FILE__, __LINE__))

namespace fuzz {

[[noreturn]] inline void fail(const char *what, const char *file, int line) {
    std::fprintf(stderr, "%s:%d: %s\n", file, line, what);
    std::abort();
}

// An exhausted input reads as zeros.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}

    bool empty() const { return rest_.empty(); }
    uint8_t u8() {
        const std::string_view byte = view(1);
        return byte.empty() ? uint8_t{} : static_cast<uint8_t>(byte[0]);
    }
    uint16_t u16() { return static_cast<uint16_t>(u8() | u8() << 8); }
    uint32_t u32() { return u16() | uint32_t{u16()} << 16; }
    std::string text(size_t size) { return std::string(view(size)); }
    std::string rest() { return text(rest_.size()); }

  private:
    std::string_view view(size_t size) {
        const std::string_view part = rest_.substr(0, size);
        rest_.remove_prefix(part.size());
        return part;
    }
    std::string_view rest_;
};

// A descriptor of a file with that text, at its start.
inline int memory_file(std::string_view text) {
    const int fd = memfd_create("fuzz", MFD_CLOEXEC);
    FUZZ_CHECK(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    FUZZ_CHECK(::lseek(fd, 0, SEEK_SET) == 0);
    return fd;
}

// How many of the lower descriptors are in use: the same before and after an input.
inline int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 64; ++fd) count += ::dup2(fd, fd) == fd;
    return count;
}

} // namespace fuzz
