#!/bin/bash
# Names interfaces can0, can1 and so on; those with these names get other ones: take_over.sh NAME...
set -eu
. "$(dirname "$0")/../scripts/common.sh"
[ $# -gt 0 ] || refuse "no interfaces named"
for name; do
    [ -e "/sys/class/net/$name" ] || refuse "no such interface: $name"
done
number=0
for name; do ip link set "$name" name new$((number++)); done
for ((number = 0; number < $#; number++)); do
    [ ! -e /sys/class/net/can$number ] || ip link set can$number down name "can$number-$1"
    ip link set new$number name can$number
done
