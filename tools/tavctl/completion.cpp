#include "completion.h"

#include <iostream>
#include <set>
#include <string>

#include "problem.h"

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

const auto kAll = [](const CLI::App *) { return true; };

std::string joined(const std::set<std::string> &words) {
    std::string text;
    for (const std::string &word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

// One case of the script: the words that may follow these subcommands, those that take a value, and the names
// of what stands where no option does.
void print_case(const CLI::App &app, const std::string &path) {
    std::set<std::string> words, valued;
    for (const CLI::App *command : app.get_subcommands(kAll)) words.insert(command->get_name());
    for (const CLI::App *level = &app; level; level = level->get_parent())
        for (const CLI::Option *option : level->get_options()) {
            std::set<std::string> names;
            for (const std::string &name : option->get_lnames()) names.insert("--" + name);
            for (const std::string &name : option->get_snames()) names.insert("-" + name);
            words.insert(names.begin(), names.end());
            if (option->get_expected_max() > 0) valued.insert(names.begin(), names.end());
        }
    std::string places;
    for (const CLI::Option *option : app.get_options())
        if (option->get_positional()) places += (places.empty() ? "" : " ") + option->get_name(true);
    std::cout << "    '" << path << "') words='" << joined(words) << "' valued='" << joined(valued)
              << "' places='" << places << "' ;;\n";
    for (const CLI::App *command : app.get_subcommands(kAll))
        print_case(*command, (path.empty() ? "" : path + "-") + command->get_name());
}

} // namespace

int print_bash_completion(const CLI::App &app) {
    std::cout << kBegin;
    print_case(app, "");
    std::cout << kEnd;
    return kSuccess;
}

} // namespace tavctl
