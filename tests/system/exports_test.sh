#!/bin/sh
# exports_test.sh LIBRARY LIST: the library's dynamic symbols are exactly the list's, both ways, and each carries the
# version of its soname: TAVIPC_0 for libtavipc.so.0.
set -eu
version=TAVIPC_$(readelf -d "$1" | sed -n 's/.*SONAME.*\[.*\.so\.\([0-9]*\)\]/\1/p')
names=$(mktemp)
trap 'rm -f "$names"' EXIT
{ echo "$version"; grep -v '^#' "$2" | grep . | sed "s/\$/@@$version/"; } | LC_ALL=C sort >"$names"
nm -D --defined-only "$1" | awk '{print $3}' | sed "s/^$version@@$version\$/$version/" | LC_ALL=C sort |
    diff "$names" - && exit 0
echo "< is in the list and not exported, > is exported and not in the list" >&2
exit 1
