# What the other parts of ./dev use: messages, packages, logs with progress, builds and the phases of a test run.
# shellcheck shell=bash

jobs=$(($(nproc) + 1))
passed=0 failed=0
declare -A background=() # the process ids of what must end with this script

packages=(cmake ninja-build g++ pkg-config clang-format libuv1-dev zlib1g-dev libssl-dev libcjson-dev
          libjansson-dev uuid-dev libinih-dev libgtest-dev libgmock-dev libbenchmark-dev mandoc)

say() { printf '%s\n' "$*"; }
die() { printf './dev: %s\n' "$*" >&2; exit 1; }

stop_background() {
    ((${#background[@]} == 0)) || kill "${!background[@]}" 2>/dev/null || true
    background=()
}
trap stop_background EXIT

# How far the command that writes this log is: by the lines of ninja, ctest and run_fuzzers.
progress_in() { # log
    tail -c 4000 "$1" 2>/dev/null | sed -nE -e 's/^\[([0-9]+)\/([0-9]+)\] .*/\1 of \2 steps/p' \
        -e 's/^ *([0-9]+)\/([0-9]+) Test +#.*/\1 of \2 tests/p' | tail -n 1
}

# Prints the progress until it is killed: in a terminal every second in one line, else a line every 30 seconds.
show_progress() { # log
    local start=$SECONDS last=$SECONDS text
    while sleep 1 >/dev/null 2>&1; do
        [[ -t 1 ]] || ((SECONDS - last >= 30)) || continue
        last=$SECONDS
        text=$(progress_in "$1")
        text="   ... ${text:+$text, }$((SECONDS - start)) s"
        if [[ -t 1 ]]; then printf '\r\033[K%s' "$text"; else say "$text"; fi
    done
}

# Runs a command with its output in a log, and shows the progress meanwhile.
logged() { # log, command
    local log=$1 status=0 progress
    shift
    mkdir -p build
    : >"$log"
    show_progress "$log" &
    progress=$!
    background[$progress]=1
    "$@" >"$log" 2>&1 </dev/null || status=$?
    kill "$progress" 2>/dev/null || true
    wait "$progress" 2>/dev/null || true
    unset "background[$progress]"
    [[ ! -t 1 ]] || printf '\r\033[K'
    return $status
}

# The same, and shows the end of the log if the command fails.
quietly() { # log, command
    logged "$@" && return
    tail -n 80 "$1" >&2
    say "failed: ${*:2} (all of its output: $1)" >&2
    return 1
}

need_packages() {
    local missing=() package root=()
    command -v dpkg-query >/dev/null || return 0 # not Debian: CMake reports what is missing
    for package in "${packages[@]}"; do
        # shellcheck disable=SC2016 # the format is dpkg-query's
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    if ((EUID != 0)); then
        root=(sudo)
        [[ -t 0 ]] || root+=(-n) # there is no terminal for a password
        "${root[@]}" true 2>/dev/null ||
            die "Debian packages are missing. As root: apt-get install ${missing[*]}"
    fi
    say "installing ${missing[*]}"
    quietly build/apt.log "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
    quietly build/apt.log "${root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"
}

# CPU time of a first build without ccache, in seconds, as measured with g++ 12 and clang 14.
declare -A build_seconds=([demo]=97 [release]=200 [asan]=240 [tsan]=240 [m32]=200 [fuzz]=100 [bench]=60 [package]=90
                          [install]=90 [coverage]=150)

announce_first_build() { # name in build_seconds, a file that a build leaves
    local minutes=$(((build_seconds[$1] / $(nproc) + 59) / 60))
    [[ -e $2 ]] || say "The first build takes about $minutes minute$( ((minutes == 1)) || echo s)."
}

configure() { # preset, CMake options
    quietly "build/$1.log" cmake --preset "$@"
}

# Configures and builds a preset.
build() { # preset, CMake options
    announce_first_build "$1" "build/$1/.built"
    configure "$@" || return 1
    grep -o 'Allow-list key: a DEVELOPMENT.*' "build/$1.log" || true
    quietly "build/$1.log" cmake --build --preset "$1" -j "$jobs" || return 1
    touch "build/$1/.built"
}

# Builds a part of the release preset.
build_release_target() { # target
    quietly build/release.log cmake --build --preset release -j "$jobs" --target "$1"
}

# One phase of a test run: its title, the result, the time. A phase that fails without a failed test, as a build does,
# counts as one failure.
phase() { # title, command
    local title=$1 start=$SECONDS status=ok before=$failed
    shift
    say "== $title"
    "$@" || status=FAILED
    [[ $status == ok || $failed != "$before" ]] || ((++failed))
    say "   $status, $((SECONDS - start)) s"
    [[ $status == ok ]]
}

# The last line of a test run; its status is that of the run.
summarize() {
    say "$passed passed, $failed failed"
    ((failed == 0 && passed > 0))
}
