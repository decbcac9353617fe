#!/bin/sh
# The binary interface of both libraries, on both machines, against the descriptions in abi/, which were written with the last
# version. What only adds passes, at the end of a record that may grow too (abi/growing.suppr); a name that is gone or a record
# that changed does not.
#   scripts/abi.sh           compares build/ and build-arm/
#   scripts/abi.sh update    writes the descriptions anew: part of making a version
set -eu
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What a client can see: the types of these headers, and no others.
cp -r include/tq_dm_cache build/generated/tq_dm_cache "$(pkg-config --variable=includedir libprotobuf-c)/protobuf-c" "$work"
describe() {
    abidw --headers-dir "$work" --drop-private-types --exported-interfaces-only --no-show-locs --no-comp-dir-path \
        --no-corpus-path "$1"
}

failed=0
for machine in amd64:build armhf:build-arm; do
    build=${machine#*:}
    for library in products/libtq_dm_cache_essence platform/libtq_platform; do
        name=$(basename "$library")-${machine%%:*}
        describe "$build/$library.so.1" > "$work/now"
        if [ "${1-}" = update ]; then
            gzip -9n < "$work/now" > "abi/$name.abi.gz"
            continue
        fi
        zcat "abi/$name.abi.gz" > "$work/then"
        if abidiff --suppressions abi/growing.suppr --no-added-syms "$work/then" "$work/now"; then echo "abi: $name: ok"; else failed=1; fi
    done
done
[ "$failed" -eq 0 ] || echo "abi: not what abi/ says; scripts/abi.sh update writes it anew when a version is made" >&2
exit "$failed"
