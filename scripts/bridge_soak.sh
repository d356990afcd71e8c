#!/usr/bin/env bash
# bridge_soak.sh BUILD [MESSAGES] [FAULTS] - three sites in network namespaces, each with a server of one cluster (streams
# with three replicas) and a bridge whose socket a keeper holds. Each site sends a third of the messages (160 bytes to 100 KB)
# to the next one, while links are cut and bridges and servers are killed with -9. Needs root. Then it accounts for every
# message: lost, changed, twice. Defaults: 1,000,000 messages, 100 faults. TAVIPC_SOAK_SEED=N repeats the faults,
# TAVIPC_SOAK_REPLICAS=1 keeps each stream on one server, TAVIPC_SOAK_ANY=all sends to all machines of a location (each has one),
# TAVIPC_SOAK_LOGS=DIRECTORY keeps the logs, TAVBRIDGE_RATE=N limits each sender to N messages a second.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
build=$(readlink -f "$1") messages=${2:-1000000} faults=${3:-100}
((EUID == 0)) || { echo "bridge_soak.sh: network namespaces need root" >&2; exit 1; }
source scripts/bridge_sites.sh
tag=tvs$$ replicas=${TAVIPC_SOAK_REPLICAS:-3} any=${TAVIPC_SOAK_ANY:-one}
stream=TAV_load
[[ $any == one ]] || stream=TAV_load_ALL
declare -A location=([a]=2 [b]=3 [c]=5) next=([a]=b [b]=c [c]=a) number=([a]=1 [b]=2 [c]=3)
RANDOM=${TAVIPC_SOAK_SEED:-1}

remove_spaces() {
    local site
    [[ -z ${TAVIPC_SOAK_LOGS:-} ]] || cp "$place"/*.log "$place"/*.txt "$TAVIPC_SOAK_LOGS"
    for site in a b c; do ip netns del "$tag$site" || true; done 2>/dev/null
    ip link del "$tag" 2>/dev/null || true
    end_all
}
trap remove_spaces EXIT

ip link add "$tag" type bridge
ip link set "$tag" up
for site in a b c; do
    ip netns add "$tag$site"
    ip link add "$tag$site" type veth peer name eth0 netns "$tag$site"
    ip link set "$tag$site" master "$tag" up
    ip -n "$tag$site" addr add "10.215.0.${number[$site]}/24" dev eth0
    ip -n "$tag$site" link set eth0 up
    ip -n "$tag$site" link set lo up
    ip netns exec "$tag$site" sh -c 'echo 512 >/proc/sys/net/unix/max_dgram_qlen' || true
done
inside() { ip netns exec "$tag$1" "${@:2}"; }

start_server() { # site
    ip netns exec "$tag$1" nats-server -c "$place/$1/server.conf" >>"$place/server-$1.log" 2>&1 &
    process[server-$1]=$!
}
start_keeper() { # site: keeps the socket, and starts the bridge again when it has ended
    ip netns exec "$tag$1" "$place/$1/bin/tavbridge-load" hold "$place/$1/zon_ipc${location[$1]}/_proxy_" \
        "$place/$1/bin/tav-bridge" >"$place/keeper-$1.txt" 2>>"$place/bridge-$1.log" &
    process[keeper-$1]=$!
}
kill_bridge() { kill -9 "$(tail -n 1 "$place/keeper-$1.txt" | cut -d' ' -f2)" 2>/dev/null || true; }
# What the engine answers to a request of its interface for JetStream, and a page of the server's monitoring.
ask() { # site, subject
    # shellcheck disable=SC2016 # the other shell's
    inside "$1" timeout 3 bash -c 'exec 3<>/dev/tcp/127.0.0.1/4222
        printf "CONNECT {}\r\nSUB r 1\r\nPUB %s r 0\r\n\r\n" "\$JS.API.$1" >&3
        while read -r line <&3; do case $line in *_response*) echo "$line"; break ;; esac; done' _ "$2" 2>/dev/null
}
page() { # site, path
    # shellcheck disable=SC2016 # the other shell's
    inside "$1" timeout 3 bash -c 'exec 3<>/dev/tcp/127.0.0.1/8222
        printf "GET %s HTTP/1.0\r\n\r\n" "$1" >&3
        cat <&3' _ "$2" 2>/dev/null
}
# What each server has of the stream: messages, first and last sequence number.
states() {
    local site
    for site in a b c; do
        page $site '/jsz?accounts=true&streams=true' | awk -v stream="\"$stream\"," '$1 == "\"name\":" && /TAV_/ { found = $2 == stream }
            found && /"(messages|first_seq|last_seq)":/ { printf "%d ", $2 }'
        echo
    done
}
# A cluster of three tolerates one failure: the next server is cut off or killed only when for some seconds no replica of the
# stream or of a consumer was away or behind as their leaders say, and every server had the stream's newest messages. What is
# under way is less than 100 messages in a replica, 500 between two looks.
whole() {
    local subject answer
    for subject in STREAM.INFO.$stream CONSUMER.LIST.$stream; do
        answer=$(ask a $subject)
        [[ $answer == *'"leader":"'*'"replicas":[{'* ]] || return 1
        [[ ! $answer =~ '"offline":true'|'"lag":'[0-9]{3}|'"active":'([3-9][0-9]{9}|[0-9]{11}) ]] || return 1
    done
    states | sort -n -k 3 | awk 'NF == 3 { last[NR] = $3 } END { exit !(NR == 3 && last[1] && last[3] - last[1] < 500) }'
}
healed() {
    for _ in {1..3}; do
        whole || return 1
        sleep 1
    done
}
restart_server() { # site, signal
    kill -"$2" "${process[server-$1]}"
    wait "${process[server-$1]}" 2>/dev/null || true
    sleep 1
    start_server "$1"
}
# A server's copy of the stream may not catch up ("Catchup for stream ... stalled" in its log), although the leader calls it
# current: a leader may answer no requests for it. After 30 s, as an operator would, we let the stream have another leader, and
# start the server again. When all copies have caught up, but a consumer has no quorum ("resetting WAL state" in a server's log),
# we start the servers again in turn.
heal() {
    local end=$((SECONDS + 300)) look=$((SECONDS + 30)) behind
    until healed; do
        ((SECONDS < end)) || give_up "the cluster does not become complete: $(states | tr '\n' ';')"
        ((SECONDS >= look)) || continue
        look=$((SECONDS + 45))
        behind=$(states | awk '{ last[NR] = $3; if ($3 > most) most = $3 }
            END { for (i = 1; i <= 3; ++i) if (last[i] + 500 < most) { print substr("abc", i, 1); exit } }')
        if [[ -n $behind ]]; then
            ask a "STREAM.LEADER.STEPDOWN.$stream" >/dev/null || true
            sleep 5
            restart_server "$behind" KILL
        else
            restart_server "${names[stuck % 3]}" TERM
        fi
        stuck=$((stuck + 1))
    done
}
checked() { inside "$1" "$place/$1/bin/tav-bridge" --check; }

for site in a b c; do
    make_site $site "${location[$site]}" "100${number[$site]}" nats://127.0.0.1:4222 "replicas = $replicas"$'\nwindow = 1024\nattempts = 1000000'
    sed -i "s/^any = .*/any = $any/" "$place/$site/config/tav-bridge.ini"
    printf 'server_name: %s\nlisten: "127.0.0.1:4222"\nhttp: "127.0.0.1:8222"\njetstream { store_dir: "%s" }\ncluster { name: soak, listen: "10.215.0.%d:6222"
  routes: [ "nats://10.215.0.1:6222", "nats://10.215.0.2:6222", "nats://10.215.0.3:6222" ] }\n' \
        $site "$place/$site/engine" "${number[$site]}" >"$place/$site/server.conf"
    start_server $site
