#!/bin/sh
# soname.sh LIBRARY NAME: LIBRARY's file and soname are NAME, and the usual link leads to it.
set -e
test "$(basename "$1")" = "$2"
readelf -d "$1" | grep -q "SONAME.*\[$2\]"
test "$(readlink "$(dirname "$1")/libcommon_device_access.so")" = "$2"
