// The function of each command; commands.cpp has their options.
#pragma once

#include <set>

#include "cli/cli.h"

namespace tavctl {

Run list;                                // look/list.cpp
Run stats, top;                          // counters/stats.cpp, counters/top.cpp
Run trace, explain;                      // look/trace.cpp
Run probe, send, listen, request, reply; // talk/messages.cpp
Run send_file;                           // file/send_file.cpp
Run receive_files;                       // file/receive_files.cpp
Run monitor, log_level;                  // monitor/commands.cpp
Run keygen, allowlist_add, allowlist_remove, allowlist_sign, allowlist_verify,
    allowlist_why;         // agent/allowlist_commands.cpp
Run show_identity, doctor; // agent/identity.cpp, agent/doctor.cpp
Run completion;            // commands.cpp

std::span<const Command> commands();
std::set<std::string> live_names(); // of endpoints, as a shell can take them

} // namespace tavctl
