// Opens files that must be regular. Opening a FIFO would block the module until another process opens the
// other end, reading from a device may never end, and opening a terminal may make it the controlling
// terminal. The type is checked on the open descriptor, so the file cannot be replaced between the check and
// its use.
#pragma once

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

#include "common/owned.h"
#include "common/unique_fd.h"

namespace tavipc {

// Returns open(path, flags, mode) with O_CLOEXEC. On failure the result is empty and errno is set: EISDIR for
// a directory, EINVAL for any other file that is not regular (ENXIO for a socket, and for a FIFO opened for
// writing that has no reader).
inline UniqueFd open_regular(const char *path, int flags, mode_t mode = 0666) noexcept {
    UniqueFd fd(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    if (!fd) return fd;
    struct stat file {};
    if (fstat(fd.get(), &file) != 0) return UniqueFd();
    if (S_ISREG(file.st_mode)) return fd;
    errno = S_ISDIR(file.st_mode) ? EISDIR : EINVAL;
    return UniqueFd();
}

// The same as a stdio stream; stdio_mode must agree with flags.
inline FilePtr open_regular_stream(const char *path, int flags, const char *stdio_mode,
                                   mode_t mode = 0666) noexcept {
    UniqueFd fd = open_regular(path, flags, mode);
    if (!fd) return nullptr;
    FilePtr stream(fdopen(fd.get(), stdio_mode));
    if (stream) fd.release();
    return stream;
}
inline FilePtr open_regular_to_read(const char *path) noexcept {
    return open_regular_stream(path, O_RDONLY, "rb");
}

} // namespace tavipc
