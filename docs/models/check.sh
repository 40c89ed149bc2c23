#!/usr/bin/env bash
# Checks the models, and that the checker finds each fault put in on purpose.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# verify MODEL NAME MODE DEFINES...: prints the number of errors that the checker found.
verify() {
    local model=$1.pml name=$1-$2 mode=$3
    shift 3
    mkdir -p "$work/$name"
    cp "$model" "$work/$name"
    {
        cd "$work/$name"
        spin "$@" -a "$model" >/dev/null
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

expect "no deadlock, no use after free" none "$(verify event_wait good-safety safety)"
expect "every wait ends" none "$(verify event_wait good-liveness liveness)"
expect "no lost wake-up" none "$(verify event_wait good-forever safety -DFOREVER)"
expect "locks in opposite orders" some "$(verify event_wait inverted safety -DINVERTED)"
expect "signal before the record" some "$(verify event_wait signalfirst safety -DFOREVER -DSIGNALFIRST)"
expect "cancel without waiting for the firing" some "$(verify event_wait nowait safety -DNOWAIT)"
expect "a cancel and its canceller's deletion" none "$(verify cancel good safety)"
expect "the canceller looks once" some "$(verify cancel askonce safety -DASKONCE)"
expect "the canceller asks for its own deleter only" some "$(verify cancel onestep safety -DONESTEP)"
expect "the deleter does not wake it" some "$(verify cancel nowake safety -DNOWAKE)"
expect "the deleter wakes it too early" some "$(verify cancel wakefirst safety -DWAKEFIRST)"
