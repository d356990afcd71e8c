// Reads whole files, for the allow-list.
#pragma once

#include <cstddef>

#include "common/owned.h"

namespace tavipc {

inline constexpr long kMaxWholeFile = 10'485'760; // bytes; more than any allow-list has

// The bytes of a file, followed by a NUL. Null if the file could not be read.
struct WholeFile {
    MallocPtr<char> bytes;
    size_t size = 0;

    explicit operator bool() const { return bytes != nullptr; }
    const char *text() const { return bytes.get(); }
};

// Reads a file of 1 to max_size bytes (max_size: 1 to kMaxWholeFile). Logs the reason of a failure.
[[nodiscard]] WholeFile read_whole_file(const char *path, long max_size) noexcept;

} // namespace tavipc
