#!/bin/sh
# manual_pages.sh DIRECTORY LIST: every function of LIST has a page of its name in DIRECTORY that declares
# it and says what it does, returns and sets, and no line is wider than a terminal of 80 columns.
set -eu
names=$(sed -n 's/^    \([^*]*\);$/\1/p' "$2")
cd "$1"
status=0
for name in $names; do
    case $name in _nvram_dev_info | lc2_pod_log_again | device_access_version) continue ;; esac # data
    page=$(sed -n 's|^\.so man3/||p' "$name.3" 2>/dev/null || true)
    page=${page:-$name.3}
    for wanted in '^\.SH SYNOPSIS' "^\\\\fB.*[ *]$name(" '^\.SH DESCRIPTION' '^\.SH ERRORS'; do
        grep -q "$wanted" "$page" 2>/dev/null && continue
        echo "$page: nothing of $name matches $wanted" >&2
        status=1
    done
done
if command -v nroff >/dev/null; then
    for page in *.3; do
        nroff -man -rLL=80n "$page" 2>/dev/null | sed 's/\x1b\[[0-9;]*m//g; s/.\x08//g' |
            awk -v page="$page" 'length($0) > 80 { print page ": wider than 80 columns: " $0; wide = 1 }
                END { exit wide }' >&2 || status=1
    done
fi
exit $status
