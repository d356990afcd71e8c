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
    # shellcheck disable=SC2059 # the formats are the point
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

# --- datagrams: the step's number, then what Life reads in it (datagrams.cpp)
to() { # endpoint, source, flags, message id, command, what follows
    printf %s "\\x01\\x0$1\\x$2\\x$3\\x$4\\x$5\\x0$6$7"
}
hello='\x00\x00\x05\x00hello'           # shape plain, no flaw
application='\x01\x00\x05\x00world\x07' # an application message of priority 7
packed='\x03\x00\x05\x09world\x07'      # compressed
fragment() { printf %s "\\x04\\x00\\x01\\x00f\\x0$1\\x0$2\\x01"; } # kWhole's place, number
file="\\x0a\\x00\\x07\\x00\\x05"        # endpoint 0 sends the small file to p0
seed datagrams '\x01' "$(to 0 00 00 00 00 0 "$hello")" "$(to 1 00 00 01 00 0 "$application")"
seed datagrams '\x01' "$(to 0 00 02 00 81 0 "$packed")" '\x0e\x04\x00yeah\x00' "$(to 0 08 12 00 85 1 "$hello")" '\x0d\x00'
seed datagrams '\x01' "$(to 0 00 00 00 00 0 "$(fragment 5 0)")" "$(to 0 00 00 00 00 0 "$(fragment 5 2)")" \
    "$(to 0 00 00 00 00 0 "$(fragment 5 1)")"
seed datagrams '\x03' "$(to 0 00 00 00 00 0 "$(fragment 6 1)")" "$(to 0 00 00 00 00 0 "$(fragment 8 0)")" \
    '\x08\x04\x08\x05\x08\x05'
for whole in 0 1 2 3 9 a b; do
    seed datagrams '\x00' "$(to 0 00 00 00 00 0 "$(fragment $whole 0)")" "$(to 0 00 00 00 00 0 "$(fragment $whole 1)")"
done
seed datagrams '\x01' "$(to 0 00 00 00 00 0 '\x07\x00\x05\x09world\x07\x20\x01\x01')" # compressed, in one fragment
seed datagrams '\x01' "$(to 0 00 00 00 00 0 '\x14\x00\x01\x00f\x0c\x00\x01')" # in 40 fragments
burst() { # id, number
    to 0 00 00 00 00 0 "\\x14\\x00\\x01\\x00f\\x0c\\x0$2\\x0$1"
}
seed datagrams '\x01' "$(burst 1 0)" '\x00' "$(burst 2 1)" "$(to 0 00 00 00 00 0 '\x04\x00\x01\x00f\x0c\x01\x02')" # with a gap
seed datagrams '\x01' '\x0b\x00\x00\x00\x08\x00\x03\x00abc\x07' '\x09\x00\xfa' '\x0b\x00\x00\x00\x08\x00\x03\x00abc\x07' '\x09\x00\xf4'
seed datagrams '\x01' "$(to 1 00 06 00 81 5 "$hello")" "$(to 1 00 06 00 82 5 "$hello")" \
    "$(to 1 01 06 00 82 5 "$hello")" "$(to 1 00 06 00 83 5 '\x00\x00\x00\x00')" '\x0d\x01' \
    "$(to 1 00 06 00 84 5 "$hello")" '\x08\x06\x08\x05'
