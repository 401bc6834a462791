#!/bin/bash
# Shows frames travelling between two adapters through the library.
#
# demo.sh             can0 and can1 of a simulated bus; needs no adapter
# demo.sh --real A B  the machine's interfaces canA and canB, joined by a cable
# demo.sh --vm        two emulated CAN FD controllers in a virtual machine, on a real kernel
set -eu
. "$(dirname "$0")/common.sh"

mode=${1-}
case $mode in
    '' | --vm) [ $# -le 1 ] || refuse "unknown argument: $2" ;;
    --real) [ $# -eq 3 ] || refuse "--real needs the numbers of two interfaces" ;;
    *) refuse "unknown argument: $mode" ;;
esac

install_packages "${build_packages[@]}"
cmake -S . -B build/release -G Ninja >/dev/null
cmake --build build/release
echo
if [ "$mode" = --real ]; then
    install_packages sudo iproute2
    exec build/release/exchange "$2" "$3"
fi
if [ "$mode" = --vm ]; then
    echo "Installing QEMU if it is missing, then booting a virtual machine: half a minute each"
    exec vm/boot.sh 120 "$PWD/build/release/exchange"
fi
exec build/release/simcan/simcan --own build/release/exchange
