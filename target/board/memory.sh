#!/bin/sh
# memory.sh FOLDER: the updater's largest resident memory during the whole update, in kB, as the
# kernel counts it (the C library's shared pages included). Environment as for cases.sh.
set -u
sh /board/cases.sh update &
case_pid=$!
peak=0
while kill -0 $case_pid 2>/dev/null; do
    for pid in $(pidof kestrelflash); do
        now=$(sed -n 's/^VmHWM:[^0-9]*\([0-9]*\) kB/\1/p' "/proc/$pid/status" 2>/dev/null)
        [ "${now:-0}" -le $peak ] || peak=$now
    done
    sleep 0.1
done
wait $case_pid || exit 1
[ $peak -gt 0 ] || { echo "the updater was not seen"; exit 1; }
echo $peak >"$1/memory_kb"
