// The function of each command; commands.cpp has their options.
#pragma once

#include <set>

#include "cli/cli.h"

namespace tavctl {

int list(Console &out, const Args &args);          // look/list.cpp
int probe(Console &out, const Args &args);         // talk/messages.cpp
int trace(Console &out, const Args &args);         // look/trace.cpp
int explain(Console &out, const Args &args);       // look/trace.cpp
int send(Console &out, const Args &args);          // talk/messages.cpp
int listen(Console &out, const Args &args);        // talk/messages.cpp
int request(Console &out, const Args &args);       // talk/messages.cpp
int reply(Console &out, const Args &args);         // talk/messages.cpp
int send_file(Console &out, const Args &args);     // file/send_file.cpp
int receive_files(Console &out, const Args &args); // file/receive_files.cpp
int keygen(Console &out, const Args &args);        // agent/allowlist_commands.cpp, with the next five
int allowlist_add(Console &out, const Args &args);
int allowlist_remove(Console &out, const Args &args);
int allowlist_sign(Console &out, const Args &args);
int allowlist_verify(Console &out, const Args &args);
int allowlist_why(Console &out, const Args &args);
int show_identity(Console &out, const Args &args); // agent/identity.cpp
int doctor(Console &out, const Args &args);        // agent/doctor.cpp
int completion(Console &out, const Args &args);    // commands.cpp

std::span<const Command> commands();
std::set<std::string> live_names(); // of endpoints, as a shell can take them

} // namespace tavctl
