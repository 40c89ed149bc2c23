#!/usr/bin/env bash
# Checks the model of the event wait, and that the checker finds each fault put in on purpose.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# verify NAME MODE DEFINES...: prints the number of errors that the checker found.
verify() {
    local name=$1 mode=$2
    shift 2
    mkdir -p "$work/$name"
    cp event_wait.pml "$work/$name"
    {
        cd "$work/$name"
        spin "$@" -a event_wait.pml >/dev/null
        case $mode in
            safety) gcc -O2 -DSAFETY -DNOCLAIM -o pan pan.c 2>/dev/null && ./pan -m100000 ;;
            liveness) gcc -O2 -o pan pan.c 2>/dev/null && ./pan -a -f -m100000 ;;
        esac >pan.out
        sed -n 's/.*errors: \([0-9]*\).*/\1/p' pan.out | tail -1
    }
}

expect() {
    local what=$1 wanted=$2 found=$3
    if { [ "$wanted" = none ] && [ "$found" = 0 ]; } || { [ "$wanted" = some ] && [ "$found" -gt 0 ]; }; then
        echo "model: $what: $found errors, as it must be"
    else
        echo "model: $what: $found errors, wanted $wanted" >&2
        exit 1
    fi
}

expect "no deadlock, no use after free" none "$(verify good-safety safety)"
expect "every wait ends" none "$(verify good-liveness liveness)"
expect "no lost wake-up" none "$(verify good-forever safety -DFOREVER)"
expect "locks in opposite orders" some "$(verify inverted safety -DINVERTED)"
expect "signal before the record" some "$(verify signalfirst safety -DFOREVER -DSIGNALFIRST)"
expect "cancel without waiting for the firing" some "$(verify nowait safety -DNOWAIT)"
