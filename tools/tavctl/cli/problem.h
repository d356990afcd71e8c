// How a command fails: what happened, what the user may do next, and the exit status.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace tavctl {

enum Status : int {
    kSuccess = 0,
    kFailure = 1,   // failed, refused, or "no" as an answer
    kMisuse = 2,    // wrong usage
    kNoAnswer = 3,  // time-out: nobody answered
    kNotAllowed = 4 // the tool itself may not open an endpoint
};

class Problem : public std::runtime_error {
  public:
    explicit Problem(const std::string &what, std::string remedy = {}, Status status = kFailure)
        : runtime_error(what), remedy_(std::move(remedy)), status_(status) {}
    const std::string &remedy() const { return remedy_; }
    Status status() const { return status_; }

  private:
    std::string remedy_;
    Status status_;
};

inline Problem misuse(const std::string &what, std::string remedy = {}) {
    return Problem(what, std::move(remedy), kMisuse);
}

// Appends the text of errno.
inline Problem system_problem(const std::string &what, std::string remedy = {}) {
    const int error = errno;
    return Problem(what + ": " + strerror(error), std::move(remedy));
}

} // namespace tavctl
