#!/bin/sh
# man_test.sh SOURCE TAVCTL: the manual pages agree with headers, export list and tool; all examples compile.
set -eu
place=$(mktemp -d /var/tmp/tavipc-XXXXXX)
trap 'rm -rf "$place"' EXIT
trap 'exit 1' HUP INT PIPE TERM
cd "$1"
failed=0
fail() { echo "$*" >&2; failed=1; }
mkdir "$place/tavipc"
cp include/tavipc/*.h* platform/*/tav*.h "$place/tavipc"

# Each exported function and each function of the platform headers is in one NAME section. The export lists have
# type-encoded names: _Z<length>name...
cat packaging/exports*.txt | grep '^[^#]' |
    awk 'match($0, /^_Z[0-9]+/) { $0 = substr($0, RLENGTH + 1, substr($0, 3, RLENGTH - 2)) } { print }' >"$place/names"
(cd "$place/tavipc" && sed -n 's/^[A-Z_]*_API [^(]*[ *]\([A-Za-z_0-9]*\)(.*/\1/p' tavbase.h tavaux.h tavcl_*.h) \
    >>"$place/names"
LC_ALL=C sort -o "$place/names" "$place/names"
awk '/^\.Sh/ { inside = $2 == "NAME" } inside && $1 == ".Nm" && $2 != "tavipc" { print $2 }' packaging/man/*.3 |
    LC_ALL=C sort | diff "$place/names" - || fail "< is on no page, > is not a function or is on two pages"

# Each function has its prototype in a SYNOPSIS, equal to the header's but for blanks.
sed 's,//.*,,' "$place"/tavipc/*.h | tr -d ' \n' >"$place/headers"
awk '{ text = substr($0, index($0, " ") + 1) }
     $1 == ".Fn" && type != "" { sub(/^[^ ]* /, "", text); gsub(/" "/, ",", text); print type $2 "(" text ")" }
     { type = $1 == ".Ft" ? text : "" }' packaging/man/*.3 | tr -d ' "' >"$place/prototypes"
[ "$(wc -l <"$place/prototypes")" -eq "$(grep -vc '^g_vmid$' "$place/names")" ] || fail "a SYNOPSIS lacks a prototype"
while read -r prototype; do
    grep -qF "_API$prototype" "$place/headers" || fail "not in the headers: $prototype"
done <"$place/prototypes"

# Examples: those of the pages, and the programs in README.md.
compile() { "$@" -pedantic -Wall -Wextra -Werror -fsyntax-only -I"$place" || fail "does not compile: $page"; }
for page in packaging/man/*.3; do
    awk '/^\.Sh/ { inside = $2 == "EXAMPLES" } inside && /^\.Bd -literal$/ { code = 1; next } /^\.Ed/ { code = 0 }
         code { gsub(/\\e/, "\\"); print }' "$page" >"$place/example.c"
    [ ! -s "$place/example.c" ] || compile cc -std=c11 "$place/example.c"
done
page=README.md
for language in c cpp; do
    awk -v begin="\`\`\`$language" '/^```/ { code = $0 == begin; next } code' $page >"$place/hello.$language"
    [ -s "$place/hello.$language" ] || fail "$page has no program in $language"
done
compile cc -std=c11 "$place/hello.c"
compile c++ -std=c++20 "$place/hello.cpp"
page=include/tavipc/tavipc.hpp
for compiler in c++ clang++; do
    if command -v $compiler >/dev/null; then
        for program in coroutines file_transfer request_pool; do
            compile $compiler -std=c++20 examples/$program.cpp
            compile $compiler -std=c++20 -fno-exceptions examples/$program.cpp
        done
    fi
done

# tavctl.1 has each command and each option of the tool, as its completion lists them.
tool=$2
words() { "$tool" completion -- "$@"; }
{
    words -
    words ''
    words trace ''
    words allowlist ''
    words '' | while read -r command; do words "$command" -; done
    words allowlist '' | while read -r command; do words allowlist "$command" -; done
} | LC_ALL=C sort -u >"$place/words"
[ "$(wc -l <"$place/words")" -gt 40 ] || fail "the tool's completion lists too few words"
while read -r word; do
    macro=$(echo "$word" | sed 's/^--/Fl Fl /; s/^-/Fl /')
    grep -qE -- "(^|[ .])$macro( |,|\$)" packaging/man/tavctl.1 || fail "tavctl.1 lacks $word"
done <"$place/words"

if command -v mandoc >/dev/null; then
    mandoc -Tlint -W warning packaging/man/*.[1-8] || failed=1
else
    echo "mandoc is not installed: pages not linted" >&2
fi
exit $failed
