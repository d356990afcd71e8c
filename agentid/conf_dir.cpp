#include "agentid/conf_dir.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "common/log.h"

namespace tavipc {
namespace {

constexpr size_t kCandidateSize = 1024; // bytes; longer candidates are cut, and do not exist
constexpr unsigned short kDefaultMgrPort = 8083;

// Results of GetMgrAddr that are not an errno.
constexpr int kBadArgument = 6;
constexpr int kUnresolved = 14;

// The second half of GetMgrAddr, after both files were loaded.
int read_mgr_addr(const ini_file_t *server, const ini_file_t *server_port, char *ip, int ip_size,
                  unsigned short *port) noexcept {
    const char *address = ini_file_get(server, "config", "addr");
    if (!address) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "get mgr address failed with error code: %d\n", error);
        return error;
    }
    char resolved[64] = ""; // the resolver takes no size, so it does not get the caller's buffer
    if (get_ipaddr_by_host(address, resolved) == 0) {
        TAV_LOG(2, "tav_agentid", "get mgr ip by address failed");
        return kUnresolved;
    }
    str_strlcpy(ip, resolved, static_cast<size_t>(ip_size));
    *port = kDefaultMgrPort;
    const char *text = ini_file_get(server_port, "port", "ipc");
    if (!text) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "get mgr ipc port failed with error code: %d\n", error);
        return error;
    }
    *port = static_cast<unsigned short>(strtol(text, nullptr, 10));
    return 0;
}

} // namespace

bool path_exists(const char *path) noexcept { return access(path, F_OK) == 0; }

void GetExeDir(char *out, int size) noexcept {
    if (!out || size < 1) return;
    const ssize_t length = readlink("/proc/self/exe", out, static_cast<size_t>(size) - 1);
    out[length > 0 ? length : 0] = '\0';
    if (char *slash = strrchr(out, '/'))
        *slash = '\0';
    else
        str_strlcpy(out, "/", static_cast<size_t>(size));
}

void GetAgentIdDir(char *out, int size) noexcept {
    if (!out || size < 1) return;
    GetTAVConfPath(out, size);
    if (path_exists(out)) return;
    char exe_dir[kDirSize];
    GetExeDir(exe_dir, sizeof exe_dir);
    if (exe_dir[0] != '\0') str_snprintf(out, static_cast<size_t>(size), "%s/../config", exe_dir);
}

} // namespace tavipc

using namespace tavipc;

void GetTAVConfPath(char *out, int size) noexcept {
    if (!out || size < 1) return;
    const auto out_size = static_cast<size_t>(size);
    char candidate[kCandidateSize];
    if (const char *root = getenv("TAV_INSTALL_ROOT")) {
        str_snprintf(candidate, sizeof candidate, "%s/config", root);
        if (path_exists(candidate)) {
            str_strlcpy(out, candidate, out_size);
            return;
        }
    }
    char by_default[kCandidateSize] = "";
    dirutils_path_transform("@/../config", by_default, sizeof by_default);
    if (!path_exists(by_default)) {
        char base[kDirSize] = "";
        dirutils_path_transform("@", base, sizeof base);
        if (char *bin = strstr(base, "bin")) {
            *bin = '\0';
            str_snprintf(candidate, sizeof candidate, "%sconfig", base);
            if (path_exists(candidate)) {
                str_strlcpy(out, candidate, out_size);
                return;
            }
        }
    }
    str_strlcpy(out, by_default, out_size);
}

int GetMgrAddr(char *ip, int ip_size, unsigned short *port) noexcept {
    if (!ip || ip_size < 1 || !port) {
        TAV_LOG(2, "tav_agentid", "input ipBuf or port ptr error with error code : %d\n", kBadArgument);
        return kBadArgument;
    }
    char dir[kDirSize];
    GetTAVConfPath(dir, sizeof dir);
    char path[kDirSize + 32];
    str_snprintf(path, sizeof path, "%s/server.ini", dir);
    const IniFile server(ini_file_load(path));
    if (!server) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "load server.ini failed with error code: %d\n", error);
        return error;
    }
    str_snprintf(path, sizeof path, "%s/server_port.ini", dir);
    const IniFile server_port(ini_file_load(path));
    if (!server_port) {
        const int error = errno;
        TAV_LOG(2, "tav_agentid", "load server_port.ini failed with error code : %d\n", error);
        return error;
    }
    return read_mgr_addr(server.get(), server_port.get(), ip, ip_size, port);
}
