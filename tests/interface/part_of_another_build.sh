#!/bin/sh
# part_of_another_build.sh SOURCE WORK CHASSIS_SIM...: SOURCE as a part of another project, which asks for
# a newer C++ and a linker that drops nothing: its programs run, it installs nothing that is not its own,
# and the library still needs libc alone. CC, CXX and FLAGS name the compilers.
set -eu
source=$1 work=$2/part
here=$(dirname "$0")
shift 2
rm -rf "$work"
mkdir -p "$work"
# shellcheck disable=SC2153 # not a slip: CTest sets it
export CFLAGS="$FLAGS" CXXFLAGS="$FLAGS"
{
    cmake -S "$here/cmake_client" -B "$work/build" -G Ninja -DSOURCE="$source" \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_STANDARD=23 \
        -DCMAKE_SHARED_LINKER_FLAGS=-Wl,--no-as-needed
    cmake --build "$work/build"
    cmake --install "$work/build" --prefix "$work/prefix"
} >"$work/log" || { cat "$work/log"; exit 1; }
grep -q 'std=gnu++2[3b]' "$work/build/compile_commands.json"
test "$(cd "$work/prefix" && find . -type f)" = ./bin/client
"$here/needed.sh" "$(find "$work/build" -name libcommon_device_access.so)"
"$@" -- "$work/build/client" | grep -q 'hot-plug slot$'
