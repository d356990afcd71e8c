#!/usr/bin/env bash
# usage: tools/i386_sysroot.sh DIRECTORY PACKAGE...
# Unpacks Debian's i386 packages, named one by one, into a directory, with an apt of its own: no root is needed, and
# neither the system's packages nor its list of architectures change.
set -euo pipefail
root=$(realpath -m "$1") apt=$root/apt
mkdir -p "$apt"/{lists,archives,debs}
: >"$apt/status"
cat >"$apt/apt.conf" <<CONF
APT { Architecture "i386"; Architectures { "i386"; }; Sandbox::User ""; };
Dir { State "$apt"; State::Lists "$apt/lists"; State::status "$apt/status"; Cache "$apt"; };
CONF
export APT_CONFIG=$apt/apt.conf
apt-get update || true # an archive may lack its index for this architecture: what is missing shows in the next step
(cd "$apt/debs" && apt-get download "${@:2}")
for package in "$apt"/debs/*.deb; do dpkg -x "$package" "$root"; done
# All libraries in one place, as the linker looks for one that another needs beside it.
cp -a "$root"/lib/. "$root"/usr/lib/
find "$root" -type l -lname '/lib/*' | while read -r link; do ln -sfn "$(basename "$(readlink "$link")")" "$link"; done
