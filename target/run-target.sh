#!/usr/bin/env bash
# run-target.sh [--fast] [--only FILTER]: builds everything for the board's processor and runs the
# tests there. The fast lane runs the single-threaded suites in user-mode emulation; the full lane
# runs every suite in the emulated machine, and what ships against the board's own device nodes.
# --fast stops after the fast lane. --only runs the suites' tests that the GoogleTest filter names,
# in one machine. Ends with the counts of all lanes; logs stay in build/target-run.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
source "$target_dir/machine.sh"

fast_only=no filter=""
while [ $# -gt 0 ]; do
    case $1 in
        --fast) fast_only=yes ;;
        --only) filter=${2:?--only needs a filter}; shift ;;
        *) die "usage: run-target.sh [--fast] [--only FILTER]" ;;
    esac
    shift
done

cd "$root_dir"
run_dir="$root_dir/build/target-run"
machine_dir="$run_dir"
mkdir -p "$run_dir"
initrd="$run_dir/initrd.gz"
host_board_bin="$root_dir/build/target/bin"
harbor_bin="$root_dir/build/target-harbor/bin"
native_bin="$root_dir/build/host/bin"
traces="$run_dir/traces"
suites_seconds=1500
board_seconds=900
passed=0 failed=0 skipped=0

# The functions that `stage` runs return their status by hand: errexit is off in them.
count() { # LANE PASSED FAILED SKIPPED
    passed=$((passed + $2)) failed=$((failed + $3)) skipped=$((skipped + $4))
    echo "$1: $2 passed, $3 failed, $4 skipped"
}

# From the start: flags that the toolchain file once gave would stay in the folder.
configure_and_build() { # PRESET [TARGET...]
    local preset=$1
    shift
    cmake --fresh --preset "$preset" >"$run_dir/$preset.log" 2>&1 &&
        cmake --build --preset "$preset" ${1:+--target "$@"} >>"$run_dir/$preset.log" 2>&1 ||
        { tail -40 "$run_dir/$preset.log"; return 1; }
}

fast_lane() {
    local report="$run_dir/fast.xml"
    rm -f "$report"
    ctest --preset target -j "$(nproc)" --output-junit "$report" >"$run_dir/fast.log" ||
        cat "$run_dir/fast.log"
    [ -s "$report" ] || return 1
    grep -E '\*\*\*(Skipped|Not Run)' "$run_dir/fast.log" || true
    local tests failures disabled skips
    tests=$(sed -n 's/.*\<tests="\([0-9]*\)".*/\1/p' "$report" | head -1)
    failures=$(sed -n 's/.*\<failures="\([0-9]*\)".*/\1/p' "$report" | head -1)
    disabled=$(sed -n 's/.*\<disabled="\([0-9]*\)".*/\1/p' "$report" | head -1)
    skips=$(sed -n 's/.*\<skipped="\([0-9]*\)".*/\1/p' "$report" | head -1)
    count "fast lane" $((tests - failures - disabled - skips)) "$failures" $((disabled + skips))
}

# Tools of the host-board build run in the machine too: the simulated unit stands behind its lines.
pack_initrd() {
    local programs data
    mapfile -t programs < <(find "$root_dir/build/target/tests" -maxdepth 1 -type f -executable)
    mapfile -t data < <(find "$root_dir/tests" "$root_dir/examples" -type f \
        ! -name '*.cpp' ! -name '*.h' ! -name CMakeLists.txt)
    sh "$target_dir/board/makeimages.sh" "$run_dir/images" &&
        "$target_dir/mkinitrd.sh" "$initrd" "$harbor_bin/machine-init" "$busybox" \
            "$host_board_bin" "$harbor_bin" "${programs[@]}" "${data[@]}" \
            "$target_dir/board=/board" \
            "$target_dir/package/draw.sh=/board/draw.sh" "$run_dir/images=/board/images" \
            "$root_dir/docs/LAUNCHER.md"
}

# The programs that CMake registered as suites.
suite_programs() {
    local folder="$root_dir/build/target/tests"
    find "$folder" -mindepth 2 -name CTestTestfile.cmake -exec \
        sed -n 's|^include(".*/\([^/]*\)\[1\]_include\.cmake")|\1|p' {} + |
        sort | sed "s|^|$folder/|"
}

# The tests that CMake registered as commands (examples and the like), as orders of a job.
command_tests() {
    find "$root_dir/build/target" -name CTestTestfile.cmake -exec \
        sed -n 's|^add_test(\[=*\[\(.*\)\]=*\] \(.*\))$|run \1 300 \2|p' {} + |
        sed 's|"qemu-ppc" .* "/usr/powerpc-linux-gnu" ||' | sort
}

