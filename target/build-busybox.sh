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
mkdir -p "$cache_dir"
exec 9>"$cache_dir/busybox.lock"
flock 9

if [ ! -x "$busybox_dir/busybox" ]; then
    work=$(mktemp -d "$cache_dir/busybox-build.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    log="$cache_dir/busybox-build.log"
    echo "target: building the shell (log: $log)" >&2
    {
        fetch_source "$work" busybox
        mkdir "$work/source"
        tar -C "$work/source" --strip-components=1 -xf "$work"/busybox_*.orig.tar.*
        busybox_make=(make -C "$work/source" ARCH=powerpc "CROSS_COMPILE=$cross-")
        "${busybox_make[@]}" allnoconfig
        # The last setting of an option wins; what it makes visible keeps its default.
        while read -r option; do
            sed -i "/^# ${option%%=*} is not set/d; /^${option%%=*}=/d" "$work/source/.config"
            echo "$option" >>"$work/source/.config"
        done < <(grep -E '^CONFIG_' "$target_dir/busybox.fragment")
        yes '' | "${busybox_make[@]}" oldconfig || [ "${PIPESTATUS[1]}" -eq 0 ]
        "${busybox_make[@]}" "-j$(nproc)" busybox
    } >"$log" 2>&1 9>&- || { tail -20 "$log" >&2; die "the shell did not build"; }
    mkdir -p "$busybox_dir"
    cp "$work/source/busybox" "$busybox_dir/busybox.new"
    mv "$busybox_dir/busybox.new" "$busybox_dir/busybox"
fi
echo "$busybox_dir/busybox"
