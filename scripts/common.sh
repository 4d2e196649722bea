# What the scripts share; sourced, with the repository as working directory.

say() {
    printf '\n== %s\n' "$*"
}

give_up() {
    printf '\n%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# need_packages NAME...: installs the Debian packages that are missing.
need_packages() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -q '^installed$' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    say "installing$missing"
    as_root=
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || give_up "as root, run: apt-get install$missing"
        as_root=sudo
    fi
    export DEBIAN_FRONTEND=noninteractive
    # shellcheck disable=SC2086 # the list is meant to be split
    $as_root apt-get install -y --no-install-recommends $missing >/dev/null 2>&1 ||
        { $as_root apt-get update && $as_root apt-get install -y --no-install-recommends $missing; } ||
        give_up "could not install$missing; see apt-get's message above"
}

need_compiler_and_tests() {
    need_packages cmake ninja-build g++ pkg-config googletest libcli11-dev \
        nlohmann-json3-dev libfmt-dev python3-jsonschema "$@"
}

# build PRESET [OPTION...]: configures when needed and builds what changed.
build() {
    cmake --preset "$1" >"build/$1.log" 2>&1 ||
        { cat "build/$1.log"; give_up "configuring '$1' failed; rm -rf build/$1 starts afresh"; }
    cmake --build --preset "$@" ||
        give_up "building '$1' failed; the compiler's message is above"
}

mkdir -p build