seed datagrams '\x01' "$file" "$(to 0 00 01 00 00 0 '\x40\x00\x00')" "$(to 0 00 01 00 00 0 '\x40\x00\x00')"
seed datagrams '\x01' '\x0a\x00\x00\x00\x05\x03\x00abc' "$(to 0 00 20 00 00 3 "$hello")" '\x00'
seed datagrams '\x10' '\x0a\x00\x01\x02\x01\x03\x00abc' '\x09\x00\x65' '\x08\x02\x08\x03\x08\x02' '\x0d\x00'
seed datagrams '\x01' '\x0b\x13\x00\x00\x01\x00\x08\xf1abcdefgh' '\x0c\x00' '\x0c\x01' '\x09\x00\x00'
seed datagrams '\x0d' '\x0b\x18\x00\x00\x03\x00\x40\x03' "$(repeat 64 z)" '\x09\x01\x68' '\x08\x01' '\x09\x00\x70' '\x08\x02'
seed datagrams '\x01' '\x0a\x00\x0b\x03\x05' '\x0c\x00\x0c\x00\x0c\x00\x0c\x00\x0c\x00\x0c\x00\x0c\x00\x0c\x00'
seed datagrams '\xff' '\x0f\xff\x00' "$(to 0 00 00 00 00 0 "$(fragment 5 0)")" '\x08\x04'
seed datagrams '\x01' '\x0f\x02\x03' '\x0a\x00\x02\x05\x05' '\x08\x00\x08\x02\x08\x03' '\x0d\x02\x02' '\x0d\x03\x01'
for flaw in c0 c1 c2 c3 c4 c5 ff; do
    seed datagrams '\x01' "$(to 0 00 00 00 00 0 "\\x03\\x${flaw}\\x05\\x09world\\x07\\x0a\\x00\\x10")"
done
files=
for id in 0 1 2 3 4 5; do files+=$(to 1 00 06 00 81 $id "$hello"); done
seed datagrams '\x01' "$files"
header=$(repeat 4 '\x67')"e0$(repeat 10 '\x00')$(repeat 4 '\x37')p0$(repeat 10 '\x00')$(repeat 28 '\x00')"
seed datagrams '\x01\x07\x00\x05' "$header" hello
dictionary datagrams '3200' '\x01\x00' '\x0a\x00' '\x00\xFA\x00\x00' '\xFF\xFF\xFF\xFF' '\x10\x00\x00\x00' \
    '\x0c\x00' '\x0d\x00' '\x08\x05' '\x40\x00\x00' '\xFC\x03' '\x04\x00\x01\x00f'

# --- header: switches, statuses, length, header, text
seed header '\x06\x00\x05' "$header" hello
seed header '\x07\x25\xff\xff' "$header" '%%s%%n'
seed header '\x0e\x1c\x10' "$(repeat 60 '\xff')" "$(repeat 64 x)"
seed header '\x06\x00\x05' "$header" "$(repeat 1100 x)"
seed header '\x16\x00\x00' "$(repeat 48 '\x01')" '\xe8\xfd\x00\x00\x01\x00\x07\x00' '\x00\x00\x00\x00' '../x'
dictionary header '/' '..' '_proxy_' '%n' '3200' '\x00\xFA\x00\x00' '\xFF\xFF\xFF\xFF' '\xFE\x03'

# --- envelope: switches (what, FORCE, reserve), text
stream='x\x9c\xcbH\xcd\xc9\xc9\x07\x00\x06,\x02\x15' # hello
seed envelope '\x00' "$(be32 5)" "$stream"
for claim in 0 4 6 1048576 268435457 4294967235 4294967295; do seed envelope '\x50' "$(be32 $claim)" "$stream"; done
seed envelope '\x01' "$(repeat 200 a)"
seed envelope '\x24'
seed envelope '\x02' 3200 "$(repeat 16 '\x00')" "$(repeat 200 b)"
seed envelope '\x0d' 3200 "$(repeat 16 '\x00')" "$(be32 5)" "$stream"
seed envelope '\x86\x10\x00\x00\x00' "$stream"
dictionary envelope '3200' 'x\x9c' 'x\x01' 'x\xDA' '\x00\x00\x00\x05' '\xFF\xFF\xFF\xFF' '\x10\x00\x00\x00' '\x00\x04'

