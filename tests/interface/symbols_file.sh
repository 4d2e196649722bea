#!/bin/sh
# symbols_file.sh LIST FILE: FILE, of the Debian package, has for each name of LIST, the linker's version
# script, the version in which it came, and no other name.
export LC_ALL=C
node=$(sed -n 's/ {$//p' "$1")
listed=$({ echo "$node"; sed -n 's/^    \([^*]*\);$/\1/p' "$1"; } | sed "s/\$/@$node/" | sort)
sed -nE 's/^ ([^ ]+) [0-9]+\.[0-9]+\.[0-9]+$/\1/p' "$2" | sort |
    diff -u --label "$1" --label "$2" /dev/fd/3 - 3<<EOF
$listed
EOF