# What a machine's log says, into the counts; failures and skips are shown.
count_machine() { # LANE NAME...
    local lane=$1 p=0 f=0 s=0 name line
    shift
    for name in "$@"; do
        sed -n '/^FAIL /p; /^  | /p; /^SKIP /p' "$machine_dir/$name.log"
        line=$(grep -a '^machine: ' "$machine_dir/$name.log" | tail -1)
        [[ $line =~ ^machine:\ ([0-9]+)\ passed,\ ([0-9]+)\ failed,\ ([0-9]+)\ skipped$ ]] ||
            { echo "$name: no counts in \"$line\""; return 1; }
        p=$((p + BASH_REMATCH[1])) f=$((f + BASH_REMATCH[2])) s=$((s + BASH_REMATCH[3]))
    done
    [ $((p + f + s)) -gt 0 ] || { echo "$lane: no test ran"; return 1; }
    count "$lane" $p $f $s
}

# Unpacks the files that machines sent out.
receive() { # FOLDER MACHINE...
    local folder="$traces/target/$1" name
    shift
    rm -rf "$folder" && mkdir -p "$folder" || return 1
    for name in "$@"; do
        gzip -dc "$machine_dir/$name.out" |
            (cd "$folder" && cpio --extract --quiet --make-directories) || return 1
    done
}

exceptions() {
    sed -n '/^[^#]/s/^/except /p' "$target_dir/exceptions.txt"
}

# The suites, dealt out to as many machines as there are processors for.
full_lane() {
    local shards shard suite status=0 pids=() names=()
    shards=$(nproc)
    [ -z "$filter" ] || shards=1
    for ((shard = 0; shard < shards; ++shard)); do
        {
            echo "shard $shard $shards"
            exceptions
            for suite in "${suites[@]}"; do
                case $suite in
                    */machine_test) ;;
                    *) echo "suite $suite $filter" ;;
                esac
            done
            [ -n "$filter" ] || command_tests
            echo "show sh /board/send.sh /out"
        } >"$run_dir/suites$shard.job"
        names+=("suites$shard")
        machine_run "suites$shard" "$initrd" "$run_dir/suites$shard.job" "$suites_seconds" &
        pids+=($!)
    done
    for shard in "${pids[@]}"; do
        wait "$shard" || status=1
    done
    [ $status -eq 0 ] || return 1
    count_machine "full lane" "${names[@]}"
}

# What the board's cases and measurements find in their environment, as orders of a job.
board_environment() {
    cat <<END
env OUT=/out
env IMAGES=/board/images
env UPDATER=$harbor_bin/kestrelflash
env SIMULATOR=$host_board_bin/kestrelsim
env FPGASERIAL=$harbor_bin/fpgaserial
env WATCH=$harbor_bin/kestrelwatch
env DRAW=/board/draw.sh
env FIRSTBYTE=$harbor_bin/firstbyte
END
}

# The machine itself, and what ships, on the board's device nodes. The unit at the other end of the
# CPU line runs outside the machine.
run_board_machine() {
    {
        board_environment
        echo "suite $root_dir/build/target/tests/machine_test"
        echo "suite $harbor_bin/board_test -BoardClock.*"
        for name in $(sh "$target_dir/board/cases.sh" list); do
            echo "run Updater.$name 120 sh /board/cases.sh $name"
        done
        echo "run Footprint.Memory 120 sh /board/memory.sh /out"
        echo "run Footprint.FirstByte 120 sh /board/firstbyte.sh /out"
        echo "show sh /board/send.sh /out"
    } >"$run_dir/board.job"
    local unit_dir="$run_dir/unit" status=0
    rm -rf "$unit_dir" && mkdir -p "$unit_dir" || return 1
    "$native_bin/kestrelsim" --dir "$unit_dir/dev" >"$unit_dir/log" 2>&1 &
    local unit=$!
    until grep -q ready "$unit_dir/log"; do
        kill -0 $unit || return 1
        sleep 0.1
    done
    machine_line1="serial,path=$(readlink "$unit_dir/dev/fpgaserial1")"
    machine_player="$native_bin/clockplayer"
    machine_run board "$initrd" "$run_dir/board.job" $board_seconds || status=1
    kill $unit
    return $status
}

# The launcher's table of faults, played by what ships on the board's own nodes, against the same
# page as on the workstation. The machine counts instructions for its time and leaves out its pauses,
# so an answer's time is what it is however busy this machine is.
run_table_machine() {
    {
        board_environment
        echo "env KESTRELWATCH_PROGRAM=/board/watch.sh"
        echo "env KESTRELWATCH_PLAYERS=1"
        echo "run BoardFaults.TableOfTheLauncher 100000 $root_dir/build/target/tests/kestrelwatch_faults_test"
    } >"$run_dir/table.job"
    machine_extra=(-icount "shift=0,sleep=off")
    machine_run table "$initrd" "$run_dir/table.job" $board_seconds
}

# A workstation's run over lines that a driver buffers and that take their time.
run_adapters_machine() {
    {
        board_environment
        echo "env WATCH=$host_board_bin/kestrelwatch"
        echo "run RealAdapters.AtTheSpeedOfTheLine 600 sh /board/adapters.sh"
    } >"$run_dir/adapters.job"
    machine_wire="$native_bin/wire"
    machine_run adapters "$initrd" "$run_dir/adapters.job" $board_seconds
}

