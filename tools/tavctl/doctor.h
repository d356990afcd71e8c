// What tavctl doctor is made of: findings, and the checks in three files.
#pragma once

#include <array>
#include <string>

#include "console.h"

namespace tavctl {

// Each finding is told at once; an end counts them.
class Findings {
  public:
    explicit Findings(Console &out) : out_(out) {}
    void ok(const char *check, const std::string &seen) { add(kOk, check, seen, {}); }
    // remedy: commands, one a line, or a sentence
    void warn(const char *check, const std::string &seen, const std::string &remedy) {
        add(kWarn, check, seen, remedy);
    }
    void fail(const char *check, const std::string &seen, const std::string &remedy) {
        add(kFail, check, seen, remedy);
    }
    void skip(const char *check, const std::string &why) { add(kSkipped, check, why, {}); }
    bool tell_summary(); // false when something failed

  private:
    enum Verdict { kOk, kWarn, kFail, kSkipped, kVerdicts };
    void add(Verdict verdict, const char *check, const std::string &seen, const std::string &remedy);
    Console &out_;
    std::array<size_t, kVerdicts> counts_{};
};

std::string as_root(const std::string &command); // with sudo where this user is another
std::string this_user();
std::string executable();       // of the tool
std::string config_directory(); // as the library finds it

// doctor_agent.cpp
struct AgentState {
    bool allowed = false;   // by the list, says the library
    bool has_id = false;    // from the platform or stored
    bool directory = false; // there, and this user may make sockets in it
};
AgentState check_agent(Findings &findings);

// doctor_identity.cpp: true when an endpoint would have an id without making one
bool check_identity(Findings &findings);

// doctor_machine.cpp
void check_machine(Findings &findings);

} // namespace tavctl
