#!/usr/bin/env bash
# footprint.sh UPDATER TRACES DOCUMENT: writes the table of the updater's size, memory and start,
# from the cross-built program and what the emulated machine measured.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
updater=$1 traces=$2 document=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$cross-strip" -o "$work/stripped" "$updater"
size=$(wc -c <"$work/stripped")
memory=$(cat "$traces/memory_kb")
first=$(cat "$traces/first_byte_us")
libraries=$("$cross-readelf" -d "$updater" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd' ')
others=$(tr ' ' '\n' <<<"$libraries" | grep -vxE 'libc\.so\.6|libm\.so\.6|libpthread\.so\.0|ld\.so\.1' || true)
[ -z "$others" ] || die "the updater needs more than the C library: $others"
row() { # WHAT FIGURE UNIT GOAL
    local met="met"
    [ -z "$4" ] || awk -v a="$2" -v b="$4" 'BEGIN { exit !(a < b) }' || met="NOT met"
    printf '| %s | %s %s | %s |\n' "$1" "$2" "$3" "${4:+under $4 $3: $met}"
}
{
    echo "# Footprint of the updater on the board's processor"
    echo
    echo "Written by \`./run target\` from the program that ships (\`BOARD=harbor\`), in the emulated"
    echo "machine, where the time is the emulator's and not the board's."
    echo
    echo "| what | figure | goal |"
    echo "|---|---|---|"
    row "stripped size, without the C library" "$(awk "BEGIN { printf \"%.1f\", $size / 1000 }")" kB 200
    row "largest resident memory in a whole update, shared pages of the C library included" \
        "$memory" kB 3072
    row "start to the first byte on the line, median of 21" \
        "$(awk "BEGIN { printf \"%.1f\", $first / 1000 }")" ms ""
    echo
    echo "Libraries that it asks for: $libraries (all of the C library)."
} >"$document"
cat "$document"
if grep -q 'NOT met' "$document"; then
    die "a goal is not met"
fi
