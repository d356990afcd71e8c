#!/usr/bin/env bash
# Writes seeds and dictionaries of the fuzz targets: DIR/TARGET/*, DIR/TARGET.dict.
set -euo pipefail
out=$1

n=0
seed() { # target, printf formats
    local target=$1
    shift
    mkdir -p "$out/$target"
    ((++n))
    # shellcheck disable=SC2059 # the arguments are formats
    printf "$(printf %s "$@")" >"$out/$target/seed-$n"
}
dictionary() { # target, entries
    local target=$1
    shift
    printf '"%s"\n' "$@" >"$out/$target.dict"
}
repeat() {
    local i
    for ((i = 0; i < $1; ++i)); do printf %s "$2"; done
}
be32() { printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 >> 24)) $(($1 >> 16 & 255)) $(($1 >> 8 & 255)) $(($1 & 255)); }

# --- datagrams: the number of a step, then what the step reads (datagrams.cpp)
message() { printf %s "\\x00\\x0$1\\x02\\x$2\\x$3\\x00\\x00\\x$4\\x07\\x05"; } # endpoint, message id, flags, size, priority
fragment() { printf %s "\\x01\\x00\\x$1\\x00\\x02\\x0$2"; }                       # shape, number
exchange() { printf %s "\\x06\\x00\\x0$1\\x01\\x05\\x00\\x08\\x05"; }             # kind
seed datagrams '\x01' "$(message 0 01 00 08)" "$(message 1 02 00 09)" "$(message 0 03 02 08)" '\x05\x00\x00'
seed datagrams '\x01' "$(fragment 3 0)" "$(fragment 3 2)" "$(fragment 3 1)" "$(fragment 17 0)" '\x04\x03'
for shape in 0 1 2 4 5 6; do seed datagrams '\x00' "$(fragment $shape 0)" "$(fragment $shape 1)" '\x04\x04\x04\x05'; done
for kind in 0 1 2 3 4 5; do
    seed datagrams '\x01' "$(exchange $kind)" '\x03\x00\x03\x00\x05\x00\x00\x03\x00\x03\x00' "$(message 0 81 06 00)" '\x00\x01' '\x04\x05'
    seed datagrams '\x01' "$(message 1 1$kind 06 08)" "$(message 1 1$kind 06 08)" '\x08\x01' "$(message 0 1$kind 06 08)"
done
seed datagrams '\x01' '\x07\x00\x09\x01\x00\x80\x05\x00\x00\x00' '\x03\x00\x03\x01\x03\x02\x05\xff\x04' '\x04\x03' '\x05\xff\x00' '\x09\x03'
header=$(repeat 4 '\x67')"e0$(repeat 10 '\x00')$(repeat 4 '\x37')p0$(repeat 10 '\x00')$(repeat 28 '\x00')"
for lie in 0 1; do seed datagrams "\\x01\\x02\\x00\\x05\\x0$lie" "$header" hello; done
for at in 12 13; do seed datagrams '\x01' '\x07\x00\x09\x01\x00\x08\x05\x00\x00\x00' "\\x03\\x00\\x$at\\x00\\x10"; done # compressed, with another length
seed datagrams '\x01' '\x0b\x20SSSSSSSSS.C.2.77.80.1700000000.5\x00\x00' # the place of a message in its stream
dictionary datagrams '3200' '\x01\x00' '\x00\xFA\x00\x00' '\xFF\xFF\xFF\xFF' '\x10\x00\x00\x00' '\x03\x00' '\x04\x05'

# --- parsers: the number of the parser, then what it reads (parsers.cpp)
entry=$(printf fuzz | sha256sum | cut -d ' ' -f 1)
list="{\"linux\": [\"other\", 5, null, \"$entry\", {}]}"
seed parsers '\x00\x00' "$list"
seed parsers '\x00\x00{"a": [true, -1e9, "\\u00e9\\ud83d\\ude00"], "LINUX": {"b": [' "$entry" ']}}'
seed parsers '\x00\x00' "$(repeat 1100 '[')"
seed parsers '\x00\x01\x58\x01' "$(repeat 342 A)" '==' "$list"
seed parsers '\x00\x02\x40' "$entry" "$list"
seed parsers '\x00\x04' "\\x$(printf %02x ${#list})" "$list" '{"linux": []}' # allowed after the exchange only
stream='x\x9c\xcbH\xcd\xc9\xc9\x07\x00\x06,\x02\x15' # hello
for claim in 0 4 5 6 1048576 4294967295; do seed parsers '\x01\x00' "$(be32 "$claim")" "$stream"; done
seed parsers '\x01\x05\x3c\x00' "$(repeat 200 a)"
seed parsers '\x02' "$header" '\x01hello'
seed parsers '\x02' "$(repeat 60 '\xff')" '\x00' "$(repeat 1100 x)"
for id in 123 18446744073709551615 1e400 -5 nan 0x1p63 ''; do seed parsers '\x03{"vmid":"' $id '"}\n'; done
seed parsers '\x03{"vmid":5, "vmid":"\\u0031"}'
seed parsers '\x03\x67\x12\x00\x00' '\x02\x00\x00\x00\x00\x0f'
seed parsers '\x04\x01\x04abcdef\x02keys\x05values[agent]\nlocation = 2\ndeploy_type = a/b\nagent_type = linux\nhostid = 4711\n'
seed parsers '\x04\x0e\x04abcdef\x02keys\x05values[config]\naddr = example.invalid\n[port]\nipc = 8099\n'
seed parsers '\x04\x00\x04abcdef\x02keys\x05values[ipc_proxy]\ndisable_offline_cache=1\n[transfer]\neagain_max_retry_times=99999999999999999999\n'
for size in 4092 4093 4094 4095; do seed parsers '\x04\x01\x00a\x00b\x00ck=' "$(repeat $size v)" '\nnext=1\n'; done
dictionary parsers '\"linux\"' "\\\"$entry\\\"" '{' '}' '[' ']' ':' ',' 'null' '1e308' '\\u0000' '\"' '\xEF\xBB\xBF' '==' '\x0D\x0A' \
    '3200' 'x\x9c' '\x00\x00\x00\x05' '\xFF\xFF\xFF\xFF' '/' '..' '%n' '\"vmid\"' 'inf' '0x' '[agent]' '[config]' '[port]' '[ipc_proxy]' \
    '[transfer]' 'location=' 'deploy_type=' 'addr=' 'ipc=' 'eagain_retry_interval_ms=' ' ;' ' #' '2147483648'
