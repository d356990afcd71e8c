// The harness of the fuzz targets: the input as a stream of numbers and texts, a check that ends the run,
// files that exist in memory only, and a zlib whose reads AddressSanitizer sees.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#define FUZZ_CHECK(condition)                                                                                \
    ((condition) ? void() : fuzz::fail("check failed: " #condition, __FILE__, __LINE__))
#define FUZZ_REAL(name) reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))

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
    uint8_t u8() { return empty() ? uint8_t{} : static_cast<uint8_t>(text(1)[0]); }
    uint16_t u16() { return static_cast<uint16_t>(u8() | u8() << 8); }
    uint32_t u32() { return u16() | uint32_t{u16()} << 16; }
    std::string rest() { return text(rest_.size()); }
    std::string text(size_t size) {
        const std::string part(rest_.substr(0, size));
        rest_.remove_prefix(part.size());
        return part;
    }

  private:
    std::string_view rest_;
};

// A copy of this very size, so that AddressSanitizer sees a read behind it.
inline std::unique_ptr<char[]> exact(std::string_view text) {
    std::unique_ptr<char[]> copy(new char[text.size()]);
    return text.copy(copy.get(), text.size()), std::move(copy);
}

// A descriptor of a file with that text, at its start.
inline int memory_file(std::string_view text) {
    const int fd = memfd_create("fuzz", MFD_CLOEXEC);
    FUZZ_CHECK(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    return ::lseek(fd, 0, SEEK_SET), fd;
}

// The number of low descriptors in use, which no input may change.
inline int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 64; ++fd) count += ::dup2(fd, fd) == fd;
    return count;
}

} // namespace fuzz

extern "C" {

int compress(Bytef *dest, uLongf *dest_len, const Bytef *source, uLong size) {
    return FUZZ_REAL(compress)(
        dest, dest_len,
        reinterpret_cast<Bytef *>(fuzz::exact({reinterpret_cast<const char *>(source), size}).get()), size);
}
int uncompress(Bytef *dest, uLongf *dest_len, const Bytef *source, uLong size) {
    return FUZZ_REAL(uncompress)(
        dest, dest_len,
        reinterpret_cast<Bytef *>(fuzz::exact({reinterpret_cast<const char *>(source), size}).get()), size);
}

} // extern "C"
