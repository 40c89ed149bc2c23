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

# Options that Kconfig silently dropped would be found out only by odd failures later.
check_options() {
    local lost
    lost=$(grep -E '^CONFIG_[A-Z0-9_]+=' "$target_dir/kernel.fragment" |
        grep -vxFf "$work/source/.config") || return 0
    echo "options lost: $lost"
    return 1
}

build() {
    local kernel_make=(make -C "$work/source" ARCH=powerpc "CROSS_COMPILE=$cross-")
    mkdir "$work/source" "$work/result"
    tar -C "$work/source" --strip-components=1 -xf "$source_tar"
    "${kernel_make[@]}" "KCONFIG_ALLCONFIG=$target_dir/kernel.fragment" allnoconfig
    check_options
    "${kernel_make[@]}" "-j$(nproc)" vmlinux
    cp "$work/source/.config" "$work/result/config"
    "$cross-strip" -o "$work/result/vmlinux" "$work/source/vmlinux"
}

make_once kernel "the kernel" "$kernel_dir" vmlinux
echo "$kernel_dir/vmlinux"
