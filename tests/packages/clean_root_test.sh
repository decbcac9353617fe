#!/bin/sh
# What somebody loses who installs the packages that scripts/packages.sh has built: a dependency that is not named,
# a file that is not there or leads out of the package, a client that does not build or start.
# Each architecture has a root with nothing in it but the packages, what they depend on, and the headers of libc. The
# client of one page is built there by pkg-config and by CMake, with this machine's compiler for it, and runs, as dmq
# does.
# usage: clean_root_test.sh [ARCHITECTURE]...     (default: this machine's and armhf)
set -eu
cd "$(dirname "$0")/../.."
project=$PWD native=$(dpkg --print-architecture)
[ $# -gt 0 ] || set -- "$native" armhf
names='libtq-dm-cache-essence1 libtq-platform1 libtq-dm-cache-dev tq-dm-cache-tools'

fail() { echo "FAILED: $architecture: $*" >&2; exit 1; }

install_packages() {
    packages=
    for name in $names; do
        packages="$packages $(echo "$project/build-packages/$architecture/${name}"_*_"$architecture".deb)"
    done
    rm -rf "$root" "$built"
    # shellcheck disable=SC2086  # lists of names
    "$project/scripts/debian_root.sh" "$architecture" "$root" libc6-dev $packages > "$log" 2>&1 ||
        { cat "$log"; fail dependencies; }
    echo "$architecture" > "$root/var/lib/dpkg/arch"
    # shellcheck disable=SC2086
    dpkg --root="$root" --force-not-root --install $packages || fail installation
}

# With libraries of the root only.
run() {
    $emulator "$(echo "$root/lib/$triplet"/ld-linux*.so.*)" --inhibit-cache \
        --library-path "$root/usr/lib/$triplet:$root/lib/$triplet" "$@"
}

check_program() {
    run --list "$1" > "$log" || fail "$1 does not load"
    ! grep '=> /' "$log" | grep -v "=> $root/" || fail "$1 takes a library from elsewhere"
    [ "$(run "$1")" = "row 16: device 1 was added
device 1 is called switch-1" ] || fail "$1 prints something else"
}

use_packages() {
    examples=$root/usr/share/doc/libtq-dm-cache-dev/examples
    mkdir "$built"
    export PKG_CONFIG_SYSROOT_DIR="$root" PKG_CONFIG_PATH='' PKG_CONFIG_LIBDIR="$root/usr/lib/$triplet/pkgconfig"
    flags=$(pkg-config --cflags --libs tq_dm_cache) || fail pkg-config
    # shellcheck disable=SC2086
    "$triplet-gcc" --sysroot="$root" -Wall -Wextra -Werror "$examples/client.c" $flags -o "$built/client" ||
        fail "a build by $flags"
    check_program "$built/client"

    cmake -S "$examples/installed" -B "$built/cmake" -DCMAKE_C_COMPILER="$triplet-gcc" -DCMAKE_SYSROOT="$root" \
        -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=ONLY || fail "find_package"
    cmake --build "$built/cmake" || fail "a build by CMake"
    check_program "$built/cmake/client"

    run "$root/usr/bin/dmq" --load "$root/usr/share/doc/tq-dm-cache-tools/examples/chassis.json" show devices |
        grep -q '^  2  switch-2  Chassis  yes' || fail dmq
    run "$root/usr/bin/dmq" complete sho | grep -q '^show' || fail 'dmq complete'
}

remove_packages() {
    # shellcheck disable=SC2086
    dpkg --root="$root" --force-not-root --purge $names > "$log" 2>&1 || { cat "$log"; fail removal; }
    [ -z "$(find "$root/usr" -name '*tq_*' -o -name '*tq-*' -o -name '*dmq*')" ] || fail 'something is left behind'
}

for architecture; do
    root=$project/build-packages/$architecture/root built=$project/build-packages/$architecture/client
    log=$project/build-packages/$architecture/test.log
    triplet=$(dpkg-architecture -a"$architecture" -qDEB_HOST_MULTIARCH 2> /dev/null)
    emulator=
    [ "$architecture" = "$native" ] || emulator="qemu-arm-static -L $root"
    install_packages
    use_packages
    rm -rf "$root-headers" && cp -a "$root/usr/include/tq_dm_cache" "$root-headers"
    remove_packages
    # Packages of two architectures can be installed side by side only while what they share is the same.
    diff -r "$root-headers" "${first:=$root-headers}" || fail 'headers differ from the first architecture'
    echo "ok: $architecture"
done
