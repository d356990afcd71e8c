#!/bin/sh
# man_test.sh SOURCE TAVCTL: the pages of section 3 name every exported function and every function of the platform's
# headers once each, with the headers' prototypes; the programs in them compile; mandoc has nothing to say.
set -eu
place=$(mktemp -d /var/tmp/tavipc-XXXXXX)
trap 'rm -rf "$place"' EXIT
trap 'exit 1' HUP INT PIPE TERM
cd "$1"
failed=0
mkdir "$place/tavipc"
cp include/tavipc/*.h platform/base/tavbase.h platform/aux/tavaux.h platform/event/tavcl_ev.h "$place/tavipc"

# Names: a type-encoded one, _Z<length>name..., stands as C has it.
grep -v '^#' packaging/exports.txt | grep . |
    awk 'match($0, /^_Z[0-9]+/) { $0 = substr($0, RLENGTH + 1, substr($0, 3, RLENGTH - 2)) } { print }' >"$place/names"
(cd "$place/tavipc" && sed -n 's/^[A-Z_]*_API [^(]*[ *]\([A-Za-z_0-9]*\)(.*/\1/p' tavbase.h tavaux.h tavcl_ev.h) \
    >>"$place/names"
LC_ALL=C sort -o "$place/names" "$place/names"
awk '/^\.Sh/ { inside = $2 == "NAME" } inside && $1 == ".Nm" && $2 != "tavipc" { print $2 }' packaging/man/*.3 |
    LC_ALL=C sort | diff "$place/names" - || {
    echo "< has no page, > is no function, or a page has it already" >&2
    failed=1
}

# Prototypes, compared without blanks.
sed 's,//.*,,' "$place"/tavipc/*.h | tr -d ' \n' >"$place/headers"
awk '{ text = substr($0, index($0, " ") + 1) }
     $1 == ".Ft" { type = text }
     $1 == ".Fn" && type != "" { name = $2; sub(/^[^ ]* /, "", text); print type name "(" text ")"; type = "" }
     $1 == ".Fo" { list = type $2 "("; comma = type = "" }
     $1 == ".Fa" && list != "" { list = list comma text; comma = "," }
     $1 == ".Fc" { print list ")"; list = "" }' packaging/man/*.3 | tr -d ' "' >"$place/prototypes"
[ "$(wc -l <"$place/prototypes")" -eq "$(grep -vc '^g_vmid$' "$place/names")" ] || {
    echo "not every function has its prototype in a SYNOPSIS" >&2
    failed=1
}
while read -r prototype; do
    grep -qF "_API$prototype" "$place/headers" || { echo "not in the headers: $prototype" >&2; failed=1; }
done <"$place/prototypes"

# Programs.
for page in packaging/man/*.3; do
    awk '/^\.Sh/ { inside = $2 == "EXAMPLES" } inside && /^\.Bd -literal$/ { code = 1; next } /^\.Ed/ { code = 0 }
         code { gsub(/\\e/, "\\"); print }' "$page" >"$place/example.c"
    [ ! -s "$place/example.c" ] || cc -std=c11 -pedantic -Wall -Wextra -Werror -fsyntax-only -I"$place" \
        "$place/example.c" || { echo "$page: the example does not compile" >&2; failed=1; }
done

# The tool's commands and options, as they stand in mdoc.
for command in "" $("$2" completion -- ""); do
    "$2" completion -- $command - # options; the commands without one have a word of their own
    case $command in "" | allowlist) "$2" completion -- $command "" ;; esac
done | LC_ALL=C sort -u >"$place/words"
[ "$(wc -l <"$place/words")" -gt 40 ] || { echo "the tool tells no options" >&2; failed=1; }
while read -r word; do
    macro=$(echo "$word" | sed 's/^--/Fl Fl /; s/^-/Fl /')
    grep -qE -- "(^|[ .])$macro( |,|\$)" packaging/man/tavctl.1 || { echo "tavctl.1 lacks $word" >&2; failed=1; }
done <"$place/words"

if command -v mandoc >/dev/null; then
    mandoc -Tlint -W warning packaging/man/*.[1-8] || failed=1
else
    echo "mandoc is not installed: pages not linted" >&2
fi
exit $failed
