#include "agentid/whole_file.h"

#include <cstdio>

#include "common/log.h"
#include "common/regular_file.h"

namespace tavipc {
namespace {

// Returns the size of a file whose position is at its start, or a negative value.
long size_of(FILE *file) {
    if (std::fseek(file, 0, SEEK_END) != 0) return -1;
    const long size = std::ftell(file);
    return std::fseek(file, 0, SEEK_SET) == 0 ? size : -1;
}

bool read_exactly(FILE *file, char *buffer, size_t size) {
    for (size_t done = 0; done < size;) {
        const size_t n = std::fread(buffer + done, 1, size - done, file);
        if (n == 0) return false;
        done += n;
    }
    return true;
}

} // namespace

WholeFile read_whole_file(const char *path, long max_size) noexcept {
    if (!path || max_size < 1 || max_size > kMaxWholeFile) {
        TAV_LOG(1, "ipc_crypt", "param wrong");
        return {};
    }
    const FilePtr file = open_regular_to_read(path);
    if (!file) {
        TAV_LOG(1, "ipc_crypt", "open file %s faild", path);
        return {};
    }
    const long size = size_of(file.get());
    TAV_LOG(4, "ipc_crypt", "file %s size is %d", path, static_cast<int>(size));
    if (size < 1 || size > max_size) {
        TAV_LOG(1, "ipc_crypt", "get file size %s faild size is %d", path, static_cast<int>(size));
        return {};
    }
    WholeFile whole;
    whole.size = static_cast<size_t>(size);
    whole.bytes.reset(static_cast<char *>(std::calloc(whole.size + 1, 1)));
    if (!whole) {
        TAV_LOG(1, "ipc_crypt", "calloc failed");
        return {};
    }
    if (!read_exactly(file.get(), whole.bytes.get(), whole.size)) {
        TAV_LOG(1, "ipc_crypt", "read file %s error", path);
        return {};
    }
    return whole;
}

} // namespace tavipc
