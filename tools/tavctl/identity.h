// Where the configuration lies.
#pragma once

#include <string>

namespace tavctl {

std::string configuration_directory();               // as the library finds it
std::string how_found(const std::string &directory); // "beside the directory of this executable"

} // namespace tavctl
