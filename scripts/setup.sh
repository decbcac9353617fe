#!/bin/sh
# Installs what the project needs from Debian 12. Asks dpkg first: with nothing missing it needs no rights and no network.
#   scripts/setup.sh [build|test|server|bench|lint|abi|package|--arm]...     (default: build test server)
# --arm: a compiler and an emulator for 32-bit ARM, and in build-arm-root/ the libraries of that machine, unpacked. They are
# fetched with lists of their own: the machine itself learns no other architecture.
# server: a Redis server. Debian starts one as it installs it; nothing here uses that one.
# 0: everything is there.  1: the installation failed.  2: something is missing and this user may not install it.
set -eu

packages() {
    case $1 in
        build) echo g++ cmake ninja-build pkg-config python3 protobuf-c-compiler libprotobuf-c-dev libevent-dev \
            libhiredis-dev libpugixml-dev libcli11-dev nlohmann-json3-dev libncurses-dev libedit-dev ;;
        test) echo libgtest-dev ;;
        server) echo redis-server ;;
        lint) echo clang-14 clang-tidy-14 clang-format-14 ;;
        bench) echo libbenchmark-dev ;;
        abi) echo abigail-tools ;;
        package) echo build-essential debhelper lintian ;;
        --arm) echo g++-arm-linux-gnueabihf qemu-user-static ;;
        *) echo "setup.sh: no set '$1'; the sets are build, test, server, bench, lint, abi, package and --arm" >&2; return 1 ;;
    esac
}

arm_packages="libc6 libstdc++6 libprotobuf-c-dev libevent-dev libhiredis-dev libpugixml-dev libcli11-dev nlohmann-json3-dev
libncurses-dev libedit-dev libgtest-dev libc6-dev- linux-libc-dev-"  # the compiler has its own of the last two

unpack_arm_root() {
    here=$(dirname "$0")
    # shellcheck disable=SC2086  # a list of names
    sh "$here/debian_root.sh" armhf "$here/../build-arm-root" $arm_packages ||
        { echo "setup.sh: could not fetch the armhf packages" >&2; exit 1; }
}

[ $# -gt 0 ] || set -- build test server
wanted=
arm=
for set_name; do
    [ "$set_name" != --arm ] || arm=yes
    wanted="$wanted $(packages "$set_name")"
done
if ! command -v dpkg-query > /dev/null; then
    echo "setup.sh: this is not a Debian system; install what Debian 12 calls:$wanted" >&2
    exit 2
fi

missing=
for package in $wanted; do
    dpkg-query -W -f='${db:Status-Status}\n' "$package" 2> /dev/null | grep -qx installed || missing="$missing $package"
done
if [ -z "$missing" ]; then
    [ -z "$arm" ] || unpack_arm_root
    exit 0
fi

# With a terminal sudo may ask for a password; without one it must not.
rights=
if [ "$(id -u)" -ne 0 ]; then
    if [ -t 0 ]; then rights=sudo; else rights='sudo -n'; fi
    if ! $rights true 2> /dev/null; then
        echo "setup.sh: missing:$missing. As root, run:" >&2
        echo "apt-get update; apt-get install -y --no-install-recommends --no-remove$missing"
        exit 2
    fi
fi

echo "setup.sh: installing$missing"
apt() { $rights env DEBIAN_FRONTEND=noninteractive apt-get -q "$@" < /dev/null; }
apt update || echo "setup.sh: apt-get update failed; going on with the package lists that are there" >&2
# shellcheck disable=SC2086  # a list of names
if ! apt install -y --no-install-recommends --no-remove $missing; then
    echo "setup.sh: could not install:$missing" >&2
    exit 1
fi
[ -z "$arm" ] || unpack_arm_root
