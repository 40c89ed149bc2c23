#!/bin/sh
# cases.sh list | CASE : one run of the updater against the simulated unit, in the emulated machine
# on the board's own device nodes, or natively on pseudo-terminals, for the comparison of the two.
#   OUT       folder for the run's traces: CASE.console, CASE.status, CASE.events, CASE.driver,
#             CASE.progress; CASE.again, what a first run said that failed
#   IMAGES    folder with the images
#   UPDATER, WATCH, SIMULATOR, FPGASERIAL   the programs; without FPGASERIAL the lines are the
#             simulator's pseudo-terminals, looked up through HARBOR_DEV_DIR
#   DRAW      the package's example of a program that starts kestrelwatch
# Exit status 0: the run was as stated here; the difference is printed otherwise. The link gives an
# answer 50 ms, which another load of the machine can use up: a run that fails is made once more.
set -u

# Name, the exit status, the lines that are opened in this order (1 the microcontroller's, 0 the
# camera's; 1= and 0= where the line is only looked at), the updater's arguments, the simulator's.
# Behind "watch" the arguments are kestrelwatch's, which the package's example starts.
cases() {
    cat <<'END'
usage|255||q|
query|1|1 0|all q|
query-current|0|1 0|all q|--micro-version 37 --camera-version 1001 --system-version 2001
update|0|1 0|all -p progress 0 100|
update-micro|0|1|micro|
update-camera|0|0|overlook|--camera-version 1001
reboot|0|1|micro rebootoverlook|
micro-silent|255|1|all|--fault "drop unit=micro"
micro-half-way|0|1|micro|--fault "silent unit=micro block=5"
micro-third-nack|0|1|micro|--fault "nack unit=micro block=3"
micro-noise|1|1|micro q|--fault "noise unit=micro answer=version count=3"
camera-silent|255|0|overlook|--fault "drop unit=camera"
camera-nack|255|0|overlook|--fault "nack unit=camera block=1"
no-driver|255||micro|
no-image|0|1|micro|
no-version-file|255|0|overlook|
watch|0|1= 0= 1 0 1 0 1 0|watch --pipe progress all|
watch-current|0|1= 0= 1 0|watch all|--micro-version 37 --camera-version 1001 --system-version 2001
watch-no-answer|255|1= 0= 1 0|watch all|--fault "drop unit=camera"
watch-half-way|120|1= 1 1 1|watch --pipe progress micro|--fault "drop image=micro block=5"
watch-no-image|118||watch all|
watch-no-driver|118||watch all|
watch-bad-word|121||watch al|
pipe-without-folder|0|1|micro -p nowhere/progress 10 90|
END
}

prepare() { # CASE: in a copy of the images' folder
    case $1 in
        no-image | watch-no-image) rm kestrelmicro.bin ;;
        no-version-file) rm overlooksysver ;;
        update) mkfifo progress ;;
    esac
}

wait_for() { # FILE TEXT
    tries=0
    until grep -q "$2" "$1" 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -lt 600 ] || { echo "no \"$2\" in $1:"; cat "$1"; exit 1; }
        sleep 0.05
    done
}

# The lines, and the unit behind them.
start_unit() {
    eval "set -- $unit_arguments"
    if [ -n "${FPGASERIAL:-}" ]; then
        [ "${name#watch-}" != no-driver ] || return 0
        "$FPGASERIAL" --log "$OUT/$name.driver" --line "0=pty:$work/line0" \
            --line "1=pty:$work/line1" >"$work/driver.out" 2>&1 &
        children="$children $!"
        wait_for "$work/driver.out" ready
        set -- --attach "0=$work/line0" --attach "1=$work/line1" "$@"
    else
        HARBOR_DEV_DIR="$work/dev"
        export HARBOR_DEV_DIR
        [ "${name#watch-}" != no-driver ] || return 0
    fi
    "$SIMULATOR" --dir "$work/dev" --state "$work/state" --images "$work/images" \
        --log "$OUT/$name.events" "$@" >"$work/unit.out" 2>&1 &
    unit=$!
    children="$children $unit"
    wait_for "$work/unit.out" ready
}

# What the driver must have seen of a line that the updater used: 115200 bit/s, even parity.
stated_driver_log() {
    for port in $lines; do
        case $port in
            *=) printf 'fpgaserial%s open\nfpgaserial%s close\n' "${port%=}" "${port%=}" ;;
            *) stated_line "$port" ;;
        esac
    done
}
stated_line() {
    cat <<END
fpgaserial$1 open
fpgaserial$1 config valid_mask=3 baudrate=115200 parity=2 stopbits=0 hwflowctrl=0 databits_size=0
fpgaserial$1 receiver on
fpgaserial$1 receiver off
fpgaserial$1 close
END
}

