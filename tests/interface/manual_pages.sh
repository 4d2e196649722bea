#!/bin/sh
# manual_pages.sh DIRECTORY LIST: every function of LIST has a page of its name in DIRECTORY, which is
# or leads to one that declares it.
set -eu
names=$(sed -n 's/^    \([^*]*\);$/\1/p' "$2")
cd "$1"
status=0
for name in $names; do
    page=$(sed -n 's|^\.so man3/||p' "$name.3" 2>/dev/null || true)
    grep -q "[ *B]$name\\((\\|;\\|\\[\\|\\\\fP\\)" "${page:-$name.3}" 2>/dev/null && continue
    case $name in _nvram_dev_info | lc2_pod_log_again) continue ;; esac # data, not functions
    echo "no manual page of $name" >&2
    status=1
done
exit $status
