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

step "kestrelwatch runs: kestrelflash all -p <pipe> 0 100"
"$bin/kestrelwatch" --strict -- "$bin/kestrelflash" all

step "what the unit received, byte for byte against the files"
for image in kestrelmicro.bin overlookcam.bin overlooksys.bin; do
    cmp "$image" "$work/unit/$image"
    echo "$image: identical ($(stat -c %s "$image") bytes)"
done

step "a second look: kestrelflash all q"
"$bin/kestrelflash" all q | tail -n 1

kill "$simulator"
wait "$simulator" || { echo "the simulator refused something:"; cat "$work/simulator.out"; exit 1; }
simulator=""
step "done"
