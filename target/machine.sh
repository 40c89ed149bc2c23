# The emulated machine (sourced, never run): 32-bit big-endian PowerPC with a real kernel.
#
#   machine_run NAME INITRD JOB SECONDS      runs the job file, in a subshell of its own; the log is
#                                            $machine_dir/NAME.log
#   machine_shell INITRD                     an interactive shell on the terminal
#
# PCI devices at fixed places, so that the guest's programs find them:
#   01  serial line, ttyS0: files out of the machine ($machine_dir/NAME.out)
#   02  serial line, ttyS1: the board's CPU line, port 4 (other end: machine_line1)
#   03  4 serial lines, ttyS2 to ttyS5 (other ends: machine_line2 to machine_line5)
#   08  shared memory of one page over a host file, which plays the clock block
#   09  device with plain registers, whose every write qemu traces
#
# With machine_player set to the clockplayer program, the clock is played at machine_clock_percent
# of its real speed; the log is $machine_dir/NAME.clock.log.
# ttyS4 and ttyS5 are wired to each other outside the machine unless machine_line4 is set.
# A machine_lineN is a qemu character device ("null" unless set), such as "serial,path=/dev/pts/4"
# for the other side's pseudo-terminal. With machine_wire set to the wire program, ttyS2 and ttyS3 are
# wired to each other, and so are ttyS4 and ttyS5, by lines that take their time.

machine_run() {
    local name=$1 initrd=$2 job=$3 seconds=$4
    if [ -n "$machine_wire" ]; then
        machine_line2=socket,fd=20 machine_line3=socket,fd=21
        machine_line4=socket,fd=22 machine_line5=socket,fd=23
    fi
    local log="$machine_dir/$name.log" out="$machine_dir/$name.out"
    machine_prepare "$name" "$initrd" "$job"
    local status=0 player="" emulator
    # When this is told to end, so is all that it and its caller's subshell have started.
    trap 'kill $(jobs -p) 2>/dev/null; exit 1' TERM
    if [ -n "$machine_player" ]; then
        "$machine_player" "$machine_dir/$name.clock" "$machine_dir/$name.clock.log" \
            "$machine_clock_percent" &
        player=$!
    fi
    timeout --foreground "$seconds" $machine_wire "${machine_command[@]}" -append "$machine_append quiet" \
        -nographic -serial stdio </dev/null >"$log.raw" 2>"$log.err" &
    emulator=$!
    wait $emulator || status=$?
    [ -z "$player" ] || kill "$player"
    tr -d '\r' <"$log.raw" >"$log"
    rm -f "$log.raw"
    if [ $status -ne 0 ] || ! grep -q '^machine: [0-9]* passed' "$log"; then
        tail -40 "$log"
        cat "$log.err"
        echo "target: machine $name did not come to its end (status $status)" >&2
        return 1
    fi
}

machine_shell() {
    local job
    job=$(mktemp)
    echo shell >"$job"
    machine_prepare shell "$1" "$job"
    rm -f "$job"
    "${machine_command[@]}" -append "$machine_append quiet" -nographic -echr 0x1d \
        -chardev stdio,id=terminal,mux=on,signal=off -serial chardev:terminal
}

# Sets machine_command and machine_append. The job is a second archive behind the initial RAM disk,
# which the kernel unpacks over the first.
machine_prepare() {
    local name=$1 initrd=$2 job=$3
    local dir="$machine_dir/$name.d" clock="$machine_dir/$name.clock"
    mkdir -p "$dir"
    cp "$job" "$dir/job"
    (cd "$dir" && echo job | cpio --create --quiet --format=newc --owner=0:0 | gzip -1) >"$dir/job.gz"
    cat "$initrd" "$dir/job.gz" >"$dir/initrd.gz"
    rm -f "$clock" "$machine_dir/$name.out"
    truncate -s 4096 "$clock"
    local wire="socket,abstract=on,path=harbor-wire-$$-$name"
    machine_append="console=ttyPZ0 panic=-1"
    machine_command=(qemu-system-ppc -M g3beige -cpu 750 -m 512 -nodefaults -no-reboot
        -monitor none -kernel "$machine_kernel" -initrd "$dir/initrd.gz"
        -chardev "file,id=line0,path=$machine_dir/$name.out"
        -chardev "${machine_line1:-null},id=line1" -chardev "${machine_line2:-null},id=line2"
        -chardev "${machine_line3:-null},id=line3"
        -chardev "${machine_line4:-$wire,server=on,wait=off},id=line4"
        -chardev "${machine_line5:-$wire},id=line5"
        -device pci-serial,chardev=line0,addr=01
        -device pci-serial,chardev=line1,addr=02
        -device pci-serial-4x,chardev1=line2,chardev2=line3,chardev3=line4,chardev4=line5,addr=03
        -object "memory-backend-file,id=clock,size=4096,share=on,mem-path=$clock"
        -device ivshmem-plain,memdev=clock,addr=08
        -device pci-testdev,addr=09
        "${machine_extra[@]}")
}
machine_extra=()
machine_player=""
machine_wire=""
machine_clock_percent=100
