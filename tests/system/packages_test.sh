#!/bin/bash
# packages_test.sh PACKAGES RELEASE KEY: checks the Debian packages in the directory PACKAGES, unpacked into a directory, and
# an installation of the build RELEASE as README.md describes it. KEY signs the allow-lists of both. Prints a line for each
# check: "ok: ..." or "FAILED: ...".
set -u
source=$(cd "$(dirname "$0")/../.." && pwd)
packages=$(realpath "$1") release=$(realpath "$2") key=$(realpath "$3")
place=$(mktemp -d /var/tmp/tavipc-XXXXXX)
trap 'rm -rf "$place"' EXIT
root=$place/root
agent=$root/usr/lib/tavipc
cd "$place" || exit 1
umask 022
failed=0

check() { # title, function
    local start=$SECONDS
    if (set -eu; "$2") >"$place/log" 2>&1 </dev/null; then
        echo "ok: $1, $((SECONDS - start)) s"
    else
        failed=1
        echo "FAILED: $1"
        tail -n 30 "$place/log"
    fi
}
# set -e has no effect in the condition of an "if", so these end the check.
must() { "$@" || { echo "failed: $*" >&2; exit 1; }; }
must_not() { ! "$@" || { echo "should have failed: $*" >&2; exit 1; }; }

field() { dpkg-deb -f "$packages/$1"_*.deb "$2"; }

unpacked() {
    local package
    must test "$(find "$packages" -maxdepth 1 -name '*.deb' | wc -l)" = 4
    for package in libtavipc0 libtavipc-dev tavipc-tools tavipc-bridge; do
        must dpkg-deb -x "$packages/$package"_*.deb "$root"
        must dpkg-deb -e "$packages/$package"_*.deb "$place/$package"
        dpkg-deb -c "$packages/$package"_*.deb | awk '{print $1, $2, $6}' | tee "$place/$package.list" | grep -v '^d' |
            awk '{print $3}' >>"$place/files"
    done
    must_not grep -E '^[-d].{4}w|^[-d].{7}w' "$place"/*.list # nobody else may write
    must_not grep -v ' root/root ' "$place"/*.list
    must test -z "$(sort "$place/files" | uniq -d)"
    must_not grep -vE '(/|/lib[a-z_]*\.so\.[0-9.]+|/copyright|/changelog(\.Debian)?\.gz)$' "$place/libtavipc0.list"
    (cd "$root" && must md5sum --quiet -c "$place"/*/md5sums)
    must grep -q 'activate-noawait ldconfig' "$place/libtavipc0/triggers"
    must test "$(field libtavipc0 Multi-Arch) $(field libtavipc-dev Multi-Arch)" = "same same"
    must test "$(gunzip -c "$root/usr/share/doc/libtavipc0/changelog.Debian.gz" | sed -n 's/^ -- .*>  //p' | date -f - +%s)" = \
        "${SOURCE_DATE_EPOCH:-$(git -C "$source" log -1 --format=%ct || stat -c %Y "$source/CHANGELOG.md")}"
    must test "$(field libtavipc-dev Depends)" = "libtavipc0 (= $(field libtavipc0 Version))"
    must grep -q "libtavipc0 (= $(field libtavipc0 Version))" <<<"$(field tavipc-tools Depends)"
    must grep -q 'libnats3.4 (' <<<"$(field tavipc-bridge Depends)"
    must test -s "$root/usr/share/doc/tavipc-bridge/examples/tav-bridge.ini" -a \
        -s "$root/usr/share/doc/tavipc-bridge/examples/nats-server.conf"
    ! command -v systemd-analyze >/dev/null ||
        must systemd-analyze security --offline=true --threshold=29 "$root/usr/lib/systemd/system/tav-bridge.service"
    must grep -qx "ExecStart=/usr/lib/tavipc/bin/tav-bridge" "$root/usr/lib/systemd/system/tav-bridge.service"
    must grep -qxe "ReadWritePaths=.* -/etc/tavipc" "$root/usr/lib/systemd/system/tav-bridge.service"
    must grep -q 'libuv1 (' <<<"$(field libtavipc0 Depends)"
}

