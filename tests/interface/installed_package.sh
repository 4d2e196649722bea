#!/bin/sh
# installed_package.sh SOURCE WORK CHASSIS_SIM: configures, builds and installs the library as a
# user would, with tests off, then builds a C and a C++ client against it, through pkg-config and
# through CMake, and the examples that come with it, and runs them in a simulated chassis. CC, CXX
# and FLAGS name the compilers.
set -eu
source=$1 work=$2/installed_package chassis_sim=$3
rm -rf "$work"
mkdir -p "$work"
here=$source/tests/interface
export CFLAGS="$FLAGS" CXXFLAGS="$FLAGS"

cmake -S "$source" -B "$work/build" -G Ninja -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$work/prefix" >"$work/log"
cmake --build "$work/build" >>"$work/log"
cmake --install "$work/build" >>"$work/log"

PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name common_device_access.pc)")
export PKG_CONFIG_PATH
cflags=$(pkg-config --cflags common_device_access)
libs=$(pkg-config --libs common_device_access)
# shellcheck disable=SC2086 # flags are meant to be split
{
    $CC $FLAGS $cflags "$here/client.c" $libs -o "$work/pkg_config_c"
    $CXX $FLAGS -std=c++20 $cflags "$here/client.cpp" $libs -o "$work/pkg_config_cxx"
}
cmake -S "$here/cmake_client" -B "$work/client" -G Ninja \
    -DCMAKE_PREFIX_PATH="$work/prefix" >>"$work/log"
cmake --build "$work/client" >>"$work/log"

LD_LIBRARY_PATH=$(dirname "$(find "$work/prefix" -name 'libcommon_device_access.so')")
export LD_LIBRARY_PATH
for client in "$work/pkg_config_c" "$work/pkg_config_cxx" "$work/client/client_c" \
    "$work/client/client_cxx" "$work/client/client_static"; do
    "$chassis_sim" -- "$client" | tee "$work/output"
    grep -q '^1 window, register 0x1234$' "$work/output"
done

examples=$(echo "$work"/prefix/share/doc/*/examples)
cmake -S "$examples" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >>"$work/log"
cmake --build "$work/examples" >>"$work/log"
"$examples/run" "$work/examples" "$chassis_sim"
