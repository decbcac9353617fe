#!/bin/sh
# Three processes on one device tree: one loads and changes it, one watches, one asks. In the middle the server goes away
# with unsaved changes, and comes back. `make run-redis` calls it; the server lives in a temporary folder and ends with it.
set -eu
cd "$(dirname "$0")/.."
dmq=build/dmq/dmq
folder=$(mktemp -d)
DMQ_STORE=redis+unix://$folder/store.sock
export DMQ_STORE

# What runs beside this script, with an & behind it, ends with it, even when it is killed; or does not begin any more.
beside() { exec setpriv --pdeathsig KILL -- sh -c '[ "$PPID" = "$0" ] && exec "$@"' $$ "$@"; }
server() {
    beside redis-server --port 0 --unixsocket "$folder/store.sock" --unixsocketperm 700 --dir "$folder" --save "" \
        --logfile "$folder/log" > /dev/null &
    server=$!
    await "answer from the server" ask_server ping
}
end() {
    trap '' HUP INT TERM
    for process in $watch $server; do
        kill -9 "$process" 2> /dev/null || true
        wait "$process" 2> /dev/null || true
    done
    rm -rf "$folder"
}
watch= server=
trap end EXIT
trap 'exit 1' HUP INT TERM

say() { printf '\n== %s\n' "$*"; }
run() { # run WHO COMMAND..: shows what a person at that terminal would type, and see
    who=$1
    shift
    printf '%-5s $ dmq %s\n' "$who" "$*"
    "$dmq" "$@" 2>&1 | sed "s/^/$who | /"
}
await() { # await WHAT COMMAND..: until it succeeds, 10 s at most
    what=$1 tries=0
    shift
    until "$@" > /dev/null 2>&1; do
        tries=$((tries + 1))
        [ "$tries" -lt 200 ] || { echo "run_redis.sh: after 10 s still no $what" >&2; exit 1; }
        sleep 0.05
    done
}
told() { await "\"$1\" from the watching process" grep -q "$1" "$folder/watched"; }
ask_server() { redis-cli -s "$folder/store.sock" "$@"; }
is_followed() { ask_server pubsub numsub dm:1:p_dev.card_info | grep -qx 1; }

say "A server, and a chassis loaded into it (export DMQ_STORE=redis+unix://...)"
server
run load load examples/chassis.json

say "A second process watches cards, a third one asks"
beside "$dmq" watch card_info --for 60 > "$folder/watched" 2>&1 &
watch=$!
await "watching process" is_followed
run ask show devices
run load set card_info devid=1 slotid=2 sslotid=0 is_online=false
told 'is_online true -> false'
run ask show cards slot=1/3

say "The server saves, hears of two more changes, and dies with them"
ask_server save | sed 's/^/redis | /'
run load set card_info devid=2 slotid=4 sslotid=0 config_dev_type=200 is_online=true user_slot=5 --create
run load delete card_info devid=2 slotid=2 sslotid=0
told 'deleted.*devid=2 slotid=2'
kill -9 "$server"
wait "$server" 2> /dev/null || true
told 'connection lost'
run ask show devices || true

say "It comes back with what it had saved: the watching process gives up what is gone and takes back what it had lost"
server
told 'resynchronised'
run ask show cards slot=2/3
run load set card_info devid=1 slotid=2 sslotid=0 is_online=true
told 'is_online false -> true'

say "What the watching process has told"
sed 's/^/watch | /' "$folder/watched"

say "Its copy and the store are equal, kind by kind, in any new process too"
printf 'sync\nstore compare\n' | "$dmq" shell 2>&1 | sed -n '/STORE/,$p' | sed 's/^/ask | /'
