#!/bin/bash
# tool_installed.sh BUILD WORK CHASSIS_SIM: installed, the tool runs, and its pages, schema and
# completions are where the system looks for them and work.
set -eu
prefix=$2/tool_installed
rm -rf "$prefix"
cmake --install "$1" --prefix "$prefix" >"$2/tool_installed.log"
"$3" -- "$prefix/bin/devaccess" pci read 03:00.0 0 --width 16 | grep -q '^value:     0xf0ca$'
# What runs only in an emulator cannot make its own pages while it is built.
grep -q 'CROSSCOMPILING_EMULATOR[^=]*=.' "$1/CMakeCache.txt" || test -s "$prefix/share/man/man1/devaccess.1"
for file in man/man1/chassis-sim.1 common_device_access/devaccess.schema.json \
    zsh/site-functions/_devaccess fish/vendor_completions.d/devaccess.fish; do
    test -s "$prefix/share/$file"
done
completed() { # program, line, wanted words
    # shellcheck source=/dev/null
    . "$prefix/share/bash-completion/completions/$1"
    COMP_LINE=$2 COMP_POINT=${#2} COMP_WORDBREAKS=$' \t\n=:'
    read -ra COMP_WORDS <<<"$2"
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    "_${1/-/_}" "$prefix/bin/$1" "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
    [ "$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | xargs)" = "$3" ]
}
completed devaccess 'devaccess podlog --chassis=n20 status SW' 'SW1 SW2 SW3 SW4'
completed devaccess 'devaccess podlog --chassis=n' 'n10 n20 n4'
completed devaccess 'devaccess uio info sysfs_pci:uio_gl' 'uio_glb.rpsw'
completed chassis-sim 'chassis-sim --uio-a' '--uio-appears'
completed devaccess 'devaccess podlog tim' timeline
completed devaccess 'devaccess uio read --map=regblock 0 CONTROL.' CONTROL.RUN # by an installed map

# The other shells show descriptions too.
export PATH=$prefix/bin:$PATH
if command -v zsh >/dev/null; then
    zsh -fc '_describe() { print -rl -- $found }
        words=(devaccess podlog --chassis=n) CURRENT=3; . "$1"
        words=(devaccess pod) CURRENT=2; . "$1"' - "$prefix/share/zsh/site-functions/_devaccess" |
        tail -n 2 | tr '\n' ' ' | grep -qx -- '--chassis=n4 podlog:POD logs of the cards '
fi
if command -v fish >/dev/null; then
    # shellcheck disable=SC2016 # for fish
    fish -N -c 'source $argv[1]; complete -C "devaccess pod"' \
        "$prefix/share/fish/vendor_completions.d/devaccess.fish" |
        grep -qx "podlog$(printf '\t')POD logs of the cards"
fi
