// Commands, and what the command line gives for their options.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace tavctl {

class Console;

class Args {
  public:
    // By the option's long name without dashes, or the argument's name. What was not given has its default,
    // or is empty or 0.
    bool has(const std::string &name) const { return values_.contains(name); }
    std::vector<std::string> all(const std::string &name) const;
    std::string text(const std::string &name) const;
    uint64_t number(const std::string &name) const;
    double seconds(const std::string &name) const;
    void set(const std::string &name, const std::string &value) { values_[name].push_back(value); }

  private:
    std::map<std::string, std::vector<std::string>> values_;
};

// One line of usage for each option or argument, and two blanks before its description:
//   -q, --quiet              a flag               NAME        an argument
//   -c, --count N:0-99=4     with range, default  [NAME]      one that may be missing
//   --key FILE!              that must be given   [NAME...]   any number of them
// N and CODE stand for whole numbers, SECONDS for a time.
struct Command {
    const char *name; // "probe", or of a group "allowlist add"
    const char *help;
    const char *usage;
    int (*run)(Console &out, const Args &args); // returns the exit status, or throws Problem
};

// Runs the command that the command line names. Returns the exit status, or throws Problem.
int run_command_line(std::span<const Command> commands, std::span<char *const> words);

struct Option {
    explicit Option(const std::string &line);
    std::vector<std::string> names; // "-c", "--count"; of an argument its name
    std::string key, value;         // value: "N"; empty for a flag
    std::string preset, help;       // preset: the default, empty for none
    double least = 0, most = 0;     // where they differ
    bool argument, required = false, repeated = false;
};
std::vector<Option> options_of(const char *usage);
extern const char kGlobalOptions[];

} // namespace tavctl
