#!/usr/bin/env bash
# The updater's whole job on a simulated unit: `demo.sh BINDIR`. Needs no board and no privileges;
# works in a folder of its own, which goes at the end.
set -euo pipefail
bin=$(cd "$1" && pwd)
work=$(mktemp -d)
simulator=""
cleanup() {
    [ -z "$simulator" ] || kill "$simulator" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n\033[1m--- %s\033[0m\n' "$*"; }
[ -t 1 ] || step() { printf '\n--- %s\n' "$*"; }

mkdir "$work/images" "$work/unit"
cd "$work/images"

step "new firmware: version 21 for the microcontroller, 0102 and 0304 for the camera"
{ printf '\x21'; head -c 6143 /dev/urandom; } >kestrelmicro.bin
head -c 150000 /dev/urandom >overlookcam.bin
head -c 120000 /dev/urandom >overlooksys.bin
echo 0102 >overlookcamver
echo 0304 >overlooksysver
ls -l

step "a simulated unit with old firmware comes up"
"$bin/kestrelsim" --dir "$work/dev" --state "$work/unit" --images . --micro-version 0x20 \
    --camera-version 0101 --system-version 0303 --baud 115200 >"$work/simulator.out" 2>&1 &
simulator=$!
for _ in $(seq 100); do
    grep -q ready "$work/simulator.out" && break
    sleep 0.1
done
cat "$work/simulator.out"
export HARBOR_DEV_DIR="$work/dev"

step "kestrelwatch checks what can be checked without the unit"
"$bin/kestrelwatch" --check all

# The link gives some answers 50 ms, which a busy machine can use up.
missed_answer() {
    tail -n 1 "$work/events.jsonl" |
        grep -qE '"cause":"(no-answer|answer-cut|block-unanswered|block-answer-cut|unconfirmed)"'
}

step "kestrelwatch asks the unit, updates it, and asks again"
for try in 1 2 3 4; do
    status=0
    "$bin/kestrelwatch" --json "$work/events.jsonl" all || status=$?
    [ $status -ne 0 ] || break
    [ $try -lt 4 ] && missed_answer || exit $status
    echo "this machine is busy, so an answer was missed (status $status): trying again"
done

step "what the unit received, byte for byte against the files"
for image in kestrelmicro.bin overlookcam.bin overlooksys.bin; do
    cmp "$image" "$work/unit/$image"
    echo "$image: identical ($(stat -c %s "$image") bytes)"
done

step "a second run finds nothing to do"
"$bin/kestrelwatch" --retries 3 all >/dev/null

kill "$simulator"
# A run in which an answer was missed leaves half a transfer, which the unit may refuse to continue.
wait "$simulator" || [ "$try" -gt 1 ] ||
    { echo "the simulator refused something:"; cat "$work/simulator.out"; exit 1; }
simulator=""
step "done"
