#!/bin/sh
# memory.sh FOLDER: the largest resident memory of the updater and of kestrelwatch during a whole run,
# in kB, as the kernel counts it (the C library's shared pages included). Environment as for cases.sh.
set -u
sh /board/cases.sh watch &
case_pid=$!
kestrelflash=0 kestrelwatch=0
while kill -0 $case_pid 2>/dev/null; do
    for name in kestrelflash kestrelwatch; do
        for pid in $(pidof $name); do
            now=$(sed -n 's/^VmHWM:[^0-9]*\([0-9]*\) kB/\1/p' "/proc/$pid/status" 2>/dev/null)
            [ "${now:-0}" -le $(($name)) ] || eval $name="$now"
        done
    done
    sleep 0.1
done
wait $case_pid || exit 1
[ $kestrelflash -gt 0 ] && [ $kestrelwatch -gt 0 ] || { echo "a program was not seen"; exit 1; }
echo $kestrelflash >"$1/memory_kb"
echo $kestrelwatch >"$1/watch_memory_kb"
