#!/bin/sh
# Installs what the project needs from Debian 12. Asks dpkg first: with nothing missing it needs no rights and no network.
#   scripts/setup.sh [build|test|lint]...     (default: build test)
# 0: everything is there.  1: the installation failed.  2: something is missing and this user may not install it.
set -eu

packages() {
    case $1 in
        build) echo g++ cmake ninja-build pkg-config python3 protobuf-c-compiler libprotobuf-c-dev libevent-dev \
            libpugixml-dev libcli11-dev nlohmann-json3-dev ;;
        test) echo libgtest-dev ;;
        lint) echo clang-14 clang-tidy-14 clang-format-14 ;;
        *) echo "setup.sh: no set '$1'; the sets are build, test and lint" >&2; return 1 ;;
    esac
}

[ $# -gt 0 ] || set -- build test
wanted=
for set_name; do
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
[ -n "$missing" ] || exit 0

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
