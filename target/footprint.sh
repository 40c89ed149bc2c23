#!/usr/bin/env bash
# footprint.sh PROGRAMS TRACES DOCUMENT: writes the table of the size, memory and start of what ships,
# from the folder of the cross-built programs and what the emulated machine measured.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
programs=$1 traces=$2 document=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

stripped_kb() { # PROGRAM
    "$cross-strip" -o "$work/stripped" "$programs/$1"
    awk -v size="$(wc -c <"$work/stripped")" 'BEGIN { printf "%.1f", size / 1000 }'
}
libraries=$("$cross-readelf" -d "$programs/kestrelflash" "$programs/kestrelwatch" |
    sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u | paste -sd' ')
others=$(tr ' ' '\n' <<<"$libraries" | grep -vxE 'libc\.so\.6|libm\.so\.6|libpthread\.so\.0|ld\.so\.1' || true)
[ -z "$others" ] || die "what ships needs more than the C library: $others"
row() { # WHAT FIGURE UNIT GOAL
    local met="met"
    [ -z "$4" ] || awk -v a="$2" -v b="$4" 'BEGIN { exit !(a < b) }' || met="NOT met"
    printf '| %s | %s %s | %s |\n' "$1" "$2" "$3" "${4:+under $4 $3: $met}"
}
{
    echo "# Footprint of what ships on the board's processor"
    echo
    echo "Written by \`./run target\` from the programs that ship (\`BOARD=harbor\`), in the emulated"
    echo "machine, where the time is the emulator's and not the board's. Sizes are without the C library;"
    echo "memory is the largest resident in a whole run, shared pages of the C library included."
    echo
    echo "| what | figure | goal |"
    echo "|---|---|---|"
    row "updater: stripped size" "$(stripped_kb kestrelflash)" kB 200
    row "updater: memory" "$(cat "$traces/memory_kb")" kB 3072
    row "updater: start to the first byte on the line, median of 21" \
        "$(awk '{ printf "%.1f", $1 / 1000 }' "$traces/first_byte_us")" ms ""
    row "kestrelwatch: stripped size" "$(stripped_kb kestrelwatch)" kB 500
    row "kestrelwatch: memory" "$(cat "$traces/watch_memory_kb")" kB 3072
    echo
    echo "Libraries that they ask for: $libraries (all of the C library)."
} >"$document"
cat "$document"
if grep -q 'NOT met' "$document"; then
    die "a goal is not met"
fi
