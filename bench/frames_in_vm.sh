#!/bin/bash
# Runs the benchmark in the virtual machine, on the kernel's own CAN path: a pair of virtual CAN
# interfaces takes the names can0 and can1. frames_in_vm.sh PROGRAM
set -eu
. "$(dirname "$0")/../scripts/common.sh"
[[ $# -eq 1 && -x $1 ]] || refuse "no program: $*"
cd "$(mktemp -d)"
for device in can0 can1 can2 can3; do ip link set "$device" name "unused-$device"; done
ip link add can0 type vxcan peer name can1
for device in can0 can1; do ip link set "$device" mtu 72 up; done
"$1" --benchmark_repetitions=3 --benchmark_min_time=0.001 bench.json
cat bench.json
