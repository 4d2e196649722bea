#!/bin/sh
# needed.sh LIBRARY: LIBRARY needs libc and nothing else.
needed=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
test "$needed" = libc.so.6 || { echo "needs: $needed" >&2; exit 1; }
