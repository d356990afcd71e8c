#!/bin/sh
# exports_test.sh LIBRARY FOLDER: the library's dynamic symbols are exactly those of FOLDER/exports.txt, each with the
# version of its soname (TAVIPC_0 for libtavipc.so.0), and of exports_1.txt, with the version TAVIPC_1.
set -eu
first=TAVIPC_$(readelf -d "$1" | sed -n 's/.*SONAME.*\[.*\.so\.\([0-9]*\)\]/\1/p')
names=$(mktemp)
trap 'rm -f "$names"' EXIT
list() { echo "$1"; grep -v '^#' "$2" | grep . | sed "s/\$/@@$1/"; }
{ list "$first" "$2/exports.txt"; list TAVIPC_1 "$2/exports_1.txt"; } | LC_ALL=C sort >"$names"
nm -D --defined-only "$1" | awk '{print $3}' | sed 's/^\(TAVIPC_[01]\)@@\1$/\1/' | LC_ALL=C sort |
    diff "$names" - && exit 0
echo "< is in the list and not exported, > is exported and not in the list" >&2
exit 1
