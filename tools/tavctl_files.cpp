#include "tavctl.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace tavctl {
namespace {

[[noreturn]] void throw_errno(const std::string &what) {
    const int error = errno;
    throw Error(what + ": " + strerror(error));
}

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }
    int close() { return ::close(std::exchange(fd_, -1)); }

  private:
    int fd_;
};

void write_all(int fd, std::string_view content, const std::string &path) {
    while (!content.empty()) {
        const ssize_t n = ::write(fd, content.data(), content.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw_errno("cannot write " + path);
        content.remove_prefix(static_cast<size_t>(n));
    }
}

} // namespace

std::string read_file(const std::string &path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) throw_errno("cannot open " + path);
    std::string content;
    char chunk[65536];
    for (;;) {
        const ssize_t n = ::read(file.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw_errno("cannot read " + path);
        if (n == 0) return content;
        content.append(chunk, static_cast<size_t>(n));
        if (content.size() > kMaxFileSize) throw Error(path + " is larger than 10 MiB");
    }
}

void write_file(const std::string &path, std::string_view content, unsigned mode) {
    const std::string temporary = path + ".tmp" + std::to_string(::getpid());
    ::unlink(temporary.c_str()); // a leftover of a killed run
    Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (file.get() < 0) throw_errno("cannot create " + temporary);
    try {
        write_all(file.get(), content, temporary);
        if (::fsync(file.get()) != 0 || file.close() != 0) throw_errno("cannot write " + temporary);
        if (::rename(temporary.c_str(), path.c_str()) != 0) throw_errno("cannot replace " + path);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
}

} // namespace tavctl
