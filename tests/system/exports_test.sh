#!/bin/sh
# exports_test.sh LIBRARY DIRECTORY: the library exports exactly the names in DIRECTORY/exports.txt with the version
# TAVIPC_0 and those in DIRECTORY/exports_1.txt, if there is one, with TAVIPC_1.
set -eu
expected=$(mktemp)
trap 'rm -f "$expected"' EXIT
names() { # list, version
    [ ! -f "$1" ] || grep -v '^#' "$1" | grep . | sed "s/\$/@@$2/"
}
{
    names "$2/exports.txt" TAVIPC_0
    names "$2/exports_1.txt" TAVIPC_1
} | LC_ALL=C sort >"$expected"
readelf -d "$1" | grep -q 'SONAME.*\[libtavipc\.so\.0\]' || { echo "the soname is not libtavipc.so.0" >&2; exit 1; }
nm -D --defined-only "$1" | awk '$2 != "A" { print $3 }' | LC_ALL=C sort | diff "$expected" - && exit 0
echo "< is listed and not exported, > is exported and not listed" >&2
exit 1
