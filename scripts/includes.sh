#!/usr/bin/env bash
# includes.sh [check] - compares every include with the two blocks in docs/architecture.md: which files a directory may
# include, and the order of the components in ipc/. It also finds components that include one another in a circle.
# includes.sh levels - prints the order of ipc/ as the includes have it, for docs/architecture.md.
#
# A component is a .h/.cpp pair. A public header is a component of its own: its functions are in several files.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."

document=docs/architecture.md
public_headers=('include/*' 'platform/*/tav*.h')
found=0
declare -A exists row_of own allowed restricted level
declare -a edges

complain() { # place, what is wrong
    printf '%s: %s\n' "$1" "$2" >&2
    found=1
}

block() { # title: the lines between its two markers
    sed -n "/^<!-- $1: begin -->\$/,/^<!-- $1: end -->\$/p" "$document" | sed '1d;$d'
}

# Fills own[row] and allowed[row] with patterns, and row_of[pattern].
read_table() {
    local line names pattern row=0
    while IFS='|' read -r _ names line _; do
        [[ $names == *'`'* ]] || continue
        row=$((row + 1)) own[$row]='' allowed[$row]=''
        for pattern in $(grep -o '`[^`]*`' <<<"$names" | tr -d '`'); do
            row_of[$pattern]=$row
            own[$row]+=" $pattern"
        done
        [[ $line != *anything* ]] || allowed[$row]=anything
        for pattern in $(grep -o '`[^`]*`' <<<"$line" | tr -d '`'); do
            allowed[$row]+=" $pattern"
            [[ $pattern != '<'* ]] || restricted[$pattern]=1
        done
    done < <(block includes)
    ((row > 0)) || { complain "$document" "there is no table between the markers \"includes\""; exit 1; }
}

matches() { # path, patterns; "*" in a pattern matches "/" too
    local pattern path=$1
    shift
    for pattern; do
        # shellcheck disable=SC2053 # a pattern
        [[ $path == $pattern || ($pattern == */ && $path == "$pattern"*) ]] && return
    done
    return 1
}

# The row with the longest name that the file begins with.
find_row() { # file; sets row
    local pattern length=0
    row=
    for pattern in "${!row_of[@]}"; do
        [[ $1 == "$pattern"* ]] && ((${#pattern} > length)) || continue
        length=${#pattern} row=${row_of[$pattern]}
    done
    [[ -n $row ]]
}

# The file that an include means: beside the file or in a directory above it, or on the search path of the build.
resolve() { # file, name; sets target to a path, or to the name if it is not a file of the project
    local directory=${1%/*} place
    local -a places=()
    while [[ $directory == */* ]]; do
        places+=("$directory/")
        directory=${directory%/*}
    done
    places+=("$directory/" '' include/ platform/base/ platform/aux/ platform/event/ tests/support/ tests/stage/
        tools/tavctl/ bench/)
    for place in "${places[@]}"; do
        target=$place$2
        [[ -n ${exists[$target]:-} ]] && return
    done
    target=$2
    if [[ $2 == tavipc/* && -n ${exists[include/$2]:-} ]]; then target=include/$2; fi
    # Installed, the headers of the platform are in tavipc/ too.
    for place in platform/base platform/aux platform/event; do
        if [[ -n ${exists[$place/${2#tavipc/}]:-} ]]; then target=$place/${2#tavipc/}; fi
    done
}

component() { # file; sets name
    name=$1
    matches "$1" "${public_headers[@]}" || name=${1%.*}
}

read_order() {
    local line name number=0
    while read -r line; do
        number=$((number + 1))
        for name in $line; do level[ipc/$name]=$number; done
    done < <(block 'order of ipc')
}

check_order() { # place, component, component that it includes
    [[ $2 == ipc/* && $3 == ipc/* && $mode == check ]] || return 0
    ((${level[$3]:-0} <= ${level[$2]:-0})) ||
        complain "$1" "$3 comes after $2 in the order of ipc/ in $document"
}

check_include() { # file, line, include with its quotes or brackets
    local place=$1:$2 include=$3 target row name from
    resolve "$1" "${include:1:-1}"
    if [[ $include == '<'* && -z ${exists[$target]:-} ]]; then
        [[ -n ${restricted[$include]:-} ]] || return 0
        target=$include
    fi
    find_row "$1" || { complain "$1" "the table in $document has no row for it"; return; }
    # shellcheck disable=SC2086 # lists of patterns
    matches "$target" ${own[$row]} ${allowed[$row]} || [[ ${allowed[$row]} == anything* ]] ||
        complain "$place" "may not include $target (table in $document)"
    [[ -n ${exists[$target]:-} ]] || return 0
    component "$1"
    from=$name
    component "$target"
    [[ $from != "$name" ]] || return 0
    edges+=("$from $name")
    check_order "$place" "$from" "$name"
}

check_cycles() {
    local loop
    while read -r loop; do
        complain "$loop" "these components include one another"
    done < <(printf '%s\n' "${edges[@]}" | tsort 2>&1 >/dev/null | sed 's/^tsort: //' |
        awk '/loop:$/ { if (text) print text; text = ""; next } { text = text (text ? " " : "") $0 } END { if (text) print text }')
}

# The longest way down from each component of ipc/.
print_levels() {
    {
        printf '%s\n' "${edges[@]}" | awk '$1 ~ /^ipc\// && $2 ~ /^ipc\//' | sort -u
        printf '%s\n' "${!exists[@]}" | sed -n 's/^\(ipc\/[^.]*\)\..*/\1/p' | sort -u
    } | awk '
        { node[$1] = 1; if (NF == 2) { from[++count] = $1; to[count] = $2 } }
        END {
            for (round = 0; round < 100; ++round)
                for (i = 1; i <= count; ++i)
                    if (depth[from[i]] <= depth[to[i]]) { depth[from[i]] = depth[to[i]] + 1 }
            for (name in node) print depth[name] + 0, substr(name, 5)
        }' | sort -n -k1,1 -k2 |
        awk '{ line[$1] = line[$1] " " $2; last = $1 } END { for (i = 0; i <= last; ++i) print "   " line[i] }'
}

mode=${1:-check}
while read -r file; do exists[$file]=1; done < <(
    find . -path ./build -prune -o \( -name '*.h' -o -name '*.c' -o -name '*.cpp' -o -name '*.hpp' \) -print | sed 's,^\./,,')
read_table
read_order
while IFS=: read -r file line text; do
    [[ $text =~ [\<\"][^\>\"]*[\>\"] ]] && check_include "$file" "$line" "${BASH_REMATCH[0]}"
done < <(printf '%s\0' "${!exists[@]}" | xargs -0 grep -nHE '^[[:blank:]]*#[[:blank:]]*include[[:blank:]]*[<"]' | sort)
case $mode in
    levels) print_levels ;;
    check)
        for file in "${!exists[@]}"; do
            [[ $file != ipc/* || -n ${level[${file%.*}]:-} ]] ||
                complain "$file" "is not in the order of ipc/ in $document; scripts/includes.sh levels prints it"
        done
        check_cycles
        ((found == 0)) && echo "${#edges[@]} includes between components: as documented" ;;
    *) echo "usage: includes.sh [check | levels]" >&2; exit 2 ;;
esac
exit $found
