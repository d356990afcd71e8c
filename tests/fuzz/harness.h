// The harness of the fuzz targets: the input as a stream of numbers and texts, a check that ends the run,
// files that exist in memory only, and a zlib whose reads AddressSanitizer sees. A target defines run_input.
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

#define FUZZ_CHECK(condition) ((condition) ? void() : fuzz::fail(#condition, __FILE__, __LINE__))

namespace fuzz {

[[noreturn]] inline void fail(const char *condition, const char *file, int line) {
    std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, condition);
    std::abort();
}

class Input { // an exhausted one reads as zeros
  public:
    Input(const uint8_t *data, size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}
    bool empty() const { return rest_.empty(); }
    uint8_t u8() { return empty() ? uint8_t{} : static_cast<uint8_t>(text(1)[0]); }
    uint16_t u16() { return static_cast<uint16_t>(u8() | u8() << 8); }
    std::string rest() { return text(rest_.size()); }
    std::string text(size_t size) {
        const std::string part(rest_.substr(0, size));
        return rest_.remove_prefix(part.size()), part;
    }

  private:
    std::string_view rest_;
};

// A copy without spare capacity, so that AddressSanitizer sees a read behind it.
inline std::unique_ptr<char[]> exact(std::string_view text) {
    std::unique_ptr<char[]> copy(new char[text.size()]);
    return text.copy(copy.get(), text.size()), std::move(copy);
}
inline int memory_file(std::string_view text) { // returns a descriptor at the start of the file
    const int fd = memfd_create("fuzz", MFD_CLOEXEC);
    FUZZ_CHECK(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    return ::lseek(fd, 0, SEEK_SET), fd;
}
inline int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 64; ++fd) count += ::dup2(fd, fd) == fd;
    return count;
}

} // namespace fuzz

#define FUZZ_ZLIB(name)                                                                                      \
    extern "C" int name(Bytef *dest, uLongf *room, const Bytef *source, uLong size) {                        \
        [[maybe_unused]] static volatile Bytef last;                                                         \
        if (size > 0) last = source[size - 1];                                                               \
        return reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))(dest, room, source, size);       \
    }
FUZZ_ZLIB(compress)
FUZZ_ZLIB(uncompress)

static void run_input(fuzz::Input &in);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int before = fuzz::open_descriptors();
    fuzz::Input in(data, size);
    run_input(in);
    FUZZ_CHECK(fuzz::open_descriptors() == before);
    return 0;
}
