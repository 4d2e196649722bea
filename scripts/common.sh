# shellcheck shell=sh
# What the scripts share; sourced, with the repository as working directory.

say() {
    printf '\n== %s\n' "$*"
}

# What scripts end with if the same may succeed another time or elsewhere: sysexits.h calls it so.
EX_TEMPFAIL=75
gives_up_with=1

give_up() {
    printf '\n%s: %s\n' "$(basename "$0")" "$*" >&2
    exit $gives_up_with
}

# patiently COMMAND...: runs a command that fetches from a mirror. While a mirror is being synchronised,
# its lists and packages do not fit together; then the command is run again, after longer and longer
# pauses.
patiently() {
    gives_up_with=1
    for pause in 5 15 45 90 last; do
        fetching_failed=$({ { "$@" 2>&1 || echo yes >&3; } | tee build/fetch.log >&2; } 3>&1)
        [ -n "$fetching_failed" ] || return 0
        grep -Eq 'Mirror sync|Hash Sum mismatch|unexpected size' build/fetch.log || return 1
        [ "$pause" != last ] || break
        say "the mirror is being synchronised: trying again in $pause s"
        sleep "$pause"
    done
    gives_up_with=$EX_TEMPFAIL
    return 1
}

as_root() {
    [ "$(id -u)" -eq 0 ] || set -- sudo "$@"
    "$@"
}

# need_packages NAME...: installs the Debian packages that are missing.
need_packages() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -q '^installed$' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null ||
        give_up "as root, run: apt-get install$missing"
    say "installing$missing"
    # shellcheck disable=SC2086 # the list is meant to be split
    set -- env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -q --no-install-recommends $missing
    as_root "$@" >build/fetch.log 2>&1 && return
    patiently as_root apt-get update || true # that of some other archive may be what failed
    patiently as_root "$@" || give_up "could not install$missing; see apt-get's message above"
}

# shellcheck disable=SC2120 # more packages may be named
need_compiler_and_tests() {
    need_packages cmake ninja-build g++ pkg-config googletest libcli11-dev \
        nlohmann-json3-dev libfmt-dev libarchive-dev libexpat1-dev libpci-dev libseccomp-dev \
        libevent-dev libkainjow-mustache-dev libzydis-dev jq \
        pciutils python3-jsonschema python3-prometheus-client \
        libpython3-dev mypy python3-cffi python3-pytest python3-setuptools "$@"
}

debian_release() (
    # shellcheck disable=SC1091 # every Debian has it
    . /etc/os-release && echo "$VERSION_CODENAME"
)

# list_archives FILE: the Debian archives that the machine itself uses, as lines of apt's sources.
list_archives() {
    # shellcheck disable=SC2016 # apt's own variables
    set -- "$1" apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
        'Created-By: Packages' 'Origin: Debian'
    file=$1
    shift
    "$@" | sort -u >"$file"
    [ -s "$file" ] || { patiently as_root apt-get update && "$@" | sort -u >"$file"; }
    [ -s "$file" ] || give_up "apt knows no Debian archive; see its message above"
}

# make_own_apt DIRECTORY ARCHITECTURE: lists of these archives, for own_apt; so what a foreign
# architecture has can be fetched, and nothing of the machine changes.
make_own_apt() {
    own_apt_place=$1
    own_apt_architectures="$2,$(dpkg --print-architecture)"
    mkdir -p "$1/lists/partial" "$1/cache/archives/partial"
    : >"$1/status"
    : >"$1/preferences"
    list_archives "$1/sources.list"
}

# own_apt TOOL ARGUMENT...
own_apt() {
    tool=$1
    shift
    "$tool" -q -o APT::Architecture="${own_apt_architectures%,*}" \
        -o APT::Architectures="$own_apt_architectures" \
        -o Dir::State::lists="$own_apt_place/lists" -o Dir::State::status="$own_apt_place/status" \
        -o Dir::Cache="$own_apt_place/cache" \
        -o Dir::Etc::sourcelist="$own_apt_place/sources.list" -o Dir::Etc::sourceparts=/dev/null \
        -o Dir::Etc::preferences="$own_apt_place/preferences" -o APT::Sandbox::User=root "$@"
}

need_virtual_machine() {
    need_packages qemu-system-x86 cpio xz-utils
}

# Those that 32-bit programs are built with.
fetch_libraries() {
    scripts/fetch-libraries libfmt-dev libarchive-dev libexpat1-dev libpci-dev libseccomp-dev \
        libevent-dev libpython3-dev libzydis-dev
}

# configure PRESET [OPTION...]
configure() {
    [ "$1" != i386 ] || fetch_libraries || exit
    cmake --preset "$@" >"build/$1.log" 2>&1 ||
        { cat "build/$1.log"; give_up "configuring '$1' failed; rm -rf build/$1 starts afresh"; }
}

# compile PRESET [OPTION...]: builds what changed. Two compilers more than there are processors, as ninja
# has them, take a twentieth more time.
compile() {
    cmake --build --preset "$@" --parallel "$(nproc)" ||
        give_up "building '$1' failed; the compiler's message is above"
}

# build PRESET [OPTION...]: both; the options are those of compile.
build() {
    configure "$1"
    compile "$@"
}

mkdir -p build
