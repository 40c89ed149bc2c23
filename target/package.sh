#!/usr/bin/env bash
# package.sh [--no-check]: the tarball for the board, build/package/kestrelflash.tar.gz: kestrelwatch
# and the updater behind it (stripped), an example of a program that draws what kestrelwatch says, the
# man page where there is one, checksums. The same sources give
# the same bytes wherever they lie; unless --no-check, a copy of them in another folder is built as
# well and compared.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

check=yes
[ "${1:-}" != --no-check ] || check=no
cd "$root_dir"
package_dir="$root_dir/build/package"
tarball="$package_dir/kestrelflash.tar.gz"
if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
fi
export SOURCE_DATE_EPOCH

build_package() {
    local stage_dir="$package_dir/kestrelflash"
    mkdir -p "$package_dir"
    # From the start: flags that the toolchain file once gave would stay in the folder.
    cmake --fresh --preset target-harbor >"$package_dir/build.log" 2>&1 &&
        cmake --build --preset target-harbor --target kestrelflash kestrelwatch \
            >>"$package_dir/build.log" 2>&1 ||
        { tail -40 "$package_dir/build.log"; die "what ships did not build"; }
    rm -rf "$stage_dir" && mkdir -p "$stage_dir"
    local program
    for program in kestrelflash kestrelwatch; do
        "$cross-strip" -o "$stage_dir/$program" "build/target-harbor/bin/$program"
    done
    cp target/package/draw.sh "$stage_dir/"
    [ ! -e docs/kestrelflash.1 ] || cp docs/kestrelflash.1 "$stage_dir/"
    chmod 755 "$stage_dir"/{kestrelflash,kestrelwatch,draw.sh}
    (cd "$stage_dir" && sha256sum -- * >../SHA256SUMS && mv ../SHA256SUMS .)
    tar -C "$package_dir" --sort=name --format=ustar --mtime="@$SOURCE_DATE_EPOCH" \
        --owner=0 --group=0 --numeric-owner --mode=go+rX,go-w,u+w -cf - kestrelflash |
        gzip -n9 >"$tarball"
}

# In a copy at a path of another length, without the compiler cache.
compare_with_copy() {
    copy=$(mktemp -d)
    trap 'rm -rf "$copy"' EXIT
    mkdir -p "$copy/another/place/for/the/same/sources"
    git ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
        tar --null -T - -cf - | tar -C "$copy/another/place/for/the/same/sources" -xf -
    (cd "$copy/another/place/for/the/same/sources" &&
        CCACHE_DISABLE=1 target/package.sh --no-check >/dev/null) || die "the copy did not build"
    cmp "$tarball" "$copy/another/place/for/the/same/sources/build/package/kestrelflash.tar.gz"
}

need_packages "${target_packages[@]}"
build_package
tar -tzvf "$tarball"
sha256sum "$tarball" | sed "s|$root_dir/||"
if [ $check = yes ]; then
    compare_with_copy
    echo "package: the same from another folder"
fi
