#!/bin/bash
# bridge_test.sh BUILD SOURCE: three bridges at a nats-server with the installed example of permissions and certificates made
# here. What belongs to a bridge works; a bridge with the certificate of location 3 that calls itself location 5 can neither
# read nor write for it. Left out (status 77) without nats-server.
set -euo pipefail
command -v nats-server >/dev/null || { echo "left out: nats-server is not installed"; exit 77; }
build=$(readlink -f "$1") source=$(readlink -f "$2")
source "$source/scripts/bridge_sites.sh"
cd "$place"
must() { "$@" >"$place/out.txt" 2>&1 || { cat "$place/out.txt"; give_up "$*"; }; }
must_not() { ! "$@" >"$place/out.txt" 2>&1 || { cat "$place/out.txt"; give_up "should have failed: $*"; }; }

certificate() { # name, subject
    openssl req -newkey rsa:2048 -nodes -keyout "$1.key" -out "$1.csr" -subj "/CN=$2" 2>/dev/null
    openssl x509 -req -in "$1.csr" -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -out "$1.crt" \
        -extfile <(echo "subjectAltName=$3") 2>/dev/null
}
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.crt -subj /CN=ca -days 2 2>/dev/null
certificate server localhost 'IP:127.0.0.1,DNS:localhost'
for number in 2 3 5; do certificate location-$number location-$number "URI:urn:location-$number"; done
sed -e "s,/etc/nats,$place,; s,/var/lib/nats,$place/engine,; s,0.0.0.0:4222,127.0.0.1:-1," \
    "$source/packaging/bridge/nats-server.conf" >server.conf
nats-server -c server.conf --ports_file_dir "$place" >server.log 2>&1 &
process[server]=$!
until_ok 10 test -s nats-server_$!.ports
port=$(sed -n 's/.*"[a-z]*:[^"]*:\([0-9]*\)".*/\1/p' nats-server_${process[server]}.ports)

secure_site() { # name, location, host id, whose certificate
    make_site "$1" "$2" "$3" "tls://localhost:$port"
    printf '[engine]\nservers = tls://localhost:%d\nca = %s/ca.crt\ncertificate = %s/%s.crt\nkey = %s/%s.key\n' "$port" "$place" \
        "$place" "$4" "$place" "$4" >"$1/config/tav-bridge.ini"
    "$1/bin/tav-bridge" >"bridge-$1.log" 2>&1 &
    process[$1]=$!
}
secure_site a 2 1002 location-2
secure_site b 3 1003 location-3
for site in a b; do until_ok 20 $site/bin/tav-bridge --check; done
b/bin/tavctl listen log >listen.txt 2>&1 &
process[listen]=$!
until_ok 20 a/bin/tavctl probe -c 1 log@3
must a/bin/tavctl send log@3 confirmed
must a/bin/tavctl send --no-confirm log@3 stored
until_ok 10 grep -q '^  stored' listen.txt

# Location 3's certificate in the name of location 5, beside a real bridge of 5.
secure_site e 5 1005 location-5
until_ok 20 a/bin/tavctl probe -c 1 tavbridge@5
must e/bin/tavctl probe -c 1 tavbridge@2
kill "${process[e]}"
wait "${process[e]}" || true
secure_site forger 5 1005 location-3
until_ok 10 forger/bin/tavctl probe -c 1 tavbridge
must_not a/bin/tavctl probe -c 1 tavbridge@5        # does not read what is for 5
must_not forger/bin/tavctl probe -c 1 tavbridge@2   # does not write as 5
must_not forger/bin/tav-bridge --check              # cannot use 5's consumers
must test "$(counter a drop_forged_source)" = 0     # the engine has refused it already
# Its permission to write as 3 does not help: a header from 5 does not fit such a subject (unit tests: kForgedSource).
echo "all checks passed"
