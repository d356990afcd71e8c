// Small files, read and replaced whole.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace tavctl {

inline constexpr size_t kMaxFileSize = 10'485'760; // what the library reads of a list or a signature

class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int close() { return ::close(std::exchange(fd_, -1)); }

  private:
    int fd_;
};

// Both throw Problem. limit: a longer file is refused.
std::string read_file(const std::string &path, size_t limit = kMaxFileSize);
std::string read_descriptor(int fd, const std::string &name, size_t limit);
// The same, but a pipe or device in the place of a configuration file is refused instead of waited for.
std::string read_regular_file(const std::string &path, size_t limit = kMaxFileSize);
// A file that is complete beside its place, and put there in one step: a reader sees the old file or the
// whole new one. What it replaces gives it mode and owner; mode is that of a new file.
class NewFile {
  public:
    NewFile(const std::string &path, std::string_view content, unsigned mode = 0644);
    ~NewFile();
    NewFile(const NewFile &) = delete;
    void put();

  private:
    std::string path_, temporary_;
};
void write_file(const std::string &path, std::string_view content, unsigned mode = 0644);

} // namespace tavctl
