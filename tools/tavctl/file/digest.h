// The SHA-256 of a file.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace tavctl {

struct FileDigest {
    std::string sha256;
    uint64_t size = 0; // bytes that were read
    int error = 0;     // errno where reading ended early, or 0
};
// Reads the file from its beginning without moving the descriptor's position. Stops early when stop is set.
FileDigest digest_of(int fd, const std::atomic<bool> &stop = false);

} // namespace tavctl
