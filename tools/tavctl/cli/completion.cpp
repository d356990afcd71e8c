#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <string>

#include "cli/args.h"
#include "cli/problem.h"

namespace tavctl {
namespace {

constexpr char kBegin[] = R"SCRIPT(# bash completion for tavctl; made by "tavctl completion".
_tavctl_words() { # subcommands, joined by "-"
    case $1 in
)SCRIPT";

constexpr char kEnd[] = R"SCRIPT(    esac
}

_tavctl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} path='' place=0 i words valued places
    _tavctl_words ''
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} == -* ]]; then
            [[ " $valued " == *" ${COMP_WORDS[i]} "* ]] && ((i++))
        elif [[ -z $path || $path == allowlist ]] && [[ " $words " == *" ${COMP_WORDS[i]} "* ]]; then
            path+=${path:+-}${COMP_WORDS[i]}
            _tavctl_words "$path"
        else
            ((place++))
        fi
    done
    COMPREPLY=()
    if [[ " $valued " == *" $before "* ]]; then
        case $before in
            --agent | --dir) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
            --file | -f | --private | --public | --key) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        esac
        return
    fi
    if [[ $word != -* && -n $places ]]; then
        local -a all
        read -ra all <<<"$places"
        ((place < ${#all[@]})) || place=$((${#all[@]} - 1))
        case $path:${all[place]} in
            trace:*) mapfile -t COMPREPLY < <(compgen -W 'on off show' -- "$word") ;;
            allowlist-why:*) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
            listen:* | reply:NAME | allowlist-*) ;;
            *:NAME) mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" list --names 2>/dev/null)" -- "$word") ;;
            *:DIR) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
            *:FILE) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        esac
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o filenames -F _tavctl tavctl
)SCRIPT";

std::string joined(const std::set<std::string> &words) {
    std::string text;
    for (const std::string &word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

// Prints one case of the script: the words that may follow these subcommands, the options that take a value,
// and the names of the positional arguments.
void print_case(const std::string &path, std::set<std::string> words, const std::string &usage) {
    std::set<std::string> valued;
    std::string places;
    for (const Option &option : options_of((kGlobalOptions + usage).c_str())) {
        if (option.argument) {
            places += (places.empty() ? "" : " ") + option.names[0];
            continue;
        }
        words.insert(option.names.begin(), option.names.end());
        if (!option.value.empty()) valued.insert(option.names.begin(), option.names.end());
    }
    std::cout << "    '" << path << "') words='" << joined(words) << "' valued='" << joined(valued)
              << "' places='" << places << "' ;;\n";
}

} // namespace

int print_bash_completion(std::span<const Command> commands) {
    std::map<std::string, std::set<std::string>> groups; // "" and "allowlist": the words that may follow
    for (const Command &command : commands) {
        const std::string name = command.name;
        const size_t blank = name.find(' ');
        groups[""].insert(name.substr(0, blank));
        if (blank != name.npos) groups[name.substr(0, blank)].insert(name.substr(blank + 1));
    }
    std::cout << kBegin;
    for (const auto &[path, words] : groups) print_case(path, words, "");
    for (const Command &command : commands) {
        std::string path = command.name;
        std::ranges::replace(path, ' ', '-');
        print_case(path, {}, command.usage);
    }
    std::cout << kEnd;
    return kSuccess;
}

} // namespace tavctl
