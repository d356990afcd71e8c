// The directories of the agent's files. Each call of GetTAVConfPath searches for the configuration directory.
// The identity directory, which holds machineid and clone_mac, is the configuration directory if that exists,
// otherwise the directory "config" beside the executable's. GetMgrAddr reads the manager's address from two
// INI files in the configuration directory. Nothing is cached.
#pragma once

#include <cstddef>
#include <memory>

#include "tavbase.h"
#include "tavipc/tav_agentid.h"

namespace tavipc {

inline constexpr int kDirSize = 4096;          // bytes of a buffer for a directory: PATH_MAX of Linux
inline constexpr int kIdentityPathSize = 1024; // bytes of a buffer for a file there

struct IniFileFree {
    void operator()(ini_file_t *file) const noexcept { ini_file_free(file); }
};
using IniFile = std::unique_ptr<ini_file_t, IniFileFree>;

[[nodiscard]] bool path_exists(const char *path) noexcept;

// Writes the directory of the running executable: empty for an executable in "/", and "/" if it is unknown.
// Writes nothing if size is below 1.
void GetExeDir(char *out, int size) noexcept;

// Writes the identity directory, which need not exist.
void GetAgentIdDir(char *out, int size) noexcept;

} // namespace tavipc
