#!/usr/bin/env bash
# Builds the kernel of the emulated machine from Debian's source package and kernel.fragment, and
# prints the path of the finished image. The image is kept outside the repository, keyed by all
# that goes into it; the unpacked source (1.5 GB) is removed again.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

source_tar=/usr/src/linux-source-6.1.tar.xz
[ -r "$source_tar" ] || die "$source_tar is missing (package linux-source-6.1)"

key=$({
    cat "$target_dir/kernel.fragment"
    dpkg-query -W -f '${Package} ${Version}\n' linux-source-6.1 gcc-12-powerpc-linux-gnu
} | sha256sum | cut -c1-16)
kernel_dir="$cache_dir/kernel-$key"
mkdir -p "$cache_dir"
exec 9>"$cache_dir/kernel.lock"
flock 9

# Options that Kconfig silently dropped would be found out only by odd failures later.
check_options() {
    local lost
    lost=$(grep -E '^CONFIG_[A-Z0-9_]+=' "$target_dir/kernel.fragment" | grep -vxFf "$work/.config")
    [ -z "$lost" ] || { echo "options lost: $lost"; return 1; }
}

# The steps return their status by hand: errexit is off in them.
build() {
    local kernel_make=(make -C "$work" ARCH=powerpc "CROSS_COMPILE=$cross-")
    tar -C "$work" --strip-components=1 -xf "$source_tar" &&
        "${kernel_make[@]}" "KCONFIG_ALLCONFIG=$target_dir/kernel.fragment" allnoconfig &&
        check_options && "${kernel_make[@]}" "-j$(nproc)" vmlinux && "$cross-strip" "$work/vmlinux"
}

if [ ! -r "$kernel_dir/vmlinux" ]; then
    rm -rf "$cache_dir"/kernel-build.??????
    work=$(mktemp -d "$cache_dir/kernel-build.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    log="$cache_dir/kernel-build.log"
    echo "target: building the kernel (log: $log)" >&2
    build >"$log" 2>&1 9>&- || { tail -20 "$log" >&2; die "the kernel did not build"; }
    mkdir -p "$kernel_dir"
    cp "$work/.config" "$kernel_dir/config"
    cp "$work/vmlinux" "$kernel_dir/vmlinux.new"
    mv "$kernel_dir/vmlinux.new" "$kernel_dir/vmlinux"
fi
echo "$kernel_dir/vmlinux"
