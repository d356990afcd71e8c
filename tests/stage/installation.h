// An installation of the agent in directories of its own: bin/ with module executables, config/ with the
// signed allow-list and the INI files, and a socket directory below /var/tmp, so that no root is needed and
// no two installations meet. Everything is removed with the object, also when the program crashes. A program
// has one at a time.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "process.h"

namespace tavipc::stage {

class Installation {
  public:
    struct Setup {
        std::filesystem::path root; // gets bin/ and config/; empty: a new directory of its own
        int location = 2;           // any other than 1: the route to the manager is not probed
        bool agent_id = false;      // determine the agent id; else the platform gives host id 4242
    };
    explicit Installation(const Setup &setup);
    ~Installation();
    Installation(const Installation &) = delete;

    // Writes and signs the list of executables that may open endpoints.
    void allow(const std::vector<std::string> &names) const;
    // Starts the module program under a name, as a process of its own.
    Process start(const std::string &name, const std::vector<std::string> &environment = {}) const;

    // The command-line tool as this agent's own: bin/tavctl, put there when it is asked for.
    std::string tool() const;

    std::filesystem::path config() const { return root_ / "config"; }
    std::filesystem::path sockets() const; // directory of the socket files

  private:
    std::filesystem::path root_;
    std::filesystem::path var_; // below /var/tmp
    int location_;
    pid_t janitor_ = -1;
    int janitor_pipe_ = -1;
};

} // namespace tavipc::stage
