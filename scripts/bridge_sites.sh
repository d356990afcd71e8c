# What the bridge's benchmark and long run share: sites, each an agent of its own in a directory of its own.
# shellcheck shell=bash

place=$(mktemp -d /var/tmp/tavipc-XXXXXX)
declare -A process=()

end_all() {
    trap - EXIT
    local name
    for name in "${!process[@]}"; do kill -9 "${process[$name]}" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$place"
}
trap end_all EXIT
trap 'exit 1' HUP INT TERM

give_up() {
    echo "FAILED: $*" >&2
    tail -n 4 "$place"/*.log >&2 || true
    exit 1
}
until_ok() { # seconds, command
    local end=$((SECONDS + $1))
    until "${@:2}" >/dev/null 2>&1; do
        ((SECONDS < end)) || give_up "${*:2}"
        sleep 0.2
    done
}

make_site() { # name, location, host id, server, lines for [bounds]
    local dir=$place/$1
    mkdir -p "$dir/bin" "$dir/config"
    cp "$build"/bin/{tavctl,tav-bridge,tavbridge-load} "$dir/bin"
    printf '[agent]\nlocation = %d\ndeploy_type = %s\ncnapp = 1\nhostid = %d\n' "$2" "${place#/var/}/$1" "$3" >"$dir/config/agent.ini"
    printf '[config]\naddr = 192.0.2.1\n' >"$dir/config/server.ini"
    printf '[port]\nipc = 8083\n' >"$dir/config/server_port.ini"
    printf '[engine]\nservers = %s\ndomain = load\nallow_plain = 1\n[policy]\nany = one\nipc_conf = %s\n[bounds]\n%s\n' \
        "$4" "${ipc_conf:-}" "${5:-}" >"$dir/config/tav-bridge.ini"
    "$dir/bin/tavctl" allowlist add --key "$build/devkey/private.pem" --dir "$dir/config" tavctl tav-bridge \
        tavbridge-load >/dev/null
    mkdir -p "$dir/zon_ipc$2"
}
counter() { # site, counter
    "$place/$1/bin/tavctl" request --raw --cmd 1 tavbridge '' 2>/dev/null | sed -n "s/^$2 //p"
}
