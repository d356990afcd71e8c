// Where the configuration lies, and the manager that it names.
#pragma once

#include <string>

namespace tavctl {

std::string configuration_directory();               // as the library finds it
std::string how_found(const std::string &directory); // "beside the directory of this executable"

// The result of GetMgrAddr, and what is missing in the files that it reads.
struct Manager {
    Manager();
    std::string address; // empty: none
    unsigned short port = 0;
    bool named = false;      // server.ini has [config] addr
    bool port_given = false; // server_port.ini has [port] ipc
    std::string text;        // "192.0.2.1, port 8083", or "none: ..."
};

} // namespace tavctl
