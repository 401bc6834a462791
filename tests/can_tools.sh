#!/bin/bash
# can-utils and the library on can0 and can1, one bus, and can2 and can3, another: simulated, or a
# kernel's, which are up. can_tools.sh BUILD: the folder that holds the examples.
set -eEu -o pipefail
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
path=$PATH
. "$(dirname "$0")/../scripts/common.sh"
PATH=$path # where the bus's own sudo comes first
[[ $# -eq 1 && -x $1/gateway ]] || refuse "no build with examples: $*"
build=$(realpath "$1")
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT
cd "$work"

arrives() { # FRAME SENDER LOG
    cansend "$2" "$1"
    sleep 0.01
    grep -q "$1" "$3"
}
# Logs frames from the first that is seen to arrive to the last, neither of which is kept.
declare -A listeners
listen() { # LOG SENDER WHAT-CANDUMP-TAKES
    rm -f "$1.raw"  # in which an earlier frame could be taken for this one
    candump -L "$3" >"$1.raw" &
    listeners[$1]=$!
    eventually arrives 1FFFFFFE#AA "$2" "$1.raw"
}
finish() { # LOG SENDER
    eventually arrives 1FFFFFFE#EE "$2" "$1.raw"
    kill "${listeners[$1]}"
    sed '/ 1FFFFFFE#/d; s/.* //' "$1.raw" >"$1"
}
# What cangen sends on an interface reaches other programs there, and on another interface.
reaches() { # WHAT FROM TO FILTER CANGEN-ARGUMENTS...
    listen near "$2" "$2$4"
    listen far "$2" "$3$4"
    cangen "$2" -g 1 -n 200 "${@:5}"
    finish near "$2"
    finish far "$2"
    diff near far
    test "$(wc -l <far)" = 200
    echo "$1: 200 frames, all equal"
}

# CAN FD frames, to the library; the monitor shows no flags.
"$build/monitor" 1 500 2000 >monitored.raw 2>log &
listeners[monitored]=$!
eventually grep -q 'is open' log
reaches 'CAN FD' can0 can1 '' -f -b -L 8
finish monitored can0
sed -i 's/##./#/' far
diff far monitored
wait "${listeners[monitored]}"
[ -z "${SIMCAN_KERNEL-}" ] || ip link set can1 up

# The library's gateway passes extended frames from one bus, and standard ones back.
"$build/gateway" 0 2 >/dev/null 2>log &
gateway=$!
eventually grep -q 'are open' log
reaches 'through the gateway' can1 can3 ,80000000:80000000 -e -R
reaches 'and back' can3 can1 ,0:80000000,1FFFFFFE:1FFFFFFF -R
kill $gateway
wait $gateway
