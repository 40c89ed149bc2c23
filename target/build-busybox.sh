#!/usr/bin/env bash
# Builds the emulated machine's shell and commands from Debian's busybox source package (Debian
# has no PowerPC packages to install) and prints the path of the finished program. Cached like the
# kernel.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

key=$({
    cat "$target_dir/busybox.fragment"
    dpkg-query -W -f '${Package} ${Version}\n' gcc-12-powerpc-linux-gnu libc6-dev-powerpc-cross
} | sha256sum | cut -c1-16)
busybox_dir="$cache_dir/busybox-$key"

build() {
    local option busybox_make=(make -C "$work/source" ARCH=powerpc "CROSS_COMPILE=$cross-")
    fetch_source "$work" busybox
    mkdir "$work/source" "$work/result"
    tar -C "$work/source" --strip-components=1 -xf "$work"/busybox_*.orig.tar.*
    "${busybox_make[@]}" allnoconfig
    # The last setting of an option wins; what it makes visible keeps its default.
    while read -r option; do
        sed -i "/^# ${option%%=*} is not set/d; /^${option%%=*}=/d" "$work/source/.config"
        echo "$option" >>"$work/source/.config"
    done < <(grep -E '^CONFIG_' "$target_dir/busybox.fragment")
    yes '' | "${busybox_make[@]}" oldconfig || [ "${PIPESTATUS[1]}" -eq 0 ]
    "${busybox_make[@]}" "-j$(nproc)" busybox
    cp "$work/source/busybox" "$work/result/"
}

make_once busybox "the shell" "$busybox_dir" busybox
echo "$busybox_dir/busybox"
