#include "tavctl.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>

namespace tavctl {
namespace {

std::vector<Command> all_commands() {
    std::vector<Command> all;
    for (const auto &group : {key_commands(), allowlist_commands()})
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

void print_command(std::ostream &out, const Command &command) {
    out << "  tavctl " << command.group << ' ' << command.verb << ' ' << command.synopsis << '\n'
        << command.summary << "\n";
}

// Help on the commands of one group, or on all when there is no such group.
void print_help(std::ostream &out, std::string_view group = {}) {
    const auto commands = all_commands();
    const bool known = std::ranges::any_of(commands, [&](const Command &c) { return c.group == group; });
    out << "usage:\n";
    for (const Command &command : commands)
        if (!known || command.group == group) print_command(out, command);
    out << "\nExit status: 0 done, 1 failed or refused, 2 wrong usage.\n";
}

bool wants_help(std::span<char *const> words) {
    for (const std::string_view word : words) {
        if (word == "--") return false;
        if (word == "--help" || word == "-h") return true;
    }
    return false;
}

int run(std::span<char *const> words) {
    const std::string_view group = words.empty() ? "" : words[0];
    if (wants_help(words) || group == "help") {
        print_help(std::cout, group);
        return kSuccess;
    }
    const std::string_view verb = words.size() < 2 ? "" : words[1];
    const auto commands = all_commands();
    const auto command =
        std::ranges::find_if(commands, [&](const Command &c) { return c.group == group && c.verb == verb; });
    if (command == commands.end()) {
        std::cerr << "tavctl: " << (group.empty() ? "no command given" : "unknown command") << '\n';
        print_help(std::cerr, group);
        return kMisuse;
    }
    try {
        return command->run(Arguments(words.subspan(2), command->options, command->flags));
    } catch (const UsageError &error) {
        std::cerr << "tavctl: " << error.what() << "\nusage:\n";
        print_command(std::cerr, *command);
        return kMisuse;
    }
}

} // namespace

Arguments::Arguments(std::span<char *const> words, std::span<const std::string_view> options,
                     std::span<const std::string_view> flags) {
    const auto among = [](auto names, std::string_view name) { return std::ranges::count(names, name) > 0; };
    for (size_t i = 0; i < words.size(); ++i) {
        std::string_view word = words[i];
        if (word == "--") {
            plain_.insert(plain_.end(), words.begin() + static_cast<ptrdiff_t>(i) + 1, words.end());
            return;
        }
        if (!word.starts_with('-') || word == "-") {
            plain_.emplace_back(word);
            continue;
        }
        const size_t equals = word.find('=');
        const std::string_view name = word.substr(0, equals);
        const bool has_value = equals != std::string_view::npos;
        std::string value(has_value ? word.substr(equals + 1) : "");
        if (among(options, name)) {
            if (!has_value && ++i == words.size())
                throw UsageError("a value is missing after " + std::string(name));
            if (!has_value) value = words[i];
        } else if (!among(flags, name) || has_value) {
            throw UsageError("unknown option " + std::string(word));
        }
        if (!options_.emplace(name, std::move(value)).second)
            throw UsageError(std::string(name) + " is given twice");
    }
}

std::optional<std::string> Arguments::find(std::string_view option) const {
    const auto found = options_.find(option);
    if (found == options_.end()) return std::nullopt;
    return found->second;
}

std::string Arguments::required(std::string_view option) const {
    const auto value = find(option);
    if (!value || value->empty()) throw UsageError(std::string(option) + " is missing");
    return *value;
}

void Arguments::no_plain() const {
    if (!plain_.empty()) throw UsageError("unexpected word " + plain_.front());
}

} // namespace tavctl

int main(int argc, char **argv) {
    try {
        const int status =
            tavctl::run(std::span<char *const>(argv, static_cast<size_t>(argc)).subspan(argc > 0));
        std::cout.flush();
        return status == tavctl::kSuccess && !std::cout ? tavctl::kFailure : status;
    } catch (const std::exception &error) {
        std::cout.flush();
        std::cerr << "tavctl: " << error.what() << '\n';
        return tavctl::kFailure;
    }
}
