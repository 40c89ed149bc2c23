#!/usr/bin/env bash
# compare.sh NATIVE TARGET REPORT: compares what the updater printed, its exit status and the bytes
# on each line, in each direction, of every case in two folders of traces, byte for byte. Timing is
# left out: how a stream was cut into pieces, and the events' times. The report has a line for each
# case; prints "N same, N different". Exit status 1 unless all are the same.
set -euo pipefail
native=$1 target=$2 report=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

wire() { # EVENTS: one line for each serial line and direction
    sed -n 's/.*"port":\([0-9]*\),"dir":"\([a-z]*\)","bytes":"\([0-9a-f]*\)".*/\1 \2 \3/p' "$1" |
        awk '{ bytes[$1 " " $2] = bytes[$1 " " $2] $3 }
             END { for (line in bytes) print "port " line " " bytes[line] }' | LC_ALL=C sort
}

same=0 different=0
note() { # CASE VERDICT
    case $2 in
        same*) same=$((same + 1)) ;;
        *) different=$((different + 1)) ;;
    esac
    printf '%-28s %s\n' "$1" "$2" >>"$report"
}

: >"$report"
mapfile -t names < <(cd "$native" && find . -name '*.status' | sed 's|^\./||; s|\.status$||' |
    LC_ALL=C sort)
[ ${#names[@]} -gt 0 ] || { echo "no case in $native" >&2; exit 1; }
for name in "${names[@]}"; do
    verdict=""
    for kind in status console; do
        cmp -s "$native/$name.$kind" "$target/$name.$kind" || verdict+=" $kind"
    done
    bytes=0
    if [ -e "$native/$name.events" ] || [ -e "$target/$name.events" ]; then
        wire "$native/$name.events" >"$work/native"
        wire "$target/$name.events" >"$work/target"
        cmp -s "$work/native" "$work/target" || verdict+=" wire"
        bytes=$(($(awk '{ n += length($4) } END { print n + 0 }' "$work/native") / 2))
    fi
    if [ -z "$verdict" ]; then
        note "$name" "same: $(wc -c <"$native/$name.console") console bytes, $bytes wire bytes"
    else
        note "$name" "DIFFERENT:$verdict"
    fi
done
echo "$same same, $different different"
[ $different -eq 0 ]
