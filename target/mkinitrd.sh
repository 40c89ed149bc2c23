#!/usr/bin/env bash
# mkinitrd.sh OUTPUT INIT BUSYBOX PATH... : packs the emulated machine's initial RAM disk: the init
# program, the shell, each PATH (a program, a file or a folder, placed where it lies here, so that
# paths compiled into a test hold; FROM=TO places it elsewhere), and the loader and libraries that
# the programs ask for. Needs no root: device nodes come from the kernel's devtmpfs.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

output=$1 init=$2 busybox=$3
shift 3
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

is_target_elf() { # PATH: a big-endian 32-bit ELF file
    [ "$(head -c 6 "$1" | od -An -tx1 | tr -d ' ')" = 7f454c460102 ]
}

place() { # FROM TO
    mkdir -p "$tree$(dirname "$2")"
    cp -rL "$1" "$tree$2"
}

mkdir -p "$tree"/{bin,dev,etc,lib,proc,run,sys,tmp}
place "$init" /init
place "$busybox" /bin/busybox
ln -s busybox "$tree/bin/sh"
printf 'root:x:0:0:root:/tmp:/bin/sh\n' >"$tree/etc/passwd"
printf 'root:x:0:\n' >"$tree/etc/group"
printf '127.0.0.1 localhost\n' >"$tree/etc/hosts"
for path in "$@"; do
    place "${path%%=*}" "$(realpath -ms "${path#*=}")"
done

# The cancellation of a thread loads libgcc_s by name, so no program lists it.
needed=(ld.so.1 libgcc_s.so.1)
mapfile -t programs < <(find "$tree" -type f -size +64c)
for program in "${programs[@]}"; do
    is_target_elf "$program" || continue
    "$cross-strip" "$program" 2>/dev/null || true
    mapfile -t -O ${#needed[@]} needed < <("$cross-readelf" -d "$program" |
        sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
done
while [ ${#needed[@]} -gt 0 ]; do
    library=${needed[0]}
    needed=("${needed[@]:1}")
    [ ! -e "$tree/lib/$library" ] || continue
    [ -r "$sysroot/lib/$library" ] || die "no $library in $sysroot/lib"
    cp -L "$sysroot/lib/$library" "$tree/lib/$library"
    mapfile -t -O ${#needed[@]} needed < <("$cross-readelf" -d "$tree/lib/$library" |
        sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
done

mkdir -p "$(dirname "$output")"
(cd "$tree" && find . -mindepth 1 -print0 | LC_ALL=C sort -z |
    cpio --null --create --quiet --format=newc --owner=0:0) | gzip -1 >"$output.new"
mv "$output.new" "$output"