failed=0
check() { # WHAT COMMAND...
    what=$1
    shift
    "$@" || { echo "$name: $what"; failed=1; }
}

same_image() { cmp "$work/state/$1" "$IMAGES/$1"; }

# The microcontroller image is sent as 12 blocks of 512 bytes, whatever it holds.
same_micro_image() {
    head -c 6144 "$IMAGES/kestrelmicro.bin" >"$work/sent"
    head -c "$(wc -c <"$work/sent")" "$work/state/kestrelmicro.bin" | cmp - "$work/sent"
}

check_results() {
    check "exit status $status instead of $stated_status" [ "$status" -eq "$stated_status" ]
    if [ -n "${FPGASERIAL:-}" ] && [ "${name#watch-}" != no-driver ]; then
        stated_driver_log >"$work/stated"
        check "the driver saw something else" diff "$work/stated" "$OUT/$name.driver"
    fi
    case $name in
        update)
            check "microcontroller image" same_micro_image
            check "camera image" same_image overlookcam.bin
            check "system image" same_image overlooksys.bin
            check "progress" grep -q '100$' "$OUT/$name.progress"
            ;;
        watch)
            check "microcontroller image" same_micro_image
            check "system image" same_image overlooksys.bin
            check "what is drawn" grep -q '^\[====================\] 100 %' "$work/drawn"
            ;;
        update-micro) check "microcontroller image" same_micro_image ;;
        update-camera) check "system image" same_image overlooksys.bin ;;
    esac
}

clean_up() {
    for child in $children; do kill "$child" 2>/dev/null; done
    rm -rf "$work"
}

run_case() {
    work=$(mktemp -d) || exit 1
    unit=""
    children=""
    trap clean_up EXIT
    mkdir -p "$work/dev" "$work/state"
    cp -r "$IMAGES" "$work/images"
    rm -f "$OUT/$name".*
    cd "$work/images" || exit 1
    prepare "$name"
    start_unit
    if [ -p progress ]; then
        # Open from both sides throughout, so that no number falls between two readers.
        exec 3<>progress
        cat <&3 >>"$OUT/$name.progress" &
        children="$children $!"
    fi
    status=0
    # shellcheck disable=SC2086
    case $arguments in
        watch*)
            KESTRELWATCH=$WATCH sh "$DRAW" ${arguments#watch} >"$work/drawn" 2>&1 || status=$?
            # How long it took differs, and with it what was drawn on the way.
            sed '/ %  /d; s/ in [0-9]*:[0-9]*:/:/' "$work/drawn" >"$work/console"
            grep -v '^kestrelwatch: ' update.log >>"$work/console"
            ;;
        *) "$UPDATER" $arguments >"$work/console" 2>&1 || status=$? ;;
    esac
    # The program's own path is part of what it prints, and the lines' where they are missed.
    sed "s|$UPDATER|kestrelflash|g; s|$work/dev/|/dev/|g" "$work/console" >"$OUT/$name.console"
    echo $status >"$OUT/$name.status"
    [ -z "$unit" ] || { kill "$unit"; wait "$unit" 2>/dev/null; }
    check_results
    if [ $failed -ne 0 ]; then
        tail -20 "$OUT/$name.console"
        tail -5 "$work/unit.out" 2>/dev/null
    fi
    return $failed
}

if [ "${1:-}" = list ]; then
    cases | cut -d'|' -f1
    exit 0
fi
name=${1:?a case}
line=$(cases | grep "^$name|") || { echo "no case $name"; exit 2; }
stated_status=$(echo "$line" | cut -d'|' -f2)
lines=$(echo "$line" | cut -d'|' -f3)
arguments=$(echo "$line" | cut -d'|' -f4)
unit_arguments=$(echo "$line" | cut -d'|' -f5)
mkdir -p "$OUT"
said=$(mktemp)
(run_case) >"$said" 2>&1 || {
    echo "$name: the first run failed:" | cat - "$said" >"$said.first"
    (run_case) >"$said" 2>&1
    failed=$?
    mv "$said.first" "$OUT/$name.again"
}
cat "$said"
rm -f "$said"
exit $failed
