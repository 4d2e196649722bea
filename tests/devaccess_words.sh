#!/bin/bash
# devaccess_words.sh DEVACCESS SOURCE: every command that DEVACCESS's help names is completed by the
# shell and described on the manual page and in docs/devaccess.md.
set -u
devaccess=$1 source=$2 failures=0
page=$(sed 's/\\-/-/g' "$source/tools/devaccess.1")
shopt -u extglob
. "$source/tools/devaccess.bash-completion" || exit

commands_of() { # words of the command
    "$devaccess" "$@" --help |
        awk '/^Subcommands:/ { inside = 1; next } inside { if (!NF) exit; print $1 }'
}

complain() {
    echo "$*" >&2
    failures=$((failures + 1))
}

completed() { # line, wanted words
    COMP_LINE=$1 COMP_POINT=${#1}
    _devaccess
    [ "$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | xargs)" = "$2" ] ||
        complain "'$1' is completed by '${COMPREPLY[*]}', wanted '$2'"
}

visit() { # words of a command that has commands
    completed "devaccess${*:+ }$* " "$(commands_of "$@" | LC_ALL=C sort | xargs)"
    for name in $(commands_of "$@"); do
        if [ -n "$(commands_of "$@" "$name")" ]; then
            visit "$@" "$name"
            continue
        fi
        grep -Eq "^### \`$* $name( |\`)" "$source/docs/devaccess.md" ||
            complain "docs/devaccess.md has no heading for: $* $name"
        grep -Eq "^\.BI? \"?$* $name( |\"|$)" <<<"$page" ||
            complain "devaccess.1 does not describe: $* $name"
    done
}
visit

completed "devaccess pci read --w" "--width"
completed "devaccess podlog status --chassis " "n10 n20 n4"
completed "devaccess podlog --chassis n20 faults " "clear clear-all set"
completed "devaccess postlog show " "error event test"
completed "devaccess pci read 0000:03:00.0 0x" ""
exit "$((failures > 0))"
