# Shared by the scripts of this folder (sourced, never run): where things are kept, how a stage
# is timed, which packages the emulated machine needs.

target_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root_dir=$(dirname "$target_dir")
case "${XDG_CACHE_HOME:-}" in  # anything but an absolute path is to be ignored
    /*) cache_dir="$XDG_CACHE_HOME/harbor-target" ;;
    *) cache_dir="${HOME:?is not set, nor XDG_CACHE_HOME to an absolute path}/.cache/harbor-target" ;;
esac
cross=powerpc-linux-gnu
sysroot=/usr/$cross

target_packages=(
    g++-powerpc-linux-gnu libgtest-dev nlohmann-json3-dev libcli11-dev qemu-user qemu-system-ppc qemu-system-data
    linux-source-6.1 flex bison bc libelf-dev libssl-dev cpio xz-utils bzip2 make gcc g++
    cmake ninja-build)

die() {
    echo "target: $*" >&2
    exit 1
}

# Installs what is missing where it may; says what is missing where it may not.
need_packages() {
    local package missing=()
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null && sudo -n true 2>/dev/null ||
            die "these Debian packages are missing: ${missing[*]}"
        as_root=(sudo)
    fi
    echo "target: installing ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq \
        --no-install-recommends "${missing[@]}" >/dev/null
}

# make_once NAME WHAT FOLDER FILE: makes a folder of the cache, once for all who ask at the same time.
# Unless FILE is in it, runs the caller's function `build`, which leaves $work/result for it; $work is
# a new folder, removed at the end. Its output stays in NAME-build.log. A failure ends the program.
make_once() {
    local name=$1 what=$2 folder=$3 file=$4 log="$cache_dir/$1-build.log" status
    mkdir -p "$cache_dir"
    exec 9>"$cache_dir/$name.lock"
    flock 9
    [ ! -r "$folder/$file" ] || return 0
    rm -rf "$cache_dir/$name"-build.??????  # of one that was killed
    work=$(mktemp -d "$cache_dir/$name-build.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    echo "target: building $what (log: $log)" >&2
    # A failing step ends the subshell; that would not be so within a condition.
    set +e
    (set -e; build) >"$log" 2>&1 9>&-
    status=$?
    set -e
    [ $status -eq 0 ] || { tail -20 "$log" >&2; die "$what did not build"; }
    rm -rf "$folder"
    mv "$work/result" "$folder"
}

stage_times=()

# stage NAME COMMAND...: runs the command and notes how long it took; its failure ends the run.
stage() {
    local name=$1 start=$SECONDS status=0
    shift
    echo "== $name"
    "$@" || status=$?
    stage_times+=("$(printf '%5d s  %s' $((SECONDS - start)) "$name")")
    [ $status -eq 0 ] || die "$name: failed ($status)"
}

print_stage_times() {
    [ ${#stage_times[@]} -eq 0 ] || printf '%s\n' "${stage_times[@]}"
}

# fetch_source DIRECTORY PACKAGE...: leaves the upstream tar files of Debian source packages there.
# They come from the mirror that the system's package lists already use; the system's own lists stay
# as they are.
fetch_source() {
    local keyring=/usr/share/keyrings/debian-archive-keyring.gpg signed=""
    [ ! -r "$keyring" ] || signed="[signed-by=$keyring]"
    mkdir -p "$1/lists/partial" "$1/system/partial"
    local known=(-o "Dir::State::lists=$1/system" -o APT::Sandbox::User=root
        -o "Dir::Cache::srcpkgcache=" -o "Dir::Cache::pkgcache=")
    # A machine made small has no package lists.
    if [ -n "$(apt-get indextargets 'Created-By: Packages')" ]; then
        known=()
    else
        apt-get "${known[@]}" update
    fi
    apt-get "${known[@]}" indextargets --format '$(ORIGIN) $(REPO_URI) $(RELEASE) $(COMPONENT)' \
        'Created-By: Packages' |
        awk -v signed="$signed" '$1 == "Debian" && $4 == "main" {
            print "deb-src", signed, $2, $3, $4 }' | sort -u >"$1/sources.list"
    [ -s "$1/sources.list" ] || { echo "no Debian mirror among the package sources"; return 1; }
    local options=(-o "Dir::State::lists=$1/lists" -o "Dir::Etc::sourcelist=$1/sources.list"
        -o Dir::Etc::sourceparts=/dev/null -o APT::Sandbox::User=root
        -o "Dir::Cache::srcpkgcache=" -o "Dir::Cache::pkgcache=")
    apt-get "${options[@]}" update
    (cd "$1" && apt-get "${options[@]}" source --download-only "${@:2}")
}
