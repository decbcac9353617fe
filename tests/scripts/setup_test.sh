#!/bin/sh
# What a newcomer loses when scripts/setup.sh is wrong: a first run that hangs, removes packages, or asks for rights and
# network that it does not need. Its tools are stand-ins that come first in PATH. Usage: setup_test.sh SETUP FOLDER
set -u
setup=$1 fakes=$2/fakes calls=$2/calls failed=0
rm -rf "$fakes" && mkdir -p "$fakes"

fake() { printf '#!/bin/sh\n%s\n' "$2" > "$fakes/$1" && chmod +x "$fakes/$1"; }
fake dpkg-query 'for p; do :; done; case " $ABSENT " in *" $p "*) exit 1 ;; *" !$p "*) echo config-files ;; *) echo installed ;; esac'
fake apt-get 'echo "$DEBIAN_FRONTEND apt-get $*" >> "$CALLS"; case "$*" in *update*) exit "$UPDATE" ;; *) exit "$INSTALL" ;; esac'
fake id 'echo "$USER_ID"'
fake sudo '[ "$SUDO" = yes ] || exit 1; [ "$1" = -n ] && shift; echo sudo >> "$CALLS"; exec "$@"'

# check TITLE EXIT-CODE EXPECTED-IN-OUTPUT-OR-CALLS ENVIRONMENT... -- ARGUMENTS...
check() {
    title=$1 code=$2 pattern=$3; shift 3
    environment="ABSENT= UPDATE=0 INSTALL=0 USER_ID=1000 SUDO=no"
    : > "$calls"
    output=$(env $environment PATH="$fakes:$PATH" CALLS="$calls" "$@" 2>&1 < /dev/null)
    got=$?
    if [ "$got" -eq "$code" ] && printf '%s\n' "$output" "$(cat "$calls")" | grep -qE -- "$pattern"; then return; fi
    printf 'FAILED: %s: exit code %s, output:\n%s\ncalls:\n%s\n' "$title" "$got" "$output" "$(cat "$calls")"
    failed=1
}
untouched() { [ ! -s "$calls" ] || { echo "FAILED: $1: called $(cat "$calls")"; failed=1; }; }

check 'nothing missing needs no rights' 0 '^$' sh "$setup" build test lint
untouched 'nothing missing needs no network'
check 'without rights, the one line to run' 2 '^apt-get update; apt-get install -y --no-install-recommends --no-remove cmake libgtest-dev$' \
    ABSENT='cmake !libgtest-dev clang-14' sh "$setup"
untouched 'without rights, nothing is tried'
check 'a failing update does not stop root' 0 '^noninteractive apt-get .*install -y --no-install-recommends --no-remove cmake$' \
    ABSENT=cmake UPDATE=100 USER_ID=0 sh "$setup" build
check 'sudo without a password is used' 0 '^sudo$' ABSENT=clang-14 SUDO=yes sh "$setup" lint
check 'the other machine comes by its name' 2 '--no-remove qemu-user-static$' ABSENT=qemu-user-static sh "$setup" --arm
untouched 'nothing is fetched for it without its tools'
check 'a failing installation is a failure' 1 'could not install: cmake' ABSENT=cmake INSTALL=100 USER_ID=0 sh "$setup"
check 'an unknown set' 1 'no set .tests.; the sets are build,' ABSENT=cmake USER_ID=0 sh "$setup" tests
untouched 'an unknown set installs nothing'
exit $failed
