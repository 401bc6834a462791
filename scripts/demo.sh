#!/bin/sh
# Shows frames travelling between two adapters through the library.
#
# demo.sh             can0 and can1 of a simulated bus; needs no adapter
# demo.sh --real A B  the machine's interfaces canA and canB, joined by a cable
# demo.sh --vm        two emulated CAN FD controllers in a virtual machine, on a real kernel
set -eu
. "$(dirname "$0")/common.sh"

case "$#${1-}" in
    0 | 1--vm | 3--real) ;;
    *) sed -n '2,6s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
esac

install_packages $build_packages
cmake -S . -B build/release -G Ninja >/dev/null
cmake --build build/release
echo
if [ "${1-}" = --real ]; then
    install_packages sudo iproute2
    exec build/release/exchange "$2" "$3"
fi
if [ "${1-}" = --vm ]; then
    exec platform/vm/boot.sh 120 "$PWD/build/release/exchange"
fi
exec build/release/simcan/simcan --own build/release/exchange
