// Huge pages for large buffers that are filled once: they save most of the page faults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>

namespace tavipc {

inline constexpr size_t kHugePage = 2u << 20; // bytes, on x86-64

// Advises the kernel to use huge pages for the whole ones inside the buffer. A smaller buffer has none.
inline void prefer_huge_pages(void *buffer, size_t size) {
    const auto begin = reinterpret_cast<uintptr_t>(buffer);
    const uintptr_t first = (begin + kHugePage - 1) & ~uintptr_t{kHugePage - 1};
    const uintptr_t end = (begin + size) & ~uintptr_t{kHugePage - 1};
    if (first < end) madvise(reinterpret_cast<void *>(first), end - first, MADV_HUGEPAGE);
}

} // namespace tavipc
