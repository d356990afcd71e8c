#include "files.h"

#include <cerrno>
#include <fcntl.h>

#include "problem.h"

namespace tavctl {
namespace {

void write_all(int fd, std::string_view content, const std::string &path) {
    while (!content.empty()) {
        const ssize_t n = ::write(fd, content.data(), content.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw system_problem("cannot write " + path);
        content.remove_prefix(static_cast<size_t>(n));
    }
}

} // namespace

std::string read_descriptor(int fd, const std::string &name, size_t limit) {
    std::string content;
    char chunk[65536];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw system_problem("cannot read " + name);
        if (n == 0) return content;
        content.append(chunk, static_cast<size_t>(n));
        if (content.size() > limit)
            throw Problem(name + " is larger than " + std::to_string(limit) + " bytes");
    }
}

std::string read_file(const std::string &path, size_t limit) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) throw system_problem("cannot open " + path);
    return read_descriptor(file.get(), path, limit);
}

void write_file(const std::string &path, std::string_view content, unsigned mode) {
    const std::string temporary = path + ".tmp" + std::to_string(::getpid());
    ::unlink(temporary.c_str()); // a leftover of a killed run
    Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!file) throw system_problem("cannot create " + temporary);
    try {
        write_all(file.get(), content, temporary);
        if (::fsync(file.get()) != 0 || file.close() != 0) throw system_problem("cannot write " + temporary);
        if (::rename(temporary.c_str(), path.c_str()) != 0) throw system_problem("cannot replace " + path);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
}

} // namespace tavctl