# --- allowlist: switches, (signature), (decrypted), (second list), list
entry=$(printf fuzz | sha256sum | cut -d ' ' -f 1)
list="{\"linux\": [\"other\", 5, null, \"$entry\", {}]}"
seed allowlist '\x00' "$list"
seed allowlist '\x00' '{"linux": "' "$entry" '", "linux": []}'
seed allowlist '\x00' '{"a": [true, false, -1e9, "\\u00e9\\ud83d\\ude00"], "LINUX": {"b": [' "$entry" ']}}'
seed allowlist '\x00' "$(repeat 1100 '[')"
seed allowlist '\x01\x58\x01' "$(repeat 344 A)" "$list"
seed allowlist '\x01\x58\x01' "$(repeat 342 A)" '==' "$list"
seed allowlist '\x01\x02\x00' '!!' "$list"
seed allowlist '\xe0\x40' "$entry" "$list"
seed allowlist '\xf8\x05other' "$list"
seed allowlist '\xf8\x00' "$list"
dictionary allowlist '\"linux\"' "\\\"$entry\\\"" '{' '}' '[' ']' ':' ',' 'null' 'true' 'false' '1e308' '-0' '\\u0000' \
    '\\ud83d' '\"' '\xEF\xBB\xBF' '==' '\x0D\x0A' '/*'

# --- ini: switches, (key), text; or below 64 the parts of a file
agent='[agent]\nlocation = 2\ndeploy_type = a/b\nagent_type = linux\ncnapp = 1\nhostid = 4711\n[locations]\n2 = here\n'
seed ini '\xff\x00' "$agent"
seed ini '\x5f\x05agent' '\xef\xbb\xbf; note\r\n[agent] # note\r\n  location=-1\r\ndeploy_type=../x\r\nhostid=99999999999\r\n'
seed ini '\xdf\x00' '[config]\naddr = example.invalid\n[port]\nipc = 8099\n'
seed ini '\xff\x00' '[ipc_proxy]\ndisable_offline_cache=1\n[transfer]\neagain_retry_interval_ms=-5\n' \
    'eagain_max_retry_times=99999999999999999999\n'
seed ini '\xff\x00' '[' "$(repeat 60 s)" ']\nkey=' "$(repeat 4100 v)" '\nnext=1'
for size in 4092 4093 4094 4095; do seed ini '\xff\x00k=' "$(repeat $size v)" '\nnext=1'; done
for form in 00 3f c0 ff; do seed ini "\\x01\\x04abcdef\\x02keys\\x05values\\x$form"; done
dictionary ini '[agent]' '[locations]' '[config]' '[port]' '[ipc_proxy]' '[transfer]' 'location=' 'deploy_type=' \
    'agent_type=' 'cnapp=' 'hostid=' 'addr=' 'ipc=' 'disable_offline_cache=' 'eagain_retry_interval_ms=' \
    'eagain_max_retry_times=' '\x0A' '\x0D\x0A' ' ;' ' #' '..' '\xEF\xBB\xBF' '2147483648' '-1' '\x00' ']'

# --- identity: what, and its answers
for id in 123 18446744073709551615 1e400 -5 nan 0x1p63 ''; do seed identity '\x00{"vmid":"' $id '"}\n'; done
seed identity '\x00{"vmid":5, "vmid":"\\u0031"}'
seed identity '\x00' "$(repeat 1100 '[')"
seed identity '\x01\x67\x12\x00\x00' '\x02\x00\x00\x00\x00\x0f'
interface() { printf %s "$1$(repeat $((40 - ${#1})) '\x00')"; }
seed identity '\x02\x14' "$(interface eth0)" "$(interface lo)" '\x00\x00\x00\x00' '\x02\x00\x00\x00\x00\x0a\x00\x04'
seed identity '\x03\x00\x02\x69' "$(interface eth0)" '\x40\x00' '\x02\x00\x00\x00\x00\x0a'
dictionary identity '{\"vmid\":\"' '\"}' '\"vmid\"' 'eth0' 'lo' '10.0.0.0' '1e999' 'inf' 'nan' '0x' '\\u0000' '\x0A'