done
for site in a b c; do start_keeper $site; done
for site in a b c; do until_ok 60 checked $site; done
for site in a b c; do
    mkfifo "$place/fifo-$site"
    "$place/$site/bin/tavbridge-load" sink <>"$place/fifo-$site" >"$place/sink-$site.txt" 2>>"$place/sink-$site.log" &
    process[sink-$site]=$!
    until_ok 10 "$place/$site/bin/tavctl" probe -c 1 sink
done
begun=$SECONDS
for site in a b c; do
    "$place/$site/bin/tavbridge-load" send "sink@${location[${next[$site]}]}" $((messages / 3)) "${number[$site]}" 0 \
        >"$place/send-$site.txt" 2>>"$place/send-$site.log" &
    process[send-$site]=$!
done

account() { # site: asks its sink
    echo >"$place/fifo-$1"
    sleep 0.2
    tail -n 1 "$place/sink-$1.txt"
}
sending() {
    local site
    for site in a b c; do kill -0 "${process[send-$site]}" 2>/dev/null && return; done
    return 1
}
names=(a b c) cuts=0 bridges=0 servers=0 stuck=0
for ((fault = 0; fault < faults; ++fault)); do
    site=${names[RANDOM % 3]}
    kind=$((RANDOM % 3))
    if ((kind != 1 && replicas > 1)); then
        heal
        [[ -z ${TAVIPC_SOAK_LOGS:-} ]] || { echo "$SECONDS s, before fault $fault:"; states; } >>"$place/states.log"
    fi
    case $kind in
        0)
            ip link set "$tag$site" down
            sleep $((1 + RANDOM % 4))
            ip link set "$tag$site" up
            cuts=$((cuts + 1)) ;;
        1) kill_bridge "$site"; bridges=$((bridges + 1)) ;;
        2) restart_server "$site" KILL; servers=$((servers + 1)) ;;
    esac
    sleep $((1 + RANDOM % 3))
    ((fault % 10)) || echo "  $((SECONDS - begun)) s, $fault faults: $(for s in a b c; do account $s | cut -d' ' -f1-6; done | tr '\n' ';')"
    sending || break
done
echo "faults: $cuts cuts, $bridges bridges and $servers servers killed, $stuck stuck servers started again, in $((SECONDS - begun)) s"
# The last redelivery comes 30 s after its delivery; a message that could not be handed over comes a minute later; the bridges
# notice within three minutes that a consumer delivers nothing. So what has not come after five minutes without a message is lost.
status=1 before='' quiet=0
while ((quiet < 300)); do
    now=$(for site in a b c; do account $site; done)
    [[ $(grep -c " distinct $((messages / 3)) " <<<"$now") != 3 ]] || { status=0; break; }
    [[ $now == "$before" ]] || quiet=0
    before=$now
    sleep 2
    quiet=$((quiet + 2))
done
for site in a b c; do
    echo "site $site: $(account $site) of $((messages / 3)); $(cat "$place/send-$site.txt")"
    [[ $(account $site) == *" changed 0 "* ]] || status=1
    for name in repeated stored_before redelivered put_back; do printf '  %s %s' $name "$(counter $site $name)"; done
    echo "  dropped: $("$place/$site/bin/tavctl" request --raw --cmd 1 tavbridge '' | grep '^drop_' | grep -v ' 0$' | tr '\n' ' ')"
done
if ((status == 0)); then
    echo "nothing lost, nothing changed"
else
    echo "FAILED: messages are missing or changed. What the servers have, the stream, the consumers:"
    states
    ask a STREAM.INFO.$stream
    ask a CONSUMER.LIST.$stream
    tail -n 3 "$place"/bridge-*.log
fi
exit $status
