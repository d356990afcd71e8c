#include <numeric>
#include <sstream>

#include "module/module.h"

namespace tavctl {
namespace {

constexpr size_t kHelpColumn = 28;
constexpr char kAbout[] =
    "Looks at the endpoints of an agent's modules, talks to them, and keeps the signed allow-list.\n";
constexpr char kFooter[] = "\nAn endpoint is given as NAME or NAME@LOCATION.\n"
                           "Exit status: 0 done; 1 failed or refused; 2 wrong usage; 3 nobody answered;\n"
                           "4 the tool itself may not open an endpoint.\n"
                           "See tavctl COMMAND --help and tavctl(1).\n";

// Number of letters to add, remove or exchange to turn one word into the other.
size_t distance(const std::string &from, const std::string &to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t exchanged = diagonal + (from[i] != to[j]);
            diagonal = row[j + 1];
            row[j + 1] = std::min({exchanged, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

// "-1" is not a number, nor is "nan", for which no comparison holds. "010" is refused: some read it as 8.
bool is_valid(const Option &option, const std::string &text) {
    const bool whole = option.value == "N" || option.value == "CODE", time = option.value == "SECONDS";
    if (!whole && !time) return true;
    const char *digits = whole ? "0123456789" : "0123456789.";
    if (text.empty() || text.size() > 18 || text.find_first_not_of(digits) != text.npos) return false;
    if (whole && text.size() > 1 && text[0] == '0') return false;
    const double number = std::strtod(text.c_str(), nullptr);
    return option.least == option.most || (number >= option.least && number <= option.most);
}

class CommandLine {
  public:
    CommandLine(std::span<const Command> commands, std::span<char *const> words)
        : commands_(commands), words_(words), options_(options_of(kGlobalOptions)),
          passed_(words.begin(), words.end()) {}

    int run() {
        read();
        if (args_.has("version")) return std::cout << TAVIPC_VERSION << '\n', kSuccess;
        if (args_.has("help")) return std::cout << help(), kSuccess;
        if (!command_ && unexpected_.empty()) return std::cout << help() << std::flush, kMisuse;
        check();
        if (args_.has("agent")) become_other();
        Console out(args_.has("json"));
        keep_log(args_.has("verbose"));
        const int status = command_->run(out, args_);
        out.finish();
        return status;
    }

  private:
    void read() {
        bool plain = false; // after "--"
        for (at_ = 1; at_ < words_.size(); ++at_) {
            const std::string word = words_[at_];
            if (!plain && word == "--")
                plain = true;
            else if (plain || word.size() < 2 || word[0] != '-')
                command_ ? take_argument(word) : take_command(word);
            else
                take_option(word);
        }
    }

    void take_command(const std::string &word) {
        const std::string path = path_ + (path_.empty() ? "" : " ") + word;
        std::string nearest;
        size_t least = word.size() / 2 + 1; // letters: one that differs in more is another word
        for (const Command &command : commands_) {
            const std::string name = command.name;
            if (name == path) {
                command_ = &command;
                const std::vector<Option> own = options_of(command.usage);
                options_.insert(options_.begin(), own.begin(), own.end());
            }
            if (name == path || name.starts_with(path + " ")) {
                path_ = path;
                return;
            }
            if (!path_.empty() && !name.starts_with(path_ + " ")) continue;
            const std::string other = name.substr(path_.empty() ? 0 : path_.size() + 1);
            const std::string first = other.substr(0, other.find(' '));
            if (const size_t away = distance(word, first); away < least) least = away, nearest = first;
        }
        throw wrong("unknown command '" + word + "'" +
                    (nearest.empty() ? "" : "; did you mean '" + nearest + "'?"));
    }

    void take_argument(const std::string &word) {
        for (const Option &option : options_)
            if (option.argument && (option.repeated || !args_.has(option.key)))
                return args_.set(option.key, word);
        unexpected_ += " " + word;
    }

    // --name VALUE, --name=VALUE, -n VALUE or -nVALUE
    void take_option(const std::string &word) {
        const bool is_long = word[1] == '-';
        const size_t end = is_long ? std::min(word.find('='), word.size()) : 2;
        const std::string name = word.substr(0, end);
        const Option *option = find_option(options_, name);
        const bool attached = end < word.size();
        if (!option || (attached && option->value.empty())) {
            unexpected_ += " " + word;
            return;
        }
        std::string value = attached ? word.substr(end + is_long) : "";
        const size_t first = at_;
        if (!option->value.empty() && !attached) {
            if (++at_ == words_.size()) throw wrong(name + " needs a value");
            value = words_[at_];
        }
        if (!is_valid(*option, value))
            throw wrong(name + ": \"" + value + "\" is not a valid " +
                        (option->value == "SECONDS" ? "time in seconds" : "number"));
        args_.set(option->key, value);
        if (option->key == "agent") std::fill(&passed_[first], &passed_[at_] + 1, nullptr);
    }

    void check() {
        if (!unexpected_.empty()) throw wrong("not expected:" + unexpected_);
        for (const Option &option : options_) {
            if (args_.has(option.key)) continue;
            if (option.required) throw wrong(option.names.back() + " is missing");
            if (!option.preset.empty()) args_.set(option.key, option.preset);
        }
    }

    Problem wrong(const std::string &what) const {
        return misuse(what, "tavctl " + path_ + (path_.empty() ? "" : " ") + "--help");
    }

    std::string help() const;
    [[noreturn]] void become_other();

    std::span<const Command> commands_;
    std::span<char *const> words_;
    size_t at_ = 0;
    std::vector<Option> options_;      // global ones, and those of the command
    const Command *command_ = nullptr; // that was named
    std::string path_, unexpected_;
    std::vector<char *> passed_; // the words; nullptr for those of --agent
    Args args_;
};

std::string CommandLine::help() const {
    std::string arguments, argument_lines, option_lines, command_lines;
    for (const Option &option : options_) {
        std::string name = option.names[0];
        for (size_t i = 1; i < option.names.size(); ++i) name += ", " + option.names[i];
        if (!option.value.empty()) name += " " + option.value;
        if (option.argument && option.repeated) name += "...";
        if (option.argument) arguments += option.required ? " " + name : " [" + name + "]";
        (option.argument ? argument_lines : option_lines) +=
            padded("  " + name, kHelpColumn) + option.help +
            (option.preset.empty() ? "" : " (default " + option.preset + ")") + "\n";
    }
    for (const Command &command : commands_)
        if (!command_ && std::string_view(command.name).starts_with(path_))
            command_lines += padded("  " + std::string(command.name), kHelpColumn) + command.help + "\n";
    std::string text = command_ ? std::string(command_->help) + ".\n" : path_.empty() ? kAbout : "";
    text += "Usage: tavctl" + (path_.empty() ? "" : " " + path_) + " [OPTIONS]" +
            (command_ ? arguments : std::string(" COMMAND")) + "\n";
    if (!argument_lines.empty()) text += "\nArguments:\n" + argument_lines;
    text += "\nOptions:\n" + option_lines;
    if (!command_lines.empty()) text += "\nCommands:\n" + command_lines;
    return text + (path_.empty() ? kFooter : "");
}

// Passes everything but --agent on to the other tool.
void CommandLine::become_other() {
    const std::string agent = args_.text("agent"), tool = agent + "/bin/tavctl";
    if (agent.empty()) throw misuse("--agent names no directory");
    std::erase(passed_, nullptr);
    passed_.push_back(nullptr);
    execv(tool.c_str(), passed_.data());
    throw system_problem(
        "cannot run " + tool,
        "an agent has its own tavctl, because the allow-list goes by the executable: copy this one there "
        "and add it, tavctl allowlist add --key PRIVATE.pem --dir " +
            quoted(agent + "/config") + " tavctl");
}

} // namespace

const char kGlobalOptions[] = "-h, --help  Print this help\n"
                              "--version  Print the version\n"
                              "--json  Print one JSON object per line, for programs\n"
                              "-v, --verbose  Write the library's log to standard error\n"
                              "--agent DIR  Run the tavctl of another agent, DIR/bin/tavctl\n";

Option::Option(const std::string &line) : argument(line[0] != '-') {
    const size_t end = line.find("  ");
    help = line.substr(end + 2);
    std::istringstream words(line.substr(0, end));
    for (std::string word; words >> word;) {
        if (word.ends_with(',')) word.pop_back();
        (word[0] == '-' ? names.emplace_back() : value) = word;
    }
    // [ NAME ... ] : LEAST - MOST = DEFAULT !
    const std::string form = value;
    const size_t begin = form[0] == '[', range = form.find(':'), equal = form.find('=');
    value = form.substr(begin, form.find_first_of(".]:=!") - begin);
    required = argument ? begin == 0 : form.ends_with('!');
    repeated = form.find("...") != form.npos;
    if (range != form.npos)
        least = std::stod(form.substr(range + 1)), most = std::stod(form.substr(form.find('-', range) + 1));
    if (equal != form.npos) preset = form.substr(equal + 1);
    if (argument) names.push_back(std::exchange(value, {}));
    key = argument ? names[0] : names.back().substr(2);
}

std::vector<Option> options_of(const char *usage) {
    std::vector<Option> options;
    std::istringstream lines(usage);
    for (std::string line; std::getline(lines, line);) options.emplace_back(line);
    return options;
}

const Option *find_option(const std::vector<Option> &options, const std::string &name) {
    for (const Option &option : options)
        if (!option.argument && std::ranges::count(option.names, name) > 0) return &option;
    return nullptr;
}

int run_command_line(std::span<const Command> commands, std::span<char *const> words) {
    return CommandLine(commands, words).run();
}

} // namespace tavctl
