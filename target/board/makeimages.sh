#!/bin/sh
# makeimages.sh FOLDER: the firmware images of the board's cases, the same each time: every byte
# value, a microcontroller image whose last blocks are short, camera images of two blocks and one.
set -eu
mkdir -p "$1"
cd "$1"
i=0
: >all
while [ $i -lt 256 ]; do
    # shellcheck disable=SC2059
    printf "\\$(printf %o $i)" >>all
    i=$((i + 1))
done
repeat() { # COUNT: standard input, so many times
    cat >piece
    n=0
    while [ $n -lt "$1" ]; do cat piece; n=$((n + 1)); done
    rm piece
}
{ printf '\045'; tr '\000-\376\377' '\001-\377\000' <all; } | repeat 20 >kestrelmicro.bin
tail -c +7 all | repeat 300 >overlookcam.bin
tr '\000-\377' '\377\000-\376' <all | repeat 3 | tail -c 700 >overlooksys.bin
printf '1001' >overlookcamver
printf '2001' >overlooksysver
rm all
