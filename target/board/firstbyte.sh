#!/bin/sh
# firstbyte.sh FOLDER: microseconds from the updater's start to its first byte on the line. FIRSTBYTE
# is the measuring program; the rest of the environment as for cases.sh.
set -u
work=$(mktemp -d)
"$FPGASERIAL" --log "$work/log" --line "1=pty:$work/line1" >"$work/ready" &
until grep -q ready "$work/ready"; do sleep 0.05; done
cd "$IMAGES" || exit 1
"$FIRSTBYTE" "$work/line1" 21 "$UPDATER" micro >"$1/first_byte_us"
