#!/bin/bash
# abi.sh compare|store BUILD: compares the binary interface of the four libraries with its description in
# packaging/abi/MACHINE, or writes that description. Only types that the public headers show belong to the interface.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source=$(realpath "$here/../..")
stored=$here/$(uname -m)
headers=()
for directory in include/tavipc platform/base platform/aux platform/event; do
    headers+=(--headers-dir "$source/$directory")
done
libraries=(libtavipc libtavbase libtavaux libtavcl_ev)

describe() { # library of the build, output
    abidw "${headers[@]}" --suppressions "$here/suppressions" --drop-private-types --drop-undefined-syms --exported-interfaces-only --no-corpus-path \
        --no-comp-dir-path --no-show-locs --no-elf-needed --type-id-style hash --out-file "$2" "$1"
    sed -i "s# path='$source/# path='#" "$2"
}

compare() { # library, description of the build's
    local stored_one=$stored/$1.abi report
    [[ -r $stored_one ]] || { echo "$1: there is no packaging/abi/$(uname -m)/$1.abi; ./dev abi store writes it"; return 1; }
    if ! report=$(abidiff --no-added-syms "$stored_one" "$2"); then
        printf '%s\n' "$report"
        echo "$1: the interface changes for programs that are already built. Keep it, and add a new function instead."
        echo "If the change harms no program (another constant, for example), or programs are to be built again: raise the"
        echo "version, and also SOVERSION and the symbol version if old programs must not load this library. Describe the"
        echo "change in CHANGELOG.md, run ./dev abi store and commit packaging/abi."
        return 1
    fi
    if ! report=$(abidiff "$stored_one" "$2"); then
        printf '%s\n' "$report"
        echo "$1: new parts of the interface are not stored. Run ./dev abi store and commit packaging/abi."
        return 1
    fi
    echo "$1: as stored"
}

[[ $# == 2 && $1 =~ ^(compare|store)$ ]] || { echo "usage: abi.sh compare|store BUILD" >&2; exit 2; }
if [[ $1 == compare && ! -d $stored ]]; then
    echo "skipped: no description for $(uname -m) is stored; ./dev abi store writes one"
    exit 0
fi
fresh=$(mktemp -d)
trap 'rm -rf "$fresh"' EXIT
status=0
for library in "${libraries[@]}"; do
    describe "$2/lib/$library.so" "$fresh/$library.abi"
    if [[ $1 == store ]]; then
        mkdir -p "$stored"
        cp "$fresh/$library.abi" "$stored/"
        echo "$library: stored in packaging/abi/$(uname -m)"
    else
        compare "$library" "$fresh/$library.abi" || status=1
    fi
done
exit $status
