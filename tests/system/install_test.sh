#!/bin/sh
# install_test.sh BUILD README: the installed tree serves the README's program, compiled as the README says.
set -eu
place=$(mktemp -d /var/tmp/tavipc-XXXXXX)
trap 'rm -rf "$place"' EXIT
cmake --install "$1" --prefix "$place/usr" >/dev/null
mkdir "$place/bin" "$place/config"
sed -n '/^```c$/,/^```$/p' "$2" | sed '/^```/d' >"$place/hello.c"

PKG_CONFIG_PATH=$(dirname "$(find "$place/usr" -name tavipc.pc)")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # the flags are words
cc -std=c11 -pedantic -Wall -Wextra -Werror "$place/hello.c" -o "$place/bin/hello" \
    $(pkg-config --cflags --libs tavipc) -Wl,-rpath,"$(pkg-config --variable=libdir tavipc)"

"$place/usr/bin/tavctl" allowlist add --key "${TAVIPC_SIGNING_KEY:-$1/devkey/private.pem}" \
    --dir "$place/config" hello >/dev/null
# A host id from the platform: the identity lock of the machine is not this test's business.
printf '[agent]\nlocation = 2\ndeploy_type = tmp/%s\ncnapp = 1\nhostid = 7\n' "${place##*/}" \
    >"$place/config/agent.ini"
said=$("$place/bin/hello")
echo "$said"
[ "$said" = "Success, 8: hello" ]
