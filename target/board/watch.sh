#!/bin/sh
# watch.sh ARGUMENT... : kestrelwatch as it ships, on the board's own nodes, for a unit that is played
# on the terminals of the folder HARBOR_DEV_DIR. WATCH and FPGASERIAL are the programs. One at a time.
# Designed pauses are as long as they are, so a run may stand longer than one on a workstation.
set -u
unit=$HARBOR_DEV_DIR
unset HARBOR_DEV_DIR
said=$(mktemp)
"$FPGASERIAL" --log /dev/null --line "0=with:$unit/fpgaserial0" --line "1=with:$unit/fpgaserial1" \
    >"$said" &
driver=$!
until grep -q ready "$said"; do sleep 0.01; done
"$WATCH" "$@" --give-up 60
status=$?
kill $driver
wait $driver 2>/dev/null
rm -f "$said"
exit $status
