// The signed allow-list: who would pass the gate, and why not.
#pragma once

#include <string>

namespace tavctl {

struct Verdict {
    bool allowed = false;
    std::string reason; // one line
    std::string remedy; // empty when allowed
};

// What the gate of the library, compiled with this key, would say to the executable (a path): the list in
// "@/../config" beside its directory, the signature, the name. A path through /proc stands for the file it
// leads to.
Verdict judge_executable(const std::string &path);

// The configuration directory beside an executable's directory.
std::string config_beside(const std::string &executable);

} // namespace tavctl
