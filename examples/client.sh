#!/bin/sh
# A client of orvbrokerd in shell. What is awkward here, an abstract socket and binary lengths, orvctl does.
#
#   client.sh call NAME [DATA]     prints the answer's data
#   client.sh subscribe EVENT      prints each event, until it is interrupted
set -eu

call() {
    # orvctl prints the answer on one line, {"data": ..., "status": N}. Its own status is 0 when N is 0, 1 when it is
    # another number, and 3 when nobody answers; it says then what is wrong.
    status=0
    answer=$(orvctl call "$@") || status=$?
    [ "$status" -le 1 ] || return "$status"
    answer=${answer#'{"data": '}
    answer=${answer%', "status": '*}
    [ "$status" = 0 ] || exec >&2
    printf '%s\n' "$answer"
    return "$status"
}

subscribe() {
    # One line for each event. When the daemon ends, so does orvctl: subscribe anew, until the daemon is back.
    while orvctl subscribe "$1" | while IFS= read -r event; do
        printf '%s\n' "$event" || exit 1 # nobody reads this any more
    done; do
        sleep 1
    done
}

case ${1-}:$# in
call:2 | call:3 | subscribe:2) "$@" ;;
*)
    echo "usage: client.sh call NAME [DATA] | subscribe EVENT" >&2
    exit 2
    ;;
esac
