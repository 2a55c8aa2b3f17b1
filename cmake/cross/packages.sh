# shellcheck shell=sh disable=SC2154  # $work and $root are the caller's
# Sourced by the scripts of this folder: packages of another architecture and sources, from the same places as the
# machine's own, without changing what its package manager knows.

# die TEXT...: tells what went wrong and ends.
die() {
    echo "scripts/cross: $*" >&2
    exit 1
}

# unavailable TEXT...: the same for what the distribution does not have, or not today.
unavailable() {
    echo "scripts/cross: $*" >&2
    exit 3
}

# within DIRECTORY COMMAND...
within() (
    cd "$1" || exit
    shift
    "$@"
)

# quietly WHAT COMMAND...: says what is being done; only when it fails, what the command had to say, too.
quietly() {
    what=$1
    shift
    echo "  $what"
    "$@" >"$work/log" 2>&1 && return
    tail -n 20 "$work/log" >&2
    if grep -q -i 'no space left' "$work/log"; then
        die "no space is left below $ORV_CROSS_CACHE (while: $what)"
    fi
    die "failed: $what"
}

# Where packages come from, with their sources, and for any architecture: the machine's own may be the only one named.
with_sources_of_lines() {
    sed '/^deb /!d; s/\(\[[^]]*\)arch=[^] ]*/\1/; p; s/^deb /deb-src /'
}

with_sources_of_fields() {
    sed '/^Architectures:/d; s/^Types:.*/Types: deb deb-src/'
}

# open_archive ARCHITECTURE: reads the package lists of another architecture, with those of sources.
open_archive() {
    apt=$work/apt
    mkdir -p "$apt/state/lists/partial" "$apt/cache/archives/partial" "$apt/sources.list.d"
    : >"$apt/status"
    : >"$apt/sources.list"
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ ! -e "$file" ] || with_sources_of_lines <"$file" >>"$apt/sources.list"
    done
    for file in /etc/apt/sources.list.d/*.sources; do
        [ ! -e "$file" ] || with_sources_of_fields <"$file" >"$apt/sources.list.d/${file##*/}"
    done
    cat >"$apt/apt.conf" <<TEXT
Dir::Etc::sourcelist "$apt/sources.list";
Dir::Etc::sourceparts "$apt/sources.list.d";
Dir::State "$apt/state";
Dir::State::status "$apt/status";
Dir::Cache "$apt/cache";
APT::Architecture "$1";
APT::Architectures "$1";
APT::Sandbox::User "root";
TEXT
    # One list that could not be read may be one that is not needed: whether it was shows when a package is fetched.
    echo "  reading the package lists"
    APT_CONFIG=$apt/apt.conf apt-get -q update >"$work/log" 2>&1 || cp "$work/log" "$work/lists-log"
}

# from_archive WHAT ARGUMENT...: apt-get with these lists, in the current directory.
from_archive() {
    what=$1
    shift
    echo "  fetching $what"
    APT_CONFIG=$apt/apt.conf apt-get -q "$@" >"$work/log" 2>&1 && return
    { cat "$work/lists-log" "$work/log" | grep '^[EW]:' | tail -n 6; } >&2 2>/dev/null || :
    unavailable "cannot fetch $what: is there a network, and do /etc/apt's sources have it?"
}

# fetch_package NAME: a package that is not installed, unpacked below $root.
fetch_package() {
    (cd "$work" && from_archive "$1" download "$1")
    for file in "$work/$1"_*.deb; do
        dpkg-deb -x "$file" "$root" || die "cannot unpack $1"
    done
}

# fetch_source NAME: a package's source, unpacked as $work/NAME.
fetch_source() {
    mkdir "$work/$1.source"
    (cd "$work/$1.source" && from_archive "the source of $1" source --download-only "$1")
    quietly "unpacking $1" dpkg-source --no-check -x "$work/$1.source"/*.dsc "$work/$1"
}
