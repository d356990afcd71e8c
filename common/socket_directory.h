// Where the tools find the sockets of a location.
#pragma once

#include <string>

#include "common/facts.h"

namespace tavipc {

// The directory of the location's sockets for processes of the deployment type, which may be null.
inline std::string socket_directory(const char *deploy_type, int location) {
    const std::string type = deploy_type ? std::string(deploy_type) + '/' : "";
    return kSocketRoot + type + kSocketDirectory + std::to_string(location);
}

} // namespace tavipc
