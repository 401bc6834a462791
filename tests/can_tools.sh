#!/bin/bash
# can-utils and the library on can0 and can1, one bus, and can2 and can3, another: simulated, or the
# kernel's own. can_tools.sh BUILD: the folder that holds the examples.
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
bring_up() {
    [ -n "${SIMCAN_KERNEL-}" ] || return 0
    for number in 0 1 2 3; do ip link set can$number up; done
}
[ -z "${SIMCAN_KERNEL-}" ] || ip link add can2 mtu 72 type vxcan peer name can3 mtu 72
bring_up

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
same() { # WHAT LOG LOG
    diff "$2" "$3"
    test "$(wc -l <"$2")" = 200
    echo "$1: 200 frames, all equal"
}
shows() { # LOG FRAMES...
    diff "$1" <(printf '%s\n' "${@:2}")
}
# What cangen sends on an interface reaches other programs there, and on another interface.
reaches() { # WHAT FROM TO FILTER CANGEN-WORDS...
    listen near "$2" "$2$4"
    listen far "$2" "$3$4"
    cangen "$2" -g 1 -n 200 "${@:5}"
    finish near "$2"
    finish far "$2"
    same "$1" near far
}

reaches 'random frames of all kinds' can0 can1 '' -m -R

# canplayer is bound to no interface, and names one for each frame.
grep -v 1FFFFFFE# far.raw >recorded
listen played can0 can0
canplayer -I recorded can1=can1
finish played can0
same 'by canplayer' far played

# Filters, and error frames, which only those get who ask for them.
marker=1FFFFFFE:1FFFFFFF
listen chosen can0 can1,123:7FF,$marker
listen others can0 can1,123~7FF
listen errors can0 can1,$marker,#FFFFFFFF
for frame in 123#11 124#22 00000123#33 20000004#0000000000000000; do cansend can0 $frame; done
for log in chosen others errors; do finish $log can0; done
shows chosen 123#11 00000123#33
shows others 124#22
shows errors 20000004#0000000000000000

# Full duplex: frames come back with their identifier and bytes incremented. On one processor, as a
# kernel's virtual interface may deliver an answer before the sender's own copy. No answer to what is
# sent until the partner is ready may be left.
taskset -c 0 canfdtest can1 >/dev/null &
partner=$!
candump -L can0 >answers &
number=0
answers() {
    number=$((number + 1))
    cansend can0 "7FE#$(printf %02X $number)"
    sleep 0.05
    grep -q 7FF# answers
}
eventually answers
eventually grep -q "7FF#$(printf %02X $((number + 1)))" answers
taskset -c 0 canfdtest -g -l 200 can0 >log
grep -x 'Test messages sent and received: 200' log || { cat log; exit 1; }
kill $partner

# CAN FD frames, to the library; the monitor shows no flags.
"$build/monitor" 1 500 2000 >monitored.raw 2>log &
listeners[monitored]=$!
eventually grep -q 'is open' log
reaches 'CAN FD' can0 can1 '' -f -b -L 8
finish monitored can0
sed -i 's/##./#/' far
same 'to the monitor' far monitored
wait "${listeners[monitored]}"
bring_up

# The library's gateway passes extended frames from one bus, and standard ones back.
"$build/gateway" 0 2 >/dev/null 2>log &
gateway=$!
eventually grep -q 'are open' log
reaches 'through the gateway' can1 can3 ,80000000:80000000 -e -R
reaches 'and back' can3 can1 ,0:80000000,$marker -R
kill $gateway
wait $gateway
