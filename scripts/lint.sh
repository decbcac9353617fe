#!/bin/sh
# Everything that is checked without running the project. `make lint` calls it after scripts/setup.sh.
#   scripts/lint.sh          all; the clang build is incremental
#   scripts/lint.sh quick    without the clang build: seconds
set -eu
cd "$(dirname "$0")/.."
jobs=$(nproc)
failed=0

step() { # step NAME COMMAND...: says how long it took; a failure does not hide the next step's
    name=$1 begun=$(date +%s)
    shift
    if "$@"; then verdict=ok; else verdict=FAILED failed=1; fi
    printf 'lint: %-12s %s, %s s\n' "$name" "$verdict" "$(($(date +%s) - begun))"
}

sources() { git ls-files --cached --others --exclude-standard -- '*.c' '*.cpp' '*.h' '*.hpp' | while read -r f; do [ ! -f "$f" ] || echo "$f"; done; }

format() { sources | xargs -n 16 -P "$jobs" clang-format-14 --dry-run --Werror; }

# Of the machine that somebody works on, nothing belongs into the project. (The brackets keep this line from matching.)
machine_paths() { ! git grep -nIE "(^|[^A-Za-z0-9_.>)])/(wor[k]|tm[p]|hom[e]|roo[t]|User[s])/" -- . ':!LICENSE'; }

# The second compiler, its thread-safety analysis and clang-tidy in one build (the preset "lint") of what ships, so that only
# what changed is looked at again. Over the tests they would take longer than over all of it.
clang() {
    [ ! .clang-tidy -nt build-lint/build.ninja ] || rm -rf build-lint
    cmake --preset lint > /dev/null || return 1
    cmake --build build-lint -j"$jobs" -- -k 0 > build-lint/lint.log 2>&1 && return
    grep -vE '^[0-9]+ warnings? generated|^\[[0-9]+/[0-9]+\]' build-lint/lint.log
    return 1
}

step format format
step includes python3 scripts/check_dependencies.py
step documents python3 scripts/check_documents.py
step queries python3 scripts/queries.py check
step paths machine_paths
step plants python3 scripts/plant.py --check
[ "${1-}" = quick ] || step clang clang
exit $failed
