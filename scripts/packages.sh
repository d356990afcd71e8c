# The parts of ./dev that install, and that make Debian packages.
# shellcheck shell=bash

# Sets key_option to the CMake option for the key of the release build, whose private half signs allow-lists.
find_key() {
    configure release || return 1
    key_option=$(sed -n 's/^TAVIPC_ALLOWLIST_KEY:[A-Z]*=\(..*\)/-DTAVIPC_ALLOWLIST_KEY=\1/p' build/release/CMakeCache.txt)
    [[ -z $key_option ]] || return 0
    build_release_target allowlist_key || return 1
    key_option=-DTAVIPC_ALLOWLIST_KEY=$PWD/build/release/devkey/public.pem
    say "Allow-list key: the DEVELOPMENT pair in build/release/devkey; do not ship this"
}

# The Debian packages in build/package, for the key of the release build unless another one is given.
make_packages() { # CMake options
    local key_option=
    if [[ " $*" != *" -DTAVIPC_ALLOWLIST_KEY="?* ]]; then
        find_key || return 1
    fi
    build package ${key_option:+"$key_option"} "$@" || return 1
    rm -f build/package/*.deb
    quietly build/package.log cpack --config build/package/CPackConfig.cmake -B build/package
}

# Installs a build without assertions and without tests.
install_under() { # prefix
    local parent=$1 root=() key_option
    find_key
    build install "$key_option"
    while [[ ! -e $parent ]]; do parent=$(dirname "$parent"); done
    [[ -w $parent ]] || root=(sudo)
    quietly build/install.log "${root[@]}" cmake --install build/install --prefix "$1"
    ((EUID == 0)) || root=(sudo)
    [[ $1 != /usr* ]] || "${root[@]}" ldconfig || say "Run ldconfig as root: programs may not find the libraries yet."
    say "installed under $1"
}