# What the scripts of tavipc-bridge do on a machine without systemd, which is nothing, and on one with it.
scripts() {
    local systemd arguments
    printf '#!/bin/sh\necho "$@" >>%s\n' "$place/calls" | must install -m 755 /dev/stdin systemctl
    for systemd in "$place/none" "$place"; do
        for arguments in "prerm upgrade 2" "postinst configure 1" "prerm remove" "postrm remove"; do
            sed "s#/run/systemd/system#$systemd#" "tavipc-bridge/${arguments%% *}" >script
            # shellcheck disable=SC2086 # the arguments are words
            PATH=$place:$PATH must sh script ${arguments#* }
        done
    done
    must test "$(tr '\n' ';' <calls)" = \
        "daemon-reload;try-restart tav-bridge.service;stop tav-bridge.socket tav-bridge.service;daemon-reload;"
}

lean() { # stripped, without paths of the build
    local file
    for file in "$agent/bin/tavctl" "$agent/bin/tav-bridge" "$libraries"/lib{tavipc,tavbase,tavaux,tavcl_ev}.so.0; do
        must test -r "$file"
        must_not grep -E 'RPATH|RUNPATH' <<<"$(readelf -d "$file")"
        must_not grep debug_info <<<"$(readelf -S "$file")"
    done
    must_not grep -rlF "$source" "$root"
}

headers() {
    local header
    for header in "$root"/usr/include/tavipc/*.h; do
        printf '#include <tavipc/%s>\nextern int one;\n' "${header##*/}" | tee one.c >one.cpp
        must cc -std=c11 -pedantic -Wall -Wextra -Werror -I"$root/usr/include" -fsyntax-only one.c
        must c++ -std=c++20 -pedantic -Wall -Wextra -Werror -I"$root/usr/include" -fsyntax-only one.cpp
    done
}

