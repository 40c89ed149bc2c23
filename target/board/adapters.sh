#!/bin/sh
# adapters.sh: a workstation's kestrelwatch (WATCH) drives a unit through lines that a driver buffers,
# at the speed of the line: ttyS4 and ttyS2 here, at whose other ends, ttyS5 and ttyS3, the simulated
# unit answers. SIMULATOR and IMAGES as for cases.sh. A machine that stalls makes the unit miss an
# answer's time: a run that says so is made again.
set -u
work=$(mktemp -d) || exit 1
cp -r "$IMAGES" "$work/images"
"$SIMULATOR" --dir "$work/dev" --state "$work/state" --images "$work/images" --baud 115200 \
    --attach 0=/dev/ttyS3 --attach 1=/dev/ttyS5 >"$work/unit" 2>&1 &
unit=$!
until grep -q ready "$work/unit"; do sleep 0.05; done
cd "$work/images" || exit 1
status=1 tries=0
while [ $status -ne 0 ] && [ $tries -lt 4 ]; do
    tries=$((tries + 1))
    "$WATCH" --plain --json "$work/events" --port micro=/dev/ttyS4 --port camera=/dev/ttyS2 all \
        >"$work/console" 2>"$work/said"
    status=$?
    tail -1 "$work/said"
done
kill $unit
wait $unit 2>/dev/null
if [ $status -ne 0 ]; then
    tail -20 "$work/console"
    cat "$work/unit"
    exit 1
fi
for image in overlookcam.bin overlooksys.bin; do
    cmp "$work/state/$image" "$image" || exit 1
done
# The camera's first block has 64512 bytes of 11 bits, so it takes 6.16 s of this line at the least.
began() { # BLOCK
    sed -n "s/^{\"t\":\([0-9]*\)\.\([0-9]*\),\"event\":\"progress\".*\"image\":\"camera[a-z ]*\",\"block\":$1,.*/\1\2/p" \
        "$work/events" | head -1
}
took=$(($(began 2) - $(began 1)))
echo "the camera's first block took $took ms"
# On a busy machine the beginning is told late; a line without a pace takes milliseconds.
[ $took -ge 3000 ]
