// A leading "@" of a path template stands for the directory of the running executable.
#include "tavbase.h"

#include <climits>
#include <cstdio>
#include <string_view>

#include <unistd.h>

namespace {

// The directory of the executable, without a final slash (except for the root); "/" when it is unknown.
struct ExecutableDirectory {
    char buffer[PATH_MAX];
    std::string_view path = "/";
    bool known = false;

    ExecutableDirectory() {
        const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer);
        if (length <= 0 || static_cast<size_t>(length) == sizeof buffer) return;
        const std::string_view executable(buffer, static_cast<size_t>(length));
        const size_t slash = executable.rfind('/');
        if (slash == executable.npos) return;
        known = true;
        if (slash > 0) path = executable.substr(0, slash);
    }
};

} // namespace

int dirutils_path_transform(const char *path_template, char *out, int size) noexcept {
    if (!out || size <= 0) return -1;
    out[0] = '\0';
    if (!path_template) return -1;
    if (path_template[0] != '@') {
        const int wanted = snprintf(out, static_cast<size_t>(size), "%s", path_template);
        return wanted >= 0 && wanted < size ? 0 : -1;
    }
    const ExecutableDirectory directory;
    const int wanted =
        snprintf(out, static_cast<size_t>(size), "%.*s%s", static_cast<int>(directory.path.size()),
                 directory.path.data(), path_template + 1);
    return directory.known && wanted >= 0 && wanted < size ? 0 : -1;
}
