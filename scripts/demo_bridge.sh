#!/usr/bin/env bash
# demo_bridge.sh BUILD - three locations joined by tav-bridge through one nats-server on a free port, in a directory of its
# own. With root and a kernel that allows it, each location is in a network namespace. It checks what it shows, and ends
# with status 1 at the first check that fails.
set -euo pipefail

build=$(readlink -f "$1")
place=$(mktemp -d /var/tmp/tavipc-XXXXXX)
tag=tvb$$
spaces=0
declare -A location=([a]=2 [b]=3 [c]=4) process=()

cleanup() {
    trap - EXIT
    local name
    for name in "${!process[@]}"; do kill -9 "${process[$name]}" 2>/dev/null || true; done
    wait 2>/dev/null || true
    ((spaces == 0)) || remove_spaces
    rm -rf "$place"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM

show() { printf '  %-13s%s\n' "$1" "$2"; }
kill_one() { # what: at once, and without a line of the shell about it
    kill -9 "${process[$1]}"
    wait "${process[$1]}" 2>/dev/null || true
}
fail() {
    printf 'demo-bridge: FAILED: %s\n' "$*" >&2
    tail -n 5 "$place"/*.log >&2 || true
    exit 1
}

# Waits until the command succeeds.
await() { # seconds, what, command
    local end=$((SECONDS + $1))
    until "${@:3}" >/dev/null 2>&1; do
        ((SECONDS < end)) || fail "$2"
        sleep 0.1
    done
}

# --- the stage

make_space() { # name, number
    ip netns add "$tag$1" && ip link add "$tag$1" type veth peer name eth0 netns "$tag$1" &&
        ip addr add "10.213.$2.1/24" dev "$tag$1" && ip link set "$tag$1" up &&
        ip -n "$tag$1" addr add "10.213.$2.2/24" dev eth0 && ip -n "$tag$1" link set eth0 up &&
        ip -n "$tag$1" link set lo up
}
remove_spaces() {
    local name
    for name in a b c; do
        ip link del "$tag$name" || true
        ip netns del "$tag$name" || true
    done 2>/dev/null
    spaces=0
}
make_spaces() {
    ((EUID == 0)) && command -v ip >/dev/null || return 0
    if make_space a 2 && make_space b 3 && make_space c 4; then spaces=1; else remove_spaces; fi 2>/dev/null
}
inside() { # name, command
    if ((spaces)); then ip netns exec "$tag$1" "${@:2}"; else "${@:2}"; fi
}

start_server() {
    local from=127.0.0.1
    ((spaces == 0)) || from=0.0.0.0
    nats-server -js -a "$from" -p "${port:--1}" --ports_file_dir "$place" -sd "$place/engine" >>"$place/server.log" 2>&1 &
    process[server]=$!
    [[ -z ${port:-} ]] || return 0
    await 10 "nats-server did not start" test -s "$place/nats-server_${process[server]}.ports"
    port=$(sed -n 's/.*"nats:[^"]*:\([0-9]*\)".*/\1/p' "$place/nats-server_${process[server]}.ports")
}

make_place() { # name, host id
    local dir=$place/$1 server=127.0.0.1
    ((spaces == 0)) || server=10.213.${location[$1]}.1
    mkdir -p "$dir/bin" "$dir/config"
    cp "$build/bin/tavctl" "$build/bin/tav-bridge" "$dir/bin"
    printf '[agent]\nlocation = %d\ndeploy_type = %s\ncnapp = 1\nhostid = %d\n' "${location[$1]}" "${place#/var/}/$1" "$2" \
        >"$dir/config/agent.ini"
    printf '[config]\naddr = 192.0.2.1\n' >"$dir/config/server.ini"
    printf '[port]\nipc = 8083\n' >"$dir/config/server_port.ini"
    printf '[engine]\nservers = nats://%s:%d\ndomain = demo\nallow_plain = 1\n' "$server" "$port" \
        >"$dir/config/tav-bridge.ini"
    "$dir/bin/tavctl" allowlist add --key "${TAVIPC_SIGNING_KEY:-$build/devkey/private.pem}" --dir "$dir/config" tavctl \
        tav-bridge >/dev/null
}
start_bridge() { # name
    if ((spaces)); then
        ip netns exec "$tag$1" "$place/$1/bin/tav-bridge" >>"$place/bridge-$1.log" 2>&1 &
    else
        "$place/$1/bin/tav-bridge" >>"$place/bridge-$1.log" 2>&1 &
    fi
    process[$1]=$!
}
tool() { "$place/$1/bin/tavctl" "${@:2}"; }
checked() { inside "$1" "$place/$1/bin/tav-bridge" --check; }
counter() { # name, counter
    tool "$1" request --raw --cmd 1 tavbridge '' | sed -n "s/^$2 //p"
}
received() { # file, number of lines with "item"
    (($(grep -c '^  item ' "$1") >= $2))
}
cut_off() { # yes or no: location 3
    if ((spaces)); then
        ip link set "${tag}b" "$([[ $1 == yes ]] && echo down || echo up)"
    else
        kill -"$([[ $1 == yes ]] && echo STOP || echo CONT)" "${process[server]}"
    fi
}
send_items() { # from, first, last: at the same time
    local i sending=()
    for ((i = $2; i <= $3; ++i)); do
        tool "$1" send --no-confirm log@3 "item $i" >/dev/null &
        sending+=($!)
    done
    for i in "${sending[@]}"; do wait "$i" || fail "a message was refused"; done
}

make_spaces
start_server
make_place a 1001
make_place b 1002
make_place c 1003
for name in a b c; do start_bridge "$name"; done
for name in a b c; do await 20 "bridge $name is not ready" checked "$name"; done
echo "tav-bridge demo: locations 2, 3 and 4 with a nats-server on port $port, $( ((spaces)) &&
    echo 'each in a network namespace' || echo 'on the loopback address')"

