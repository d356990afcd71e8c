#!/bin/bash
# bridge_test.sh BUILD SOURCE: three bridges at a nats-server with the installed example of permissions and certificates made
# here. What belongs to a bridge works; a bridge with the certificate of location 3 that calls itself location 5 can neither
# read nor write for it. Logins with an NKey and with a JWT; with another seed they are refused, until it is right again.
# Settings that a check refuses; bridges that are killed and that end; two machines of one location, and the hub. Left out
# (status 77) without nats-server.
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
start_server() { # name of its configuration: sets port
    nats-server -c "$1.conf" --ports_file_dir "$place" >"$1.log" 2>&1 &
    process[$1]=$!
    until_ok 10 test -s nats-server_$!.ports
    port=$(sed -n 's/.*"[a-z]*:[^"]*:\([0-9]*\)".*/\1/p' "nats-server_${process[$1]}.ports")
}
sed -e "s,/etc/nats,$place,; s,/var/lib/nats,$place/engine,; s,0.0.0.0:4222,127.0.0.1:-1," \
    "$source/packaging/bridge/nats-server.conf" >server.conf
start_server server

has() { [[ $(counter "$1" "$2") == "$3" ]]; } # site, counter, value
refused() { # site, lines before its settings, what the check says about them
    { printf '%s\n' "$2" && cat "$1/config/tav-bridge.ini"; } >refused.ini # the first value of a key counts
    must_not "$1/bin/tav-bridge" -c refused.ini --check
    grep -q "^FAIL $3" out.txt || { cat out.txt; give_up "not refused: $2"; }
}

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
before=$(counter a handed_control)
must_not forger/bin/tavctl probe -c 1 tavbridge@2   # does not write as 5:
must has a handed_control "$before"                 # not even the question has arrived
must_not forger/bin/tav-bridge --check              # cannot use 5's consumers
# Its permission to write as 3 does not help: a header from 5 does not fit such a subject (unit tests: kForgedSource).

