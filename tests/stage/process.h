// A child process driven by lines: commands go to its standard input, its standard output gives events.
//
// Events are kept in the order they came until somebody asks for them, so nothing has to be awaited at the
// right moment; who waits for one child reads from all, so that none is held up by a full pipe. A wait that
// runs out of time, or a child that ends while it is waited for, throws with what the child said last. The
// child ends with its Process object. All of them belong to one thread.
#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace tavipc::stage {

using namespace std::chrono_literals;

class Process {
  public:
    // environment: "NAME=value" entries on top of this process's own.
    Process(const std::filesystem::path &program, const std::vector<std::string> &environment = {},
            const std::vector<std::string> &arguments = {});
    ~Process();
    Process(const Process &) = delete;

    void say(std::string_view command);
    // Takes the first event that begins with the text and returns what follows it.
    std::string expect(std::string_view beginning, std::chrono::milliseconds limit = 60s);
    // say, then expect.
    std::string ask(std::string_view command, std::string_view beginning);
    // Ends its input and waits until it has ended, its events included. Returns its exit status, or minus the
    // number of the signal that ended it.
    int finish();
    // The same after a SIGKILL.
    int kill();
    void signal(int number);
    // Whether an event that nobody took holds the text.
    bool heard(std::string_view text) const;
    // Takes all events that nobody took.
    std::deque<std::string> take() { return std::exchange(events_, {}); }
    // Reads what the children wrote, waiting for it up to the limit. False when nothing came.
    static bool read_all(std::chrono::milliseconds limit);
    pid_t pid() const { return pid_; }

  private:
    void read_some();

    std::string name_;
    pid_t pid_ = -1;
    int to_child_ = -1;
    int from_child_ = -1; // -1 after its end
    std::string partial_;
    std::deque<std::string> events_;
};

// A program run to its end: exit status (minus the number of the signal that ended it) and all that it wrote.
struct Outcome {
    int status = -1;
    std::string output, errors;
};
Outcome run(const std::vector<std::string> &command, std::string_view input = {},
            const std::vector<std::string> &environment = {});

// The blank-separated words of an event.
std::vector<std::string> words(std::string_view text);

} // namespace tavipc::stage
