// Large buffers that are filled once: huge pages save most of their page faults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>

namespace tavipc {

inline constexpr size_t kHugePage = 2u << 20;

// A hint to the kernel for the whole huge pages inside the buffer; of a smaller one there are none.
inline void prefer_huge_pages(void *buffer, size_t size) {
    const auto begin = reinterpret_cast<uintptr_t>(buffer);
    const uintptr_t first = (begin + kHugePage - 1) & ~uintptr_t{kHugePage - 1};
    const uintptr_t end = (begin + size) & ~uintptr_t{kHugePage - 1};
    if (first < end) madvise(reinterpret_cast<void *>(first), end - first, MADV_HUGEPAGE);
}

} // namespace tavipc
