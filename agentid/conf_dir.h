// Where the agent's files lie. The configuration directory is found anew on every call (GetTAVConfPath); the
// identity directory, which holds machineid and clone_mac, is the configuration directory when that exists
// and else the config directory beside the executable's. The manager's address is read from two INI files in
// the configuration directory (GetMgrAddr). Nothing is cached.
#pragma once

#include <cstddef>
#include <memory>

#include "tavbase.h"
#include "tavipc/tav_agentid.h"

namespace tavipc {

inline constexpr int kDirSize = 4096;          // buffer for a directory
inline constexpr int kIdentityPathSize = 1024; // buffer for a file of the identity directory

struct IniFileFree {
    void operator()(ini_file_t *file) const noexcept { ini_file_free(file); }
};
using IniFile = std::unique_ptr<ini_file_t, IniFileFree>;

[[nodiscard]] bool path_exists(const char *path) noexcept;

// Directory of the running executable: empty for one in "/", and "/" when it is unknown. Nothing is written
// when size is below 1.
void GetExeDir(char *out, int size) noexcept;

// Identity directory; whether it exists is not promised.
void GetAgentIdDir(char *out, int size) noexcept;

} // namespace tavipc
