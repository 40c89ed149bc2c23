#!/bin/sh
# update.sh FOLDER [micro|overlook|all]: a sample launcher for the board. Asks whether the images in
# FOLDER are needed, updates where they are, and shows how far it has come. To be adapted: a real
# one would draw on a screen where this one prints.
#
# Exit status: 0 nothing was needed or the update went well, 1 it failed, 2 wrong arguments.
set -u

folder=${1:-} target=${2:-all}
here=$(cd "$(dirname "$0")" && pwd)
updater=${KESTRELFLASH:-$here/kestrelflash}
[ -d "$folder" ] || { echo "usage: update.sh FOLDER [micro|overlook|all]" >&2; exit 2; }
cd "$folder" || exit 2

"$updater" "$target" q >update.log 2>&1
case $? in
    0) echo "up to date"; exit 0 ;;
    1) echo "update needed" ;;
    *) echo "the unit does not answer; see $folder/update.log"; exit 1 ;;
esac

# The updater opens the pipe anew for each number and waits there until somebody reads: the reader
# must run before it and must not end before it.
pipe=$(mktemp -d)/progress
mkfifo "$pipe" || exit 1
(
    last=0
    while :; do
        now=$(cat "$pipe")
        # Numbers that came close together may have been read as one; the next one tells.
        if [ "$now" -gt $last ] 2>/dev/null && [ "$now" -le 100 ]; then
            last=$now
            echo "$now %"
        fi
    done
) &
reader=$!
"$updater" "$target" -p "$pipe" 0 100 >update.log 2>&1
status=$?
kill $reader 2>/dev/null
wait $reader 2>/dev/null
# The reader's cat waits for one more writer, who comes and goes here.
exec 3<>"$pipe"
rm -rf "$(dirname "$pipe")"
exec 3>&-
if [ $status -ne 0 ]; then
    echo "the update failed; see $folder/update.log"
    exit 1
fi
echo "updated"
