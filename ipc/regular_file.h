// fopen, for reading, of what may only be a regular file: a FIFO would block the module for ever, a device
// might never end. Null with errno set otherwise (EISDIR or EINVAL for what is no regular file).
#pragma once

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>

namespace tavipc {

inline FILE *open_regular(const char *path) {
    struct stat file {};
    if (stat(path, &file) == 0 && !S_ISREG(file.st_mode)) {
        errno = S_ISDIR(file.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    return std::fopen(path, "rbe");
}

} // namespace tavipc
