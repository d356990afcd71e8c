#!/bin/bash
# abi.sh compare|store BUILD: the binary interface of the four libraries, as programs that are already built rely on it,
# against its description in packaging/abi/MACHINE; or writes that anew. Types that the public headers do not show are no
# part of it.
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
        echo "$1: the interface differs for programs that are already built. Keep it, and put what is new beside it in a"
        echo "function of its own. If they are not harmed (another constant, say), or are meant to be built again: raise"
        echo "the version, with SOVERSION and the symbol version when old programs must not load this library; tell it in"
        echo "CHANGELOG.md; then ./dev abi store and commit packaging/abi."
        return 1
    fi
    if ! report=$(abidiff "$stored_one" "$2"); then
        printf '%s\n' "$report"
        echo "$1: what is new is not stored: ./dev abi store, and commit packaging/abi."
        return 1
    fi
    echo "$1: as stored"
}

[[ $# == 2 && $1 =~ ^(compare|store)$ ]] || { echo "usage: abi.sh compare|store BUILD" >&2; exit 2; }
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
