#!/bin/sh
# installed_package.sh BUILD WORK CHASSIS_SIM...: installs the library and its development files, then
# builds the examples that come with them through CMake, and one of each language through pkg-config
# and one statically, and runs them in a simulated chassis, with the command CHASSIS_SIM.
# CC, CXX and FLAGS name the compilers.
set -eu
build=$1 work=$2/installed_package
here=$(dirname "$0")
shift 2
rm -rf "$work"
mkdir -p "$work"
for component in library dev; do
    cmake --install "$build" --component "common_device_access_$component" --prefix "$work/prefix" >>"$work/log"
done

# shellcheck disable=SC2153 # not a slip: CTest sets it
export CFLAGS="$FLAGS" CXXFLAGS="$FLAGS"
PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name common_device_access.pc)")
export PKG_CONFIG_PATH
cflags=$(pkg-config --cflags common_device_access)
libs="$(pkg-config --libs common_device_access) -Wl,-rpath,$(pkg-config --variable=libdir \
    common_device_access)"
examples=$(echo "$work"/prefix/share/doc/*/examples)
cmake -S "$examples" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >>"$work/log"
cmake --build "$work/examples" >>"$work/log"
"$examples/run" "$work/examples" "$@"

# shellcheck disable=SC2086 # flags are meant to be split
{
    $CC $FLAGS $cflags "$examples/fpga_block.c" $libs -o "$work/fpga_block"
    $CXX $FLAGS -std=c++20 $cflags "$examples/pci_list.cpp" $libs -o "$work/pci_list"
}
cmake -S "$here/cmake_client" -B "$work/client" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >>"$work/log"
cmake --build "$work/client" >>"$work/log"
for client in fpga_block client/static_client; do
    "$@" -- "$work/$client" | grep -q '0x10 reads 0xf00d0000$'
done
"$@" -- "$work/pci_list" | grep -q 'hot-plug slot$'