# Logins. An NKey is base32 of a byte for its type, an Ed25519 key and their CRC-16; a JWT is signed with such keys.
nkey() { # the bytes in hexadecimal
    local crc=0 at
    for ((at = 0; at < ${#1}; at += 2)); do
        crc=$((crc ^ 0x${1:at:2} << 8))
        for _ in {1..8}; do crc=$(((crc << 1 ^ (crc >> 15) * 0x1021) & 0xFFFF)); done
    done
    printf '%s%02x%02x' "$1" $((crc & 255)) $((crc >> 8)) | sed 's/../\\x&/g' | xargs -0 printf | base32 -w0 | tr -d =
}
last_32() { openssl pkey -in "$1.pem" -outform DER "${@:2}" | tail -c 32 | od -An -v -tx1 | tr -d ' \n'; }
public() { nkey "$2$(last_32 "$1" -pubout)"; } # key, type
seed() { nkey "9500$(last_32 "$1")"; }         # a user's
jwt() { # the subject's NKey, claims: signed by the operator's key, a user's by the account's
    local signer=operator type=70
    [[ $1 != U* ]] || signer=account type=00
    base64url() { base64 -w0 | tr '+/' '-_' | tr -d =; }
    printf '%s.%s' "$(printf '{"typ":"JWT","alg":"ed25519-nkey"}' | base64url)" "$(printf '{"jti":"x","iat":1,"iss":"%s","sub":"%s",
        "name":"x","nats":{%s,"version":2}}' "$(public $signer $type)" "$1" "$2" | base64url)" | tee signed
    printf '.%s' "$(openssl pkeyutl -sign -rawin -inkey $signer.pem -in signed | base64url)"
}
login_site() { # name, location, lines for [engine], file with the seed
    make_site "$1" "$2" "100$2" "nats://127.0.0.1:$port"
    sed -i "/^allow_plain/c $3" "$1/config/tav-bridge.ini"
    "$1/bin/tav-bridge" >"bridge-$1.log" 2>&1 &
    process[$1]=$!
    until_ok 20 "$1/bin/tav-bridge" --check
    sed -i "s/^SU.*/$(seed stranger)/" "$4"
    must_not "$1/bin/tav-bridge" --check
    grep '^FAIL no connection: Auth' out.txt || give_up "$(cat out.txt)"
}
for key in operator system account user stranger; do openssl genpkey -algorithm ed25519 -out $key.pem; done
user=$(public user a0) account=$(public account 00) system=$(public system 00)
printf 'listen: "127.0.0.1:-1"\njetstream { store_dir: "%s/nkey-engine" }\nauthorization { users: [ { nkey: %s } ] }\n' "$place" "$user" >nkey.conf
start_server nkey
seed user >seed
login_site n 6 "nkey = $user\nnkey_seed = $place/seed" seed

# The seed is wrong. Refused twice by a server, nats.c closes the connection for good, and the bridge makes another one.
kill "${process[nkey]}"
wait "${process[nkey]}" || true
sed -i "s/127.0.0.1:-1/127.0.0.1:$port/" nkey.conf
start_server nkey
until_ok 20 grep -q 'no connection to the engine' bridge-n.log
seed user >seed
until_ok 30 has n ready 1
doctor() { n/bin/tavctl doctor >doctor.txt || true; grep "^$1 *bridge " doctor.txt; } # verdict
must doctor ok
kill -9 "${process[n]}"
must doctor warn

# Settings.
refused n $'[bounds]\nreplicas = 3' 'stream TAV_load: .*, replicas = 1,'
refused n $'[bounds]\nwindow = 0' '.bounds. window'
for server in 192.0.2.1 127.0.0.1.example.org '[::1]@192.0.2.1' 'localhost, nats://192.0.2.1'; do
    refused n $'[engine]\nallow_plain = 0\nservers = nats://'"$server" '.engine. servers: nats://.*another machine'
done
for domain in a.b x_ALL 'a\b'; do refused n $'[engine]\ndomain = '"$domain" '.engine. domain'; done
refused n $'[engine]\nnkey_seed = /nowhere' '.engine. nkey_seed: /nowhere'
refused n $'[policy]\nipc_conf = /tmp' '.policy. ipc_conf: /tmp: Is a directory'
refused n $'[bound]\nwindow = 1' '.bound. window: there is no such setting'
refused n 'allow_plain' 'line 1: '
refused n $'[engine]\ndomain = load' 'a second .engine. domain: '
printf '[ipc_proxy]\ndisable_offline_cache=1\n' >ipc.conf # no streams are needed
sed "s,^ipc_conf.*,ipc_conf = $place/ipc.conf,; s/^domain.*/domain = other/" n/config/tav-bridge.ini >without.ini
must n/bin/tav-bridge -c without.ini --check

# An engine that takes little. A bridge that is killed before the engine has answered: the next one gives it the same datagram.
printf 'listen: "127.0.0.1:-1"\nmax_payload: 32768\njetstream { store_dir: "%s/small-engine" }\n' "$place" >small.conf
start_server small
make_site p 2 1002 "nats://127.0.0.1:$port"
p/bin/tavbridge-load hold "$place/p/zon_ipc2/_proxy_" p/bin/tav-bridge >keeper.txt 2>bridge-p.log &
process[keeper]=$!
until_ok 20 has p ready 1
refused p '' 'the engine.s max_payload'
must p/bin/tavctl send --no-confirm log@3 "$(printf '%040000d' 0)"
until_ok 10 has p drop_too_large 1
kill -STOP "${process[small]}"
must p/bin/tavctl send --no-confirm log@3 once
until_ok 10 has p waiting 1
kill -9 "$(tail -n 1 keeper.txt | cut -d' ' -f2)"
kill -CONT "${process[small]}"
until_ok 30 has p stored_before 1
if unshare -rpf true 2>/dev/null; then # two messages with the same process id, message id and bytes
    for _ in 1 2; do must unshare -rpf p/bin/tavctl send --no-confirm log@3 same; done
    until_ok 10 has p stored 3
    must has p stored_before 1
fi
# Stored under a name that no endpoint has: it must not keep a place in the window.
exec 3<>/dev/tcp/127.0.0.1/"$port"
printf 'CONNECT {}\r\nPUB tav.load.2.any._prx0.d.9.9 0\r\n\r\n' >&3
until_ok 10 has p drop_bad_subject 1
delivered() { { p/bin/tav-bridge --check || true; } | grep 'L2_any of TAV_load: 0 wait, 0 are'; }
until_ok 10 delivered
stream='{"name":"TAV_small","subjects":["tav.small.>"],"max_msg_size":1000,"storage":"memory","retention":"limits","num_replicas":1}'
printf 'PUB $JS.API.STREAM.CREATE.TAV_small %d\r\n%s\r\n' ${#stream} "$stream" >&3
sed 's/^domain.*/domain = small/' p/config/tav-bridge.ini >small.ini
limited() { { p/bin/tav-bridge -c small.ini --check || true; } | grep '^FAIL stream TAV_small: .*, max_msg_size = 1000$'; }
until_ok 10 limited
exec 3>&-

# Location 3 has two machines, q and r. The hub's modules write each message to eight sockets.
start_three() { # any, domain
    for site in h q r; do
        sed -i "s/^any = .*/any = $1/; s/^domain = .*/domain = $2/" $site/config/tav-bridge.ini
        $site/bin/tav-bridge >>bridge-$site.log 2>&1 &
        process[$site]=$!
    done
    for site in h q r; do until_ok 20 has $site ready 1; done
}
heard() { grep -c '"type":"message"' "heard-$1.txt" || true; }
heard_are() { [[ "$(heard q) $(heard r)" == "$*" ]]; }
make_site h 4 1004 "nats://127.0.0.1:$port"
make_site q 3 1003 "nats://127.0.0.1:$port"
make_site r 3 1005 "nats://127.0.0.1:$port"
start_three one load
for site in q r; do
    $site/bin/tavctl listen log --json >heard-$site.txt 2>&1 &
    process[listen-$site]=$!
    until_ok 10 $site/bin/tavctl probe -c 1 log
done
must timeout 20 h/bin/tavbridge-load send log@3.1005 20 1 100
until_ok 10 heard_are 0 20
until_ok 10 has h hub_copies 140
must timeout 20 h/bin/tavbridge-load send log@3 20 1 100
both() { (($(heard q) + $(heard r) == 40)); } # each at one of the two
until_ok 10 both
before_q=$(heard q) before_r=$(heard r)
for site in h q r; do
    kill "${process[$site]}"
    wait "${process[$site]}" || true
done
start_three all every
must timeout 20 h/bin/tavbridge-load send log@3 20 1 100
until_ok 10 heard_are $((before_q + 20)) $((before_r + 20))
# The engine keeps what no socket has taken.
must h/bin/tavctl send --no-confirm late@3 'for late'
until_ok 10 has r put_back 1
r/bin/tavctl listen late >late.txt 2>&1 &
process[late]=$!
until_ok 20 grep -q 'for late' late.txt
# A bridge that ends: modules cannot send to it any more, and it waits until the engine has what it took.
kill -STOP "${process[server]}"
must b/bin/tavctl send --no-confirm nobody@2 last
until_ok 10 has b waiting 1
kill "${process[b]}"
until_ok 4 test ! -e b/zon_ipc3/_proxy_
must kill -0 "${process[b]}"
kill -CONT "${process[server]}"
wait "${process[b]}" || give_up "the bridge failed at its end"
until_ok 10 has a put_back 1
limits='"subs":-1,"conn":-1,"leaf":-1,"data":-1,"payload":-1,"imports":-1,"exports":-1,"wildcards":true,"mem_storage":-1,"disk_storage":-1'
printf 'listen: "127.0.0.1:-1"\njetstream { store_dir: "%s/jwt-engine" }\noperator: %s\nresolver: MEMORY\nsystem_account: %s
resolver_preload: { %s: %s\n %s: %s }\n' "$place" "$(jwt "$(public operator 70)" '"type":"operator"')" "$system" \
    "$system" "$(jwt "$system" '"type":"account"')" \
    "$account" "$(jwt "$account" "\"type\":\"account\",\"limits\":{$limits,\"streams\":-1,\"consumer\":-1}")" >jwt.conf
start_server jwt
printf -- '-----BEGIN NATS USER JWT-----\n%s\n------END NATS USER JWT------\n-----BEGIN USER NKEY SEED-----\n%s\n------END USER NKEY SEED------\n' \
    "$(jwt "$user" '"type":"user","subs":-1,"data":-1,"payload":-1')" "$(seed user)" >user.creds
login_site j 7 "credentials = $place/user.creds" user.creds
echo "all checks passed"
