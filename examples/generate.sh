#!/bin/sh
# Makes the example topologies anew: generate.sh DMQ [DIRECTORY], where DMQ is the dmq program. The chassis is what
# `dmq gen` makes without options; the box has the ports of layouts/box-32x100g.tsv.
set -e
here=$(dirname "$0")
dmq=$1
to=${2:-$here}
"$dmq" gen > "$to/chassis.json"
"$dmq" gen --devices 1 --layout "$here/layouts/box-32x100g.tsv" > "$to/box.json"
