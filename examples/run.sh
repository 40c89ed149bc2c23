#!/bin/sh
# run.sh PROGRAM TEXT: runs an example; fails unless it ends well and prints just what the file holds.
set -eu
out=$(mktemp)
trap 'rm -f "$out"' EXIT
"$1" >"$out"
diff "$2" "$out"