# The clock block: every write to it is traced by the emulator, and its counter runs at twice the
# real speed.
run_clock_machine() {
    echo "suite $harbor_bin/board_test BoardClock.*" >"$run_dir/clock.job"
    machine_extra=(-trace enable=memory_region_ops_write -D "$run_dir/clock.trace")
    machine_player="$native_bin/clockplayer"
    machine_clock_percent=200
    machine_run clock "$initrd" "$run_dir/clock.job" $board_seconds
}

# Prescale 266666, load 0, control 0x80, in this order, as the bytes that the processor wrote.
check_clock_writes() {
    local stated="308=0 309=4 30a=11 30b=aa 304=0 305=0 306=0 307=0 300=0 301=0 302=0 303=80" seen
    seen=$(sed -n "s/.*addr 0xe0000\([0-9a-f]*\) value 0x\([0-9a-f]*\) size 1 name 'pci-testdev-mmio'.*/\1=\2/p" \
        "$run_dir/clock.trace" | paste -sd' ')
    if [ "$seen" = "$stated" ]; then
        count "clock block, order of writes" 1 0 0
    else
        echo "clock block: written $seen instead of $stated"
        count "clock block, order of writes" 0 1 0
    fi
}

native_case() { # NAME
    OUT="$traces/native/board" IMAGES="$run_dir/images" UPDATER="$native_bin/kestrelflash" \
        WATCH="$native_bin/kestrelwatch" DRAW="$target_dir/package/draw.sh" SIMULATOR="$native_bin/kestrelsim" \
        sh "$target_dir/board/cases.sh" "$1" >"$run_dir/native-$1.log" 2>&1 8>&-
}

# The board's cases natively, on pseudo-terminals, all at once, for they are pauses mostly.
native_cases() {
    local name
    local -A pids
    : >"$run_dir/native-failed"
    rm -rf "$traces/native" && mkdir -p "$traces/native"/board || return 1
    for name in $(sh "$target_dir/board/cases.sh" list); do
        native_case "$name" &
        pids[$name]=$!
    done
    for name in "${!pids[@]}"; do
        wait "${pids[$name]}" || {
            cat "$run_dir/native-$name.log"
            echo "native case $name" >>"$run_dir/native-failed"
        }
    done
}

board_lane() {
    local machine machines=() status=0
    native_cases || return 1
    for machine in board clock table adapters; do
        ("run_${machine}_machine") &
        machines+=($!)
    done
    for machine in "${machines[@]}"; do
        wait "$machine" || status=1
    done
    [ $status -eq 0 ] || return 1
    count_machine "board lane" board clock table adapters || return 1
    [ ! -s "$run_dir/native-failed" ] ||
        count "native runs of the same cases" 0 "$(wc -l <"$run_dir/native-failed")" 0
    check_clock_writes
    receive board board || return 1
    find "$traces" -name '*.again' -exec cat {} +
}

# What native runs and those in the machine printed and sent, compared.
equality() {
    local verdict same different
    : >"$run_dir/equality.txt"
    verdict=$("$target_dir/compare.sh" "$traces/native/board" "$traces/target/board" \
        "$run_dir/equality.txt") || [ -n "$verdict" ] || return 1
    read -r same _ different _ <<<"$verdict"
    grep DIFFERENT "$run_dir/equality.txt" || true
    count "equality of native and big-endian runs" $same $different 0
}

footprint() {
    "$target_dir/footprint.sh" "$harbor_bin" "$traces/target/board" \
        "$root_dir/docs/FOOTPRINT.md"
}

line_editing() {
    "$target_dir/build-readline.sh" >"$run_dir/readline.log"
}

prepare_machine() {
    machine_kernel=$("$target_dir/build-kernel.sh") &&
        busybox=$("$target_dir/build-busybox.sh")
}

# Two runs in one folder would write over each other; what an ended run started ends with it.
hold_folder() {
    exec 8>"$run_dir/lock"
    flock -n 8 || die "another run works in this folder"
    trap 'kill $(jobs -p) 2>/dev/null || true' EXIT
    trap 'exit 130' INT TERM HUP
}

main() {
    case $root_dir in
        *[[:space:]]*) die "the machine's jobs cannot name programs below \"$root_dir\": it has a space" ;;
    esac
    hold_folder
    stage "packages" need_packages "${target_packages[@]}"
    stage "line editing of the shell (cached)" line_editing
    stage "build for the board's processor, host board" configure_and_build target
    stage "fast lane: single-threaded suites in user-mode emulation" fast_lane
    if [ "$fast_only" = no ]; then
        stage "kernel and shell (cached)" prepare_machine
        stage "build for the board's processor, harbor board" configure_and_build target-harbor
        stage "native build of what runs beside the machine" configure_and_build host \
            kestrelflash kestrelsim kestrelwatch clockplayer wire
        mapfile -t suites < <(suite_programs)
        stage "RAM disk" pack_initrd
        stage "full lane: every suite in the emulated machine" full_lane
        if [ -z "$filter" ]; then
            stage "board lane: what ships, on the board's device nodes" board_lane
            stage "equality: the same cases natively, compared" equality
            stage "footprint" footprint
        fi
    fi
    echo "== times"
    print_stage_times
    echo "$passed passed, $failed failed, $skipped skipped"
    [ "$failed" -eq 0 ]
}

main
