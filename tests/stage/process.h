// A child process that reads commands, one per line, and writes events, one per line. Events wait in their
// order until a test asks for them. A wait for one child reads from all of them, so no child blocks on a full
// pipe. A wait that takes too long, or for a child that ended, throws. All Process objects belong to one
// thread.
#pragma once

#include <chrono>
#include <csignal>
#include <deque>
#include <filesystem>
#include <vector>

#include "common/unique_fd.h"

namespace tavipc::stage {

using namespace std::chrono_literals;

class Process {
  public:
    // environment: "NAME=value" entries that replace or extend this process's own.
    Process(const std::filesystem::path &program, const std::vector<std::string> &environment = {},
            std::vector<std::string> arguments = {});
    ~Process(); // kills the child
    Process(const Process &) = delete;

    void say(std::string_view command);
    // Takes the first event that begins with the text and returns the rest of it.
    std::string expect(std::string_view beginning, std::chrono::milliseconds limit = 60s);
    std::string ask(std::string_view command, std::string_view event) { return say(command), expect(event); }
    // Closes its input and waits for its end. Returns its exit status, or minus the signal that ended it.
    int finish();
    int kill() { return signal(SIGKILL), finish(); }
    void signal(int number) { pid_ > 0 ? ::kill(pid_, number) : 0; }
    bool heard(std::string_view text) const; // whether an event that waits contains the text
    std::deque<std::string> take() { return std::exchange(events_, {}); }
    // Reads what the children wrote, and waits up to the limit for it. Returns false if nothing came.
    static bool read_all(std::chrono::milliseconds limit);
    pid_t pid() const { return pid_; }

  private:
    void read_some();

    std::string name_;
    pid_t pid_ = -1;
    UniqueFd to_child_, from_child_; // the latter is closed at the child's end
    std::string partial_;            // the beginning of an event
    std::deque<std::string> events_;
};

// The result of a program: its exit status (or minus the signal that ended it) and its output.
struct Outcome {
    int status = -1;
    std::string output, errors;
};
Outcome run(const std::vector<std::string> &command, std::string_view input = {},
            const std::vector<std::string> &environment = {});

std::vector<std::string> words(const std::string &event);

} // namespace tavipc::stage
