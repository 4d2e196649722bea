#!/bin/sh
# devaccess_installed.sh BUILD WORK CHASSIS_SIM: installed, the tool finds the library beside it, and
# its page and its completion are where the system looks for them.
set -eu
prefix=$2/devaccess_installed
rm -rf "$prefix"
cmake --install "$1" --prefix "$prefix" >"$2/devaccess_installed.log"
unset LD_LIBRARY_PATH
"$3" -- "$prefix/bin/devaccess" pci read 03:00.0 0 --width 16 | grep -q '^value:   0x1d0f$'
test -s "$prefix/share/man/man1/devaccess.1"
test -s "$prefix/share/bash-completion/completions/devaccess"
