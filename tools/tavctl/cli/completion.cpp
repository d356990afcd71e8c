// tavctl completion: the completion script for bash, and with WORDs what may stand in place of the last one.
#include <algorithm>
#include <iostream>
#include <set>

#include "cli/problem.h"
#include "commands.h"

namespace tavctl {
namespace {

constexpr char kScript[] = R"SCRIPT(# bash completion for tavctl; made by "tavctl completion".
_tavctl() {
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" completion -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _tavctl tavctl
)SCRIPT";

// Bash completes file names where this is empty.
std::set<std::string> candidates(const std::vector<std::string> &words) {
    std::vector<Option> options = options_of(kGlobalOptions);
    std::string path; // of the command or group
    bool complete = false, value = false;
    size_t place = 0;
    for (const std::string &word : words) {
        const auto option = std::ranges::find_if(options, [&](const Option &each) {
            return !each.argument && std::ranges::count(each.names, word) > 0;
        });
        if (value || option != options.end()) {
            value = !value && !option->value.empty();
        } else if (complete) {
            ++place;
        } else {
            path += (path.empty() ? "" : " ") + word;
            for (const Command &command : commands())
                if (complete = command.name == path; complete) {
                    for (Option &own : options_of(command.usage)) options.push_back(std::move(own));
                    break;
                }
        }
    }
    std::set<std::string> found;
    if (value) return found;
    for (const Option &option : options)
        if (!option.argument) found.insert(option.names.begin(), option.names.end());
    const std::string prefix = path + (path.empty() ? "" : " ");
    for (const Command &command : commands())
        if (const std::string name = command.name; !complete && name.starts_with(prefix))
            found.insert(name.substr(prefix.size(), name.find(' ', prefix.size()) - prefix.size()));
    if (path == "trace") found.insert({"on", "off", "show"});
    for (const char *talking : {"probe", "send", "request", "sendfile"})
        if (path == talking && place == 0) found.merge(live_names());
    return found;
}

} // namespace

int completion(Console &, const Args &args) {
    std::vector<std::string> words = args.all("WORD");
    if (words.empty()) return std::cout << kScript, kSuccess;
    const std::string begun = words.back();
    words.pop_back();
    for (const std::string &candidate : candidates(words))
        if (candidate.starts_with(begun) && (candidate[0] != '-' || begun[0] == '-'))
            std::cout << candidate << '\n';
    return kSuccess;
}

} // namespace tavctl
