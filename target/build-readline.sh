#!/usr/bin/env bash
# build-readline.sh [--cached]: builds the line editing of the shell from Debian's readline and
# ncurses source packages (Debian has no PowerPC packages to install) and prints the folder with
# include/ and lib/. Cached like the kernel; --cached builds nothing and prints nothing where there
# is no result. The descriptions of the usual terminals are part of the library, so that the board
# needs no terminal database; the two libraries are one archive, as only readline needs the other.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

terminals=linux,vt100,vt102,xterm,screen,dumb
flags="-O2 -mcpu=e300c3"
key=$({
    cat "${BASH_SOURCE[0]}"
    dpkg-query -W -f '${Package} ${Version}\n' gcc-12-powerpc-linux-gnu libc6-dev-powerpc-cross
} 2>/dev/null | sha256sum | cut -c1-16)
readline_dir="$cache_dir/readline-$key"
if [ "${1:-}" = --cached ]; then
    [ ! -r "$readline_dir/lib/libreadline.a" ] || echo "$readline_dir"
    exit 0
fi
mkdir -p "$cache_dir"
exec 9>"$cache_dir/readline.lock"
flock 9

configure() { # ARGUMENTS...: the current folder's package for the board's processor
    ./configure "--build=$(gcc -dumpmachine)" "--host=$cross" "CFLAGS=$flags" "$@"
}

# The steps return their status by hand: errexit is off in them.
unpack() { # NAME
    mkdir "$work/$1" &&
        tar -C "$work/$1" --strip-components=1 -xf "$work/$1"_*.orig.tar.[gx]z
}

build_tinfo() {
    cd "$work/ncurses" &&
        configure --with-termlib --without-shared --without-debug --without-cxx --without-ada \
            --without-manpages --without-progs --without-tests --disable-widec \
            --disable-database "--with-fallbacks=$terminals" &&
        make -C include && make -C ncurses "-j$(nproc)" ../lib/libtinfo.a
}

build_readline() {
    cd "$work/readline" &&
        configure --disable-shared --prefix=/ bash_cv_termcap_lib=libtinfo &&
        make "-j$(nproc)" static && make install-headers "DESTDIR=$work/made"
}

build() {
    fetch_source "$work" readline ncurses && unpack ncurses && unpack readline &&
        (build_tinfo) && (build_readline) && mkdir -p "$work/result/lib" &&
        mv "$work/made/include" "$work/result/" && "$cross-ar" -M <<END
CREATE $work/result/lib/libreadline.a
ADDLIB $work/readline/libreadline.a
ADDLIB $work/ncurses/lib/libtinfo.a
SAVE
END
}

if [ ! -r "$readline_dir/lib/libreadline.a" ]; then
    work=$(mktemp -d "$cache_dir/readline-build.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    log="$cache_dir/readline-build.log"
    echo "target: building the shell's line editing (log: $log)" >&2
    build >"$log" 2>&1 9>&- || { tail -20 "$log" >&2; die "the line editing did not build"; }
    rm -rf "$readline_dir"
    mv "$work/result" "$readline_dir"
fi
echo "$readline_dir"
