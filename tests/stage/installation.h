// An installation of the agent in directories of its own: bin/ with module programs, config/ with the signed
// allow-list and the INI files, and a socket directory below /var/tmp, so it needs no root. A child process
// removes the directories, even after a crash.
#pragma once

#include "process.h"

namespace tavipc::stage {

class Installation {
  public:
    struct Setup {
        std::filesystem::path root; // gets bin/ and config/; empty: a new directory
        int location = 2;           // not 1: that location's modules look for a route to the manager
        bool agent_id = false;      // whether the modules determine the agent id; if not, it is 4242
    };
    explicit Installation(const Setup &setup);
    ~Installation() { janitor_.finish(); }
    Installation(const Installation &) = delete;

    // Signs a list of the executables that may open endpoints.
    void allow(const std::vector<std::string> &names) const;
    // Copies a program into bin/ under a name.
    std::filesystem::path put(const std::string &name, const std::filesystem::path &program) const;
    // Starts the program bin/NAME; without one, the module program under that name.
    Process start(const std::string &name, const std::vector<std::string> &environment = {},
                  const std::vector<std::string> &arguments = {}) const;
    std::string tool() const; // the command-line tool as the agent's own
    std::filesystem::path config() const { return root_ / "config"; }
    std::filesystem::path sockets() const; // the directory of the socket files

  private:
    std::filesystem::path var_, root_; // the former is below /var/tmp
    int location_;
    Process janitor_; // removes the directories when its input ends
};

} // namespace tavipc::stage
