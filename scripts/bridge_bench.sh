#!/usr/bin/env bash
# bridge_bench.sh BUILD - two sites and one nats-server on the loopback address: throughput of both classes and the round trip
# of a request, beside what nats.c's own publisher and subscriber reach. With root it runs in a network namespace of its own,
# with the queue length that the packages set.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
build=$(readlink -f "$1")
if ((EUID == 0)) && [[ -z ${TAVBRIDGE_INSIDE:-} ]] && unshare -n true 2>/dev/null; then
    TAVBRIDGE_INSIDE=1 exec unshare -n "$0" "$build"
fi
source scripts/bridge_sites.sh
if [[ -n ${TAVBRIDGE_INSIDE:-} ]]; then
    ip link set lo up
    echo 512 >/proc/sys/net/unix/max_dgram_qlen || true
fi

nats-server -js -a 127.0.0.1 -p 14300 -sd "$place/engine" >"$place/server.log" 2>&1 &
process[server]=$!
load=$build/bin/tavbridge-load
url=nats://127.0.0.1:14300
until_ok 10 "$load" native $url request 0 10

run() { # title, classes of nats.c, size, count
    local result seconds kind
    "$place/b/bin/tavbridge-load" sink <>"$place/fifo" >"$place/sink.txt" 2>&1 &
    process[sink]=$!
    until_ok 10 "$place/b/bin/tavctl" probe -c 1 sink
    until_ok 10 "$place/a/bin/tavctl" probe -c 1 sink@3
    "$place/a/bin/tavbridge-load" send sink@3 "$4" 7 "$3" >"$place/send.txt" || give_up "$(cat "$place/send.txt")"
    for _ in {1..600}; do
        echo >"$place/fifo"
        sleep 0.1
        result=$(tail -n 1 "$place/sink.txt")
        [[ $result == "arrived $4 "* ]] && break
    done
    kill "${process[sink]}"
    wait "${process[sink]}" 2>/dev/null || true
    seconds=${result##* }
    echo "bridge $1: $result, $(awk "BEGIN { printf \"%.0f/s, %.1f MB/s\", $4 / $seconds, $4 * $3 / $seconds / 1e6 }")"
    for kind in $2; do
        "$load" native $url "$kind" "$3" "$4" |
            awk '{ print; for (i = 1; i <= NF; i++) if ($i == "in") { n = $3; size = $5; t = $(i + 1) }
                   printf "  %.0f/s, %.1f MB/s\n", n / t, n * size / t / 1e6 }'
    done
}

start_sites() {
    make_site a 2 1001 $url
    make_site b 3 1002 $url
    for site in a b; do
        "$place/$site/bin/tav-bridge" >"$place/bridge-$site.log" 2>&1 &
        process[$site]=$!
    done
    for site in a b; do until_ok 20 "$place/$site/bin/tavctl" probe -c 1 tavbridge; done
    sleep 2
}
mkfifo "$place/fifo"
start_sites
for site in a b; do until_ok 20 "$place/$site/bin/tav-bridge" --check; done
run durable "durable ids" 160 100000
run durable "durable ids" 16000 20000
"$place/b/bin/tavbridge-load" echo &
process[echo]=$!
until_ok 10 "$place/a/bin/tavctl" probe -c 1 echo@3
"$place/a/bin/tavbridge-load" ping echo@3 5000
echo "within one location: $("$place/b/bin/tavbridge-load" ping echo 5000)"
"$load" native $url request 0 5000
for site in a b echo; do kill "${process[$site]}" && wait "${process[$site]}" || true; done

printf '[ipc_proxy]\ndisable_offline_cache = 1\n' >"$place/ipc.conf"
ipc_conf=$place/ipc.conf
start_sites
run core core 160 200000
run core core 16000 50000
echo "memory: $(grep -h VmHWM /proc/"${process[a]}"/status /proc/"${process[b]}"/status | tr -s '\t\n' '  ')"
