#!/bin/sh
# exports.sh LIBRARY LIST: the names that LIBRARY exports are exactly those of LIST. (The address
# sanitizer marks exported data with names of its own.)
nm -D --defined-only --format=posix "$1" | awk '$1 !~ /^__odr_asan/ { print $1 }' | LC_ALL=C sort |
    diff -u --label listed --label exported "$2" - && exit
echo "The interface changed: if that is meant, tests/exported_symbols.txt must say so." >&2
exit 1
