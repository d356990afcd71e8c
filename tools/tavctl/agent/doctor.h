// What the checks of tavctl doctor return.
#pragma once

#include <array>
#include <string>

#include "cli/console.h"

namespace tavctl {

struct Finding {
    enum Verdict { kOk, kWarn, kFail, kSkipped, kVerdicts };
    Verdict verdict;
    std::string seen;
    std::string remedy; // commands, one per line, or a sentence
};
inline Finding ok(const std::string &seen) { return {Finding::kOk, seen, {}}; }
inline Finding warn(const std::string &seen, const std::string &remedy) {
    return {Finding::kWarn, seen, remedy};
}
inline Finding fail(const std::string &seen, const std::string &remedy) {
    return {Finding::kFail, seen, remedy};
}
inline Finding skip(const std::string &why) { return {Finding::kSkipped, why, {}}; }

class Findings {
  public:
    explicit Findings(Console &out) : out_(out) {}
    // Prints and counts a finding. Returns whether it is neither a failure nor skipped.
    bool add(const char *check, const Finding &finding);
    bool summarize() const; // false when something failed

  private:
    Console &out_;
    std::array<size_t, Finding::kVerdicts> counts_{};
};

std::string as_root(const std::string &command); // with sudo for other users
std::string this_user();
std::string config_directory(); // as the library finds it, without ".."

// doctor_agent.cpp
struct AgentState {
    bool directory = false; // the socket directory is there, and this user may make sockets in it
    bool allowed = false;   // the library's check lets the tool pass
    bool has_id = false;    // from the platform or stored: an endpoint need not make one
};
AgentState check_agent(Findings &findings);

} // namespace tavctl
