// Socket files. The path is composed for every message that is sent, so without printf.
#include "ipc/unix_socket.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "common/facts.h"
#include "common/log.h"
#include "ipc/wire.h"
#include "tavaux.h"
#include "tavipc/ipc_queue.h"

namespace tavipc {
namespace {

constexpr size_t kPathSize = 4096;

class PathWriter {
  public:
    PathWriter(char *out, size_t size) : at_(out), room_(size) {}

    void append(std::string_view text) {
        const size_t n = std::min(text.size(), room_ - 1);
        complete_ = complete_ && n == text.size();
        std::memcpy(at_, text.data(), n);
        at_ += n;
        room_ -= n;
    }
    void append(int32_t number) {
        char digits[12];
        append(std::string_view(digits, std::to_chars(digits, digits + sizeof digits, number).ptr - digits));
    }
    bool finish() {
        *at_ = '\0';
        return complete_;
    }

  private:
    char *at_;
    size_t room_; // with the terminator's byte, so never 0
    bool complete_ = true;
};

} // namespace

bool socket_path(char *out, size_t size, int32_t location, const char *name) {
    if (!out || size == 0) return false;
    PathWriter path(out, size);
    path.append(kSocketRoot);
    if (const char *type = GetDeployTypeStr()) {
        path.append(type);
        path.append("/");
    }
    path.append(kSocketDirectory);
    path.append(location);
    path.append("/");
    if (name) path.append(name);
    return path.finish() && name && *name && is_path_safe(name);
}

} // namespace tavipc

extern "C" {

cl_dunix_t create_unix_socket(int32_t location, const char *name) noexcept {
    char path[tavipc::kPathSize];
    cl_sockaddr_t address;
    cl_dunix_t socket = 0;
    if (tavipc::socket_path(path, sizeof path, location, name) && cl_sockaddr_un_init(&address, path) == 0)
        socket = cl_dunix_create(&address, nullptr, nullptr);
    if (!socket) {
        TAV_LOG_LIMITED(2, "ipc_queue", "fail to create ipc retry socket: %s", path);
        return 0;
    }
    TAV_LOG(4, "ipc_queue", "success to create ipc retry socket: %s", path);
    return socket;
}

void destroy_unix_socket(cl_dunix_t socket) noexcept {
    if (socket) cl_dunix_close(socket, nullptr, nullptr);
}

} // extern "C"
