# The part of ./dev that runs the fuzz targets.
# shellcheck shell=bash

# What is in bin/ afterwards is what runs, so programs of earlier sources are removed.
build_fuzzers() {
    rm -f build/fuzz/bin/fuzz_*
    build fuzz
}

fuzz_one() { # target, seconds
    local dir=build/fuzz
    mkdir -p "$dir/corpus/$1" "$dir/crashes"
    # An allocation of more than 512 MiB fails, as it may on a small machine.
    ASAN_OPTIONS=max_allocation_size_mb=512:allocator_may_return_null=1:quarantine_size_mb=16 \
        timeout $(($2 + 120)) "$dir/bin/fuzz_$1" -max_total_time="$2" -timeout=20 -rss_limit_mb=2048 -max_len=8192 \
        -print_final_stats=1 -dict="$dir/seeds/$1.dict" -artifact_prefix="$dir/crashes/$1-" \
        "$dir/corpus/$1" "$dir/seeds/$1" >"$dir/$1.log" 2>&1 </dev/null || say "ERROR: status $?" >>"$dir/$1.log"
}

# In a subshell, so that it waits for its own processes only.
fuzz_all() ( # seconds, targets
    seconds=$1 running=0 started=0
    shift
    for target; do
        ((running < 2)) || { wait -n; ((running -= 1)); }
        fuzz_one "$target" "$seconds" &
        ((++running, ++started))
        say "[$started/$#] $target" # progress_in reads it
    done
    wait
)

# Runs each fuzz target for some seconds, two at once; each counts as one test.
run_fuzzers() { # seconds
    local target log status=0 targets=()
    for target in build/fuzz/bin/fuzz_*; do targets+=("${target##*/fuzz_}"); done
    rm -rf build/fuzz/seeds
    tests/fuzz/seeds.sh build/fuzz/seeds || return 1
    logged build/fuzz-run.log fuzz_all "$1" "${targets[@]}"
    for target in "${targets[@]}"; do
        log=build/fuzz/$target.log
        if grep -aq '^Done [1-9]' "$log" && ! grep -aq ERROR "$log"; then
            ((++passed))
            sed -nE "s/^#([0-9]+).*DONE +cov: ([0-9]+) ft: ([0-9]+).*/   $target: \1 inputs, coverage \2, features \3/p" "$log"
        else
            ((++failed))
            status=1
            grep -aE 'ERROR|check failed|runtime error|Test unit written' "$log" >&2 || tail -n 20 "$log" >&2
            say "$target: FAILED (all of its output: $log)" >&2
        fi
    done
    return $status
}
