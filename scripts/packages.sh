#!/bin/sh
# Builds the Debian packages of debian/ into build-packages/ARCHITECTURE/, from a copy of the sources, and shows what
# lintian says of them. Needs no rights. The same sources give the same bytes.
#   scripts/packages.sh [ARCHITECTURE]...     (default: this machine's and armhf)
# armhf is built with the cross compiler and what `scripts/setup.sh --arm` has unpacked.
set -eu
cd "$(dirname "$0")/.."
native=$(dpkg --print-architecture)
jobs=${JOBS:-$(nproc)}
[ $# -gt 0 ] || set -- "$native" armhf

packaged=$(dpkg-parsechangelog --show-field Version) # a release, and which packaging of it
case $packaged in
    "$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)"-*) ;;
    *) echo "packages.sh: debian/changelog has version $packaged, CMakeLists.txt another" >&2; exit 1 ;;
esac

build() (
    architecture=$1 folder=$PWD/build-packages/$1
    rm -rf "$folder/source" "$folder"/*.deb
    mkdir -p "$folder/source"
    tar --exclude='./build*' --exclude=./.git -cf - . | tar -xf - -C "$folder/source"
    set -- --build=binary --no-sign --jobs="$jobs"
    if [ "$architecture" != "$native" ]; then
        cp -a build-arm-root "$folder/source"  # within the folder whose path is left out of debug information
        set -- "$@" --host-arch="$architecture" --build-profiles=cross --no-check-builddeps
    fi
    cd "$folder/source"
    dpkg-buildpackage "$@" > ../build.log 2>&1 || { tail -n 40 ../build.log >&2; return 1; }
)

for architecture; do
    echo "packages.sh: building for $architecture, see build-packages/$architecture/build.log"
    build "$architecture"
    (cd "build-packages/$architecture" && wc -c ./*.deb)
    echo "packages.sh: lintian for $architecture"
    lintian --allow-root --fail-on error,warning "build-packages/$architecture"/*.changes
done