"$place/b/bin/tavctl" listen log >"$place/listen.txt" 2>&1 &
process[listen]=$!
"$place/b/bin/tavctl" reply -q --echo echo >"$place/reply.txt" 2>&1 &
process[reply]=$!
mkdir "$place/files"
"$place/b/bin/tavctl" recvfile "$place/files" --as files >"$place/recv.txt" 2>&1 &
process[files]=$!
await 10 "no listener" tool a probe -c 1 log@3
await 10 "no file receiver" tool a probe -c 1 files@3

# --- what it shows
send_items a 1 1
await 10 "the message did not arrive" received "$place/listen.txt" 1
show message "from location 2 to log@3, stored by the engine until the socket took it"
send_items c 2 2
await 10 "the hub's message did not arrive" received "$place/listen.txt" 2
show hub "from location 4, written to eight sockets, forwarded once: $(counter c hub_copies) copies left out"
[[ $(tool a request --raw echo@3 hello) == hello ]] || fail "the answer is wrong"
show request "answered with the same bytes, $(tool a probe -c 20 -i 0 echo@3 | grep -o 'median [^,]*')"
head -c 20000000 /dev/urandom >"$place/sent"
tool a sendfile files@3 "$place/sent" >/dev/null || fail "the file was not sent"
same_file() { cmp -s "$place/sent" "$place"/files/*; }
await 5 "the file arrived changed" same_file # the receiving tool moves it after its confirmation
show file "20,000,000 bytes, unchanged"
head -c 65000000 /dev/urandom >"$place/sent"
begun=$(date +%s%N)
tool a request --raw -t 60 -f "$place/sent" echo@3 >"$place/back" || fail "65 MB were not answered"
cmp -s "$place/sent" "$place/back" || fail "65 MB came back changed"
show large "65,000,000 bytes there and back in $((($(date +%s%N) - begun) / 1000000)) ms, unchanged"

cut_off yes
last=$( ((spaces)) && echo 30 || echo 8) # without namespaces all are cut off, and the messages wait in the socket
send_items a 3 "$last"
sleep 1
received "$place/listen.txt" 3 && fail "a message crossed the partition"
cut_off no
await 60 "messages were lost in the partition" received "$place/listen.txt" "$last"
show partition "$((last - 2)) messages sent meanwhile arrived after it healed"

kill_one b
send_items a 31 40
start_bridge b
await 60 "messages were lost with the bridge of location 3" received "$place/listen.txt" $((last + 10))
show "kill bridge" "10 messages sent while the receiving bridge was dead arrived"
kill_one server
send_items a 41 46
start_server
await 60 "messages were lost with the server" received "$place/listen.txt" $((last + 16))
show "kill server" "6 messages sent while the server was dead arrived"

lines=$(grep -c '^  item ' "$place/listen.txt")
distinct=$(grep '^  item ' "$place/listen.txt" | sort -u | wc -l)
((distinct == last + 16)) || fail "$distinct of $((last + 16)) messages arrived"
show counts "$distinct different messages, $((lines - distinct)) of them twice; location 3: $(counter b handed_durable) taken, $(counter b put_back) put back, $(counter b redelivered) recognised"
echo "all checks passed"
