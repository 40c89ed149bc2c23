#!/usr/bin/env bash
# An interactive shell in the emulated machine, with the programs and suites of the last
# run-target.sh (which runs first where there is none). The console is the terminal: Ctrl-C goes to
# the machine; `exit` powers it off, and so does Ctrl-] x, whatever it does.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
source "$target_dir/machine.sh"

machine_dir="$root_dir/build/target-run"
initrd="$machine_dir/initrd.gz"
[ -r "$initrd" ] || "$target_dir/run-target.sh"
machine_kernel=$("$target_dir/build-kernel.sh")
machine_shell "$initrd"
