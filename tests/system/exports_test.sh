#!/bin/sh
# exports_test.sh LIBRARY LIST: the library's dynamic symbols are exactly the list's, both ways.
set -eu
names=$(mktemp)
trap 'rm -f "$names"' EXIT
grep -v '^#' "$2" | grep . | LC_ALL=C sort >"$names"
nm -D --defined-only "$1" | awk '{print $3}' | LC_ALL=C sort | diff "$names" - && exit 0
echo "< is in the list and not exported, > is exported and not in the list" >&2
exit 1
