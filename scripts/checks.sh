# The parts of ./dev that run tests and checks, and count them in $passed and $failed.
# shellcheck shell=bash

count() { # status of a test, its name, its log
    if (($1 == 0)); then
        ((++passed))
    else
        ((++failed))
        tail -n 80 "$3" >&2
        say "$2: FAILED (all of its output: $3)" >&2
    fi
    return "$1"
}

# Runs the tests of a preset with ctest.
run_tests() { # preset, options of ctest
    local log=build/$1-tests.log bad total
    logged "$log" ctest --preset "$1" -j "$jobs" --output-on-failure "${@:2}" || true
    bad=$(sed -nE 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/p' "$log")
    total=$(sed -nE 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/p' "$log")
    if [[ -z $total || $bad != 0 ]]; then
        tail -n 200 "$log" >&2
        ((failed += ${bad:-1}, passed += ${total:-0} - ${bad:-0})) || true
        return 1
    fi
    ((passed += total)) || true
    say "   $total passed"
}

# Runs the demo five times, the third time while a loop keeps each processor busy. The loops end by themselves, too.
run_demos() {
    local i status=0 processor
    for i in 1 2 3 4 5; do
        if ((i == 3)); then
            for ((processor = 0; processor < $(nproc); ++processor)); do
                timeout 120 bash -c 'while :; do :; done' &
                background[$!]=1
            done
        fi
        logged "build/demo-$i.log" timeout 300 build/release/bin/tavipc-demo || status=$?
        ((i != 3)) || stop_background
        count $status "demo, run $i" "build/demo-$i.log" || return 1
    done
    say "   5 runs passed, one of them on busy processors"
}

# Installs and uses the Debian packages.
run_packages() {
    local log=build/packages-tests.log status=0 good bad
    make_packages || return 1
    logged "$log" tests/system/packages_test.sh build/package build/release \
        "${TAVIPC_SIGNING_KEY:-build/release/devkey/private.pem}" || status=1
    good=$(grep -c '^ok: ' "$log") || true
    bad=$(grep -c '^FAILED: ' "$log") || true
    ((passed += good, failed += bad)) || true
    ((status == 0)) || cat "$log" >&2
    say "   $good passed"
    return $status
}

# Compares the binary interface of the release build with the stored one, for each of the four libraries. There may be none
# for this architecture.
run_abi() {
    local log=build/abi.log status=0 good
    logged "$log" packaging/abi/abi.sh compare build/release || status=1
    sed -n 's/^skipped: /   &/p' "$log" | grep . && return $status
    good=$(grep -c ': as stored$' "$log") || true
    ((passed += good, failed += 4 - good)) || true
    ((status == 0)) || cat "$log" >&2
    say "   $good passed"
    return $status
}

# Runs each unit and platform test program under valgrind.
run_valgrind() {
    local source name status=0 one leaks
    mkdir -p build/valgrind
    for source in tests/unit/*_test.cpp tests/platform/*_test.cpp; do
        name=$(basename "$source" .cpp) one=0 leaks=full
        case $name in # their forked children keep what other threads had; AddressSanitizer looks for leaks in these
        allow_list_test | aux_test | event_fork_test | ipc_file_test) leaks=no ;;
        esac
        logged "build/valgrind/$name.log" timeout 600 valgrind --quiet --leak-check=$leaks \
            --show-leak-kinds=definite,indirect,possible --errors-for-leak-kinds=definite,indirect,possible \
            --track-fds=no --child-silent-after-fork=yes --error-exitcode=99 "build/release/bin/$name" || one=$?
        count $one "$name" "build/valgrind/$name.log" || status=1
    done
    return $status
}

sources() {
    find agentid bench bridge common compress examples include ipc platform tests tools -name '*.h' -o -name '*.c' -o -name '*.cpp' -o -name '*.hpp'
}

check_format() {
    local version
    version=$(clang-format --version 2>/dev/null | sed -nE 's/.*version ([0-9]+).*/\1/p') || true
    if [[ $version != 14 ]]; then
        say "   not checked: this needs clang-format 14 and finds ${version:-none}"
        return 0
    fi
    # shellcheck disable=SC2046 # the file names have no blanks
    if clang-format --dry-run -Werror $(sources) >build/format.log 2>&1; then
        ((++passed))
    else
        ((++failed))
        sed -nE 's/^([^ :]+):[0-9]+:[0-9]+: error:.*/\1/p' build/format.log | sort -u >&2
        say "The format of these files is wrong. ./dev format corrects it." >&2
        return 1
    fi
}

check_includes() {
    local status=0
    scripts/includes.sh >build/includes.log 2>&1 || status=$?
    count $status "includes" build/includes.log
}

# A 32-bit build that accepts the modules of the release build.
build_m32() {
    local key_option
    [[ -d build/m32/sysroot/usr ]] ||
        quietly build/i386.log tools/i386_sysroot.sh build/m32/sysroot "${i386_packages[@]}" || return 1
    find_key || return 1
    [[ $key_option != */build/release/devkey/public.pem ]] || cp -rp build/release/devkey build/m32/
    build m32 "$key_option"
}

# Prints the statement coverage of each directory of the product after the tests of the preset "coverage".
report_coverage() {
    local -a notes
    mapfile -t notes < <(find build/coverage -name '*.gcno' -not -path '*/tests/*' -not -path '*/tools/*' \
        -not -path '*/examples/*')
    gcov --no-output --relative-only --source-prefix "$PWD" "${notes[@]}" >build/coverage.log 2>&1 || return 1
    awk -F"'" '
        /^File/ { file = $2; next }
        /^Lines executed/ && file ~ /^(include|ipc|agentid|compress|platform|common)\// {
            split($0, part, /[:% ]+/) # "Lines executed", percent, "of", lines
            split(file, directory, "/")
            covered = int(part[3] * part[5] / 100 + 0.5)
            lines[directory[1]] += part[5]; hit[directory[1]] += covered
            all_lines += part[5]; all_hit += covered
            if (covered < part[5]) printf "  %5.1f %%  %4d of %4d  %s\n", part[3], covered, part[5], file
        }
        /^Lines executed/ { file = "" }
        END {
            print ""
            for (name in lines) printf "%6.2f %%  %4d of %4d  %s/\n", 100 * hit[name] / lines[name], hit[name], lines[name], name
            if (all_lines) printf "%6.2f %%  %4d of %4d statement lines in all\n", 100 * all_hit / all_lines, all_hit, all_lines
            exit !all_lines
        }' build/coverage.log
}
