#!/bin/sh
# test.sh SAMPLER LAUNCHER...: tests the driver in a chassis that LAUNCHER starts, by what it prints
# and by what it did to the device's registers.
set -eu
sampler=$1
shift
description=$(dirname "$0")/chassis.json

fail() {
    printf '%s\n%s\n' "$1" "$2" >&2
    exit 1
}

# shellcheck disable=SC2016 # for the shell in the chassis
seen=$("$@" --description "$description" -- sh -c '"$0" && "$1" ctl get STATUS && "$1" ctl log | grep -o "\"register.*" | cut -d, -f1,4,5' "$sampler" "$1")
wanted='samples: 11 22 33
0x0
"register": "CONTROL", "access": "write", "value": 1}
"register": "STATUS", "access": "read", "value": 2}
"register": "DATA", "access": "read", "value": 11}
"register": "DATA", "access": "read", "value": 22}
"register": "DATA", "access": "read", "value": 33}
"register": "STATUS", "access": "write", "value": 2}'
[ "$seen" = "$wanted" ] || fail "the driver did otherwise:" "$seen"

# A device that interrupts before it has taken its samples.
seen=$("$@" --description "$description" --uio-irq-delay 0 -- "$sampler" 2>&1 || true)
[ "$seen" = "/dev/uio0: Input/output error" ] || fail "the driver did not notice:" "$seen"
