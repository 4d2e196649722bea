#!/bin/sh
# exports.sh LIBRARY LIST: the names that LIBRARY exports are exactly those of LIST, the linker's
# version script, each with its version.
export LC_ALL=C
version=$(sed -n 's/ {$//p' "$2")
listed=$(sed -n "s/^    \\([^*]*\\);\$/\\1@@$version/p" "$2" | sort)
exported=$(nm -D --defined-only --format=posix "$1" | awk '$2 != "A" { print $1 }' | sort)
[ "$listed" = "$exported" ] && exit
echo "$exported" | diff -u --label listed --label exported /dev/fd/3 - 3<<EOF
$listed
EOF
echo "The interface changed: if that is meant, lib/exports.map must say so." >&2
exit 1
