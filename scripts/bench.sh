#!/bin/bash
# Measures what a frame costs through the library, against the bare system calls.
#
# bench.sh       on the simulated bus, in nanoseconds; the table also goes to build/bench.json
# bench.sh --vm  on a kernel's CAN path, in a virtual machine whose clock counts instructions
set -eu
. "$(dirname "$0")/common.sh"

[ "${1-}" = --vm ] || takes_no_arguments "$@"
[ $# -le 1 ] || refuse "unknown argument: $2"
install_packages "${build_packages[@]}" libbenchmark-dev
cmake -S . -B build/release -G Ninja -DCORVEL_BENCH=ON >/dev/null
cmake --build build/release
if [ $# -eq 1 ]; then
    VM_COUNTED=1 exec vm/boot.sh 300 "$PWD/bench/frames_in_vm.sh" "$PWD/build/release/frames"
fi
SIMCAN='can0 can1 can2:1 can3:1' exec build/release/simcan/simcan --own build/release/frames \
    --benchmark_repetitions=15 --benchmark_enable_random_interleaving=true \
    --benchmark_min_time=0.02 build/bench.json
