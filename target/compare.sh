#!/usr/bin/env bash
# compare.sh NATIVE TARGET REPORT: compares what was recorded of every case in two folders, byte for
# byte: the console text (CASE.console), the exit status (CASE.status, or the end of CASE.wire), the
# bytes on each line in their order (CASE.wire, or CASE.events of the simulated unit, whose times and
# whose cutting of a stream into pieces are left out), and the progress numbers (CASE.progress, which
# a reader may see in one piece). Adds a line for each case to the
# report; prints "N same, N different". Exit status 1 unless all are the same.
set -euo pipefail
native=$1 target=$2 report=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

wire() { # EVENTS: for each serial line what went in one direction until the other's turn
    local all read
    all=$(grep -c '"bytes":"[0-9a-f]' "$1" || true)
    read=$(grep -c '"port":[0-9]*,"dir":"[a-z]*","bytes":"[0-9a-f]' "$1" || true)
    [ "$all" -eq "$read" ] || { echo "unread bytes in $1: $read of $all" >&2; exit 1; }
    sed -n 's/.*"port":\([0-9]*\),"dir":"\([a-z]*\)","bytes":"\([0-9a-f]*\)".*/\1 \2 \3/p' "$1" |
        awk '{ said[$1] = said[$1] (turn[$1] == $2 ? "" : "\nport " $1 " " $2 " ") $3
               turn[$1] = $2 }
             END { for (port in said) print said[port] }' | LC_ALL=C sort --stable --key=1,2 | sed "/^$/d"
}

same=0 different=0
note() { # CASE VERDICT
    case $2 in
        same*) same=$((same + 1)) ;;
        *) different=$((different + 1)) ;;
    esac
    printf '%-64s %s\n' "$1" "$2" >>"$report"
}

mapfile -t names < <(find "$native" "$target" -name '*.console' -printf '%f\n' |
    sed 's|\.console$||' | LC_ALL=C sort -u)
[ ${#names[@]} -gt 0 ] || { echo "no case in $native" >&2; exit 1; }
for name in "${names[@]}"; do
    verdict=""
    for side in "$native" "$target"; do
        [ -e "$side/$name.status" ] || [ -e "$side/$name.wire" ] || verdict+=" end-not-recorded"
    done
    for kind in console status wire; do
        [ ! -e "$native/$name.$kind" ] && [ ! -e "$target/$name.$kind" ] ||
            cmp -s "$native/$name.$kind" "$target/$name.$kind" || verdict+=" $kind"
    done
    if [ -e "$native/$name.progress" ] || [ -e "$target/$name.progress" ]; then
        [ "$(tr -d '\n' <"$native/$name.progress")" = "$(tr -d '\n' <"$target/$name.progress")" ] ||
            verdict+=" progress"
    fi
    if [ -e "$native/$name.events" ] || [ -e "$target/$name.events" ]; then
        [ -e "$native/$name.events" ] && [ -e "$target/$name.events" ] || verdict+=" wire-not-recorded"
        touch "$native/$name.events" "$target/$name.events"
        wire "$native/$name.events" >"$work/native"
        wire "$target/$name.events" >"$work/target"
        cmp -s "$work/native" "$work/target" || verdict+=" wire"
    fi
    if [ -z "$verdict" ]; then
        note "$name" "same"
    else
        note "$name" "DIFFERENT:$verdict"
    fi
done
echo "$same same, $different different"
[ $different -eq 0 ]