# The README's programs in C and in C++, with pkg-config and with CMake.
consumers() {
    local flags
    export PKG_CONFIG_PATH=$libraries/pkgconfig
    must test "$(pkg-config --modversion tavipc)" = "$(field libtavipc0 Version | cut -d- -f1)"
    flags=$(pkg-config --cflags --libs tavipc)
    # shellcheck disable=SC2086 # the flags are words
    must cc -std=c11 -pedantic -Wall -Wextra -Werror hello.c -o "$agent/bin/by_pc" $flags
    # shellcheck disable=SC2086
    must c++ -std=c++20 -pedantic -Wall -Wextra -Werror hello.cpp -o "$agent/bin/by_pc_cpp" $flags
    cat >CMakeLists.txt <<'TEXT'
cmake_minimum_required(VERSION 3.25)
project(consumer C CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(tavipc 0.1 REQUIRED)
find_package(tavipc 0.2 QUIET)
if(tavipc_FOUND)
  message(FATAL_ERROR "another minor version satisfies")
endif()
find_package(tavipc 0.1 REQUIRED)
add_executable(by_cmake hello.c)
add_executable(by_cmake_cpp hello.cpp)
add_executable(by_parts hello.c)
target_link_libraries(by_cmake tavipc::tavipc)
target_link_libraries(by_cmake_cpp tavipc::tavipc)
target_link_libraries(by_parts tavipc::tavipc tavipc::tavcl_ev tavipc::tavaux tavipc::tavbase)
TEXT
    must cmake -S . -B built -DCMAKE_PREFIX_PATH="$root/usr" -DCMAKE_RUNTIME_OUTPUT_DIRECTORY="$agent/bin"
    must cmake --build built -j2
}

run() { LD_LIBRARY_PATH=$libraries timeout 60 "$@"; }

programs() {
    local name said
    for name in by_pc by_pc_cpp by_cmake by_cmake_cpp by_parts; do
        must run "$root/usr/bin/tavctl" allowlist add --key "$key" --dir "$root/etc/tavipc" "$name"
        said=$(run "$agent/bin/$name")
        must grep -q Success <<<"$said"
        [[ $name == *_cpp ]] || must test "$said" = "Success, 8: hello"
    done
}

# /usr/bin/tavctl finds the allow-list in /etc/tavipc through its links, and opens endpoints once the list contains it.
tool() {
    local status=0 tavctl=$root/usr/bin/tavctl
    must grep -qF "$(field libtavipc0 Version | cut -d- -f1)" <<<"$(run "$tavctl" --version)"
    must test "$(readlink "$agent/config.installed")" = /etc/tavipc
    run "$tavctl" probe nobody || status=$?
    must test $status = 4
    must run "$tavctl" allowlist add --key "$key" --dir "$root/etc/tavipc" tavctl
    must mkfifo said
    run "$tavctl" reply --echo --count 1 echo >said &
    exec 3<said
    must read -r <&3 # "answering as ...", once it has the socket
    must test "$(run "$tavctl" request --raw echo hello)" = hello
    must wait $!
    must bash -n "$root/usr/share/bash-completion/completions/tavctl"
}

# Each exported function has a manual page that names it.
pages() {
    local name page man=$root/usr/share/man
    must test "$(find "$man/man3" -name '*.gz' | wc -l)" -gt 100
    for name in $(cat "$source"/packaging/exports*.txt | grep '^[^#]' | c++filt | sed 's/(.*//'); do
        page=$man/man3/$name.3.gz
        must test -r "$page"
        must grep -qw "$name" <<<"$(mandoc -Tascii "$page" | sed "s/.\x08//g")"
    done
    for page in $(find "$man" -type f -name '*.gz'); do
        gunzip -c "$page" | must mandoc -Tlint -W error
    done
}

# The README's commands from the installation on, in directories of this test and with a given agent id.
readme() {
    local commands said
    commands=$(sed -n '/^An agent is a directory/,/^`deploy_type/p' "$source/README.md" | sed -n 's/^    //p' | sed \
        -e "s#^\./dev install \(.*\)#cmake --install '$release' --prefix \1 >install.log#" \
        -e "s#build/release/devkey/private.pem#'$key'#; s#/tmp/agent#$place/readme#g" \
        -e "s#deploy_type = tmp/agent#deploy_type = tmp/${place##*/}#")
    must test "$(wc -l <<<"$commands")" -gt 5
    said=$(bash -euc "$(sed '$d' <<<"$commands")
        printf 'cnapp = 1\nhostid = 7\n' >>'$place/readme/config/agent.ini'
        $(tail -n 1 <<<"$commands")" | tail -n 1)
    must test "$said" = "Success, 8: hello"
    must grep -qx "ExecStart=$place/readme/bin/tav-bridge" readme/lib/systemd/system/tav-bridge.service
}

check "packages, owners, dependencies" unpacked
test -x "$root/usr/bin/tavctl" || exit 1
libraries=$(dirname "$(find "$root" -name libtavipc.so.0)")
for language in c cpp; do
    sed -n "/^\`\`\`$language\$/,/^\`\`\`\$/p" "$source/README.md" | sed '/^```/d' >"hello.$language"
done
[[ -s hello.cpp ]] || cp hello.c hello.cpp # one program for both languages
mv "$agent/config" "$agent/config.installed" # it leads to the machine's /etc
ln -s "$root/etc/tavipc" "$agent/config"
sed -e "s#^;deploy_type.*#deploy_type = tmp/${place##*/}#; s/^;cnapp.*/cnapp = 1/; s/^;hostid.*/hostid = 7/" \
    -e 's/^;\([a-z0-9_]* = \)/\1/' "$root/usr/share/doc/tavipc-tools/examples/agent.ini" >"$root/etc/tavipc/agent.ini"
check "scripts of tavipc-bridge" scripts
check "stripped, no paths of the build" lean
check "each header alone, C and C++" headers
check "programs built by pkg-config and by CMake" consumers
check "the programs run" programs
check "/usr/bin/tavctl" tool
check "manual pages" pages
check "the README's program, installed as it says" readme
exit $failed
