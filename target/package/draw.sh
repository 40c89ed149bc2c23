#!/bin/sh
# draw.sh ARGUMENT... : an example of a program that draws an update on the board's screen. It starts
# kestrelwatch with these arguments, reads its events (--json, one object a line) and prints lines
# where a real one would draw. To be started in the folder of the images, in which it leaves what
# the updater says as update.log. KESTRELWATCH names another kestrelwatch than the one beside it.
#
# Exit status: kestrelwatch's; 0 only if the unit itself has said that it runs what the files offer.
set -u

here=$(cd "$(dirname "$0")" && pwd)
watch=${KESTRELWATCH:-$here/kestrelwatch}

# Of the event in $line: a member that is a number, and one that is a text.
number() { printf '%s\n' "$line" | sed -n "s/.*\"$1\":\([0-9]*\).*/\1/p"; }
text() { printf '%s\n' "$line" | sed -n "s/.*\"$1\":\"\(\([^\"\\\\]\|\\\\.\)*\)\".*/\1/p"; }

draw() { # PERCENT WHAT
    printf "[%-20.$(($1 / 5))s] %3d %%  %s\n" ==================== "$1" "$2"
}

follow() {
    drawn="" verdict=none
    while IFS= read -r line; do
        case $line in
            *'"event":"progress"'*)
                now="$(number percent) $(text what)"
                [ "$now" = "$drawn" ] || draw "${now%% *}" "${now#* }"
                drawn=$now
                ;;
            *'"event":"notice"'*) text text ;;
            *'"event":"verdict"'*)
                verdict=$(text headline)
                echo "$verdict"
                echo "The unit: $(text unit)."
                [ "$(number status)" = 0 ] || echo "What to do: $(text next)."
                ;;
            # Not an event: the line below puts it behind the last one.
            end\ *)
                [ "$verdict" != none ] || tail -1 update.log  # it did not come to any event
                return "${line#end }"
                ;;
        esac
    done
}

{
    "$watch" --json fd:3 "$@" >update.log 2>&1
    echo "end $?"
} 3>&1 | follow
