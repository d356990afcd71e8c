// The SHA-256 of a file.
#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <string>

namespace tavctl {

struct FileDigest {
    std::string sha256;
    uint64_t size = 0; // bytes that were read
    int error = 0;     // errno where reading ended early, or 0
};
// Reads the file from its beginning without moving the descriptor's position. Stops early when stop is set.
FileDigest digest_of(int fd, const std::atomic<bool> &stop = false);

// The same in a thread of its own.
class BackgroundDigest {
  public:
    explicit BackgroundDigest(int fd) : digest_(std::async([this, fd] { return digest_of(fd, stop_); })) {}
    ~BackgroundDigest() { stop_ = true; } // the future waits for the thread
    BackgroundDigest(const BackgroundDigest &) = delete;
    FileDigest get() { return digest_.get(); }

  private:
    std::atomic<bool> stop_ = false;
    std::future<FileDigest> digest_;
};

} // namespace tavctl
