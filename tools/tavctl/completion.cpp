#include "completion.h"

#include <iostream>
#include <string>

#include "problem.h"

namespace tavctl {
namespace {

// One case of the script: the words that may follow these subcommands, and the options that take a value.
void print_case(const CLI::App &app, const std::string &path, bool nested) {
    std::string words, valued;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
        words += (words.empty() ? "" : " ") + command->get_name();
    for (const CLI::App *level = &app; level; level = level->get_parent())
        for (const CLI::Option *option : level->get_options())
            for (const auto &names : {option->get_lnames(), option->get_snames()})
                for (const std::string &name : names) {
                    const std::string word = (name.size() == 1 ? "-" : "--") + name;
                    words += (words.empty() ? "" : " ") + word;
                    if (option->get_type_size() > 0) valued += (valued.empty() ? "" : " ") + word;
                }
    std::string places; // what stands where no option does
    for (const CLI::Option *option : app.get_options())
        if (option->get_positional()) places += (places.empty() ? "" : " ") + option->get_name(true);
    std::cout << "    "
              << (nested         ? path
                  : path.empty() ? "''"
                                 : path)
              << ") words='" << words << "' valued='" << valued << "' places='" << places << "' ;;\n";
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
        print_case(*command, (path.empty() ? "" : path + "-") + command->get_name(), true);
}

} // namespace

int print_bash_completion(const CLI::App &app) {
    std::cout << R"SCRIPT(# bash completion for tavctl; made by "tavctl completion".
_tavctl_words() { # subcommands, joined by "-"
    case $1 in
)SCRIPT";
    print_case(app, "", false);
    std::cout << R"SCRIPT(    esac
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
    if [[ $word != -* && -n $path && $path != allowlist ]]; then
        local -a all
        read -ra all <<<"$places"
        ((place < ${#all[@]})) || place=$((${#all[@]} - 1))
        case $path:${all[place]} in
            listen:* | reply:* | *:) ;;
            trace:*) mapfile -t COMPREPLY < <(compgen -W 'on off show' -- "$word") ;;
            allowlist-why:*) mapfile -t COMPREPLY < <(compgen -c -f -- "$word") ;;
            allowlist-*) ;;
            *:NAME) mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" list --names 2>/dev/null)" -- "$word") ;
    ;
            *:DIR) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;
            ;
            *:FILE) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;
            ;
            esac(($ { #all[@] } == 0)) || return fi mapfile - t COMPREPLY < < (compgen - W "$words" --"$word")
}
complete -o filenames -F _tavctl tavctl
)SCRIPT";
    return kSuccess;
}

} // namespace tavctl
