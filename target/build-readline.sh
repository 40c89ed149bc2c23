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

configure() { # ARGUMENTS...: the current folder's package for the board's processor
    ./configure "--build=$(gcc -dumpmachine)" "--host=$cross" "CFLAGS=$flags" "$@"
}

unpack() { # NAME
    mkdir "$work/$1"
    tar -C "$work/$1" --strip-components=1 -xf "$work/$1"_*.orig.tar.[gx]z
}

build_tinfo() {
    cd "$work/ncurses"
    configure --with-termlib --without-shared --without-debug --without-cxx --without-ada \
        --without-manpages --without-progs --without-tests --disable-widec \
        --disable-database "--with-fallbacks=$terminals"
    make -C include
    make -C ncurses "-j$(nproc)" ../lib/libtinfo.a
}

build_readline() {
    cd "$work/readline"
    configure --disable-shared --prefix=/ bash_cv_termcap_lib=libtinfo
    make "-j$(nproc)" static
    make install-headers "DESTDIR=$work/made"
}

build() {
    fetch_source "$work" readline ncurses
    unpack ncurses
    unpack readline
    (build_tinfo)
    (build_readline)
    mkdir -p "$work/result/lib"
    mv "$work/made/include" "$work/result/"
    "$cross-ar" -M <<END
CREATE $work/result/lib/libreadline.a
ADDLIB $work/readline/libreadline.a
ADDLIB $work/ncurses/lib/libtinfo.a
SAVE
END
}

make_once readline "the line editing" "$readline_dir" lib/libreadline.a
echo "$readline_dir"
