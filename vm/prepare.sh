#!/bin/bash
# Makes what the virtual machine boots: prepare.sh [KERNEL]. KERNEL is 5.10, 6.1, 6.12, newest or a
# Debian release that has it, and this machine's own release unless given. Prints the folder that
# holds the result, which is kept outside the checkout and made anew after a month.
set -eu -o pipefail
. "$(dirname "$0")/../scripts/common.sh"

case ${1-} in
    '') release=$(. /etc/os-release && echo "$VERSION_CODENAME") ;;
    5.10) release=bullseye ;;
    6.1) release=bookworm ;;
    6.12) release=trixie ;;
    newest) release=sid ;;
    -*) refuse "unknown word: $1" ;;
    *) release=$1 ;;
esac
[ $# -le 1 ] || refuse "unknown word: $2"
install_packages mmdebstrap qemu-system-x86 sudo iproute2 can-utils kmod cpio python3 python3-can >&2
vm=$cache/vm-$release
if [ -z "$(find "$vm/kernel.sh" -mtime -30 2>/dev/null)" ] || ! cmp -s vm/kernel.sh "$vm/kernel.sh"; then
    echo "Making the virtual machine in $vm, once a month: fetches Debian's $release kernel and" \
        "builds a driver for it, which takes a minute or more" >&2
    mirror=$(debian_mirror)
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    # The driver is built by the compiler, and for the headers, of the kernel's own release.
    run_as_root mmdebstrap --quiet --variant=essential --format=null --aptopt="$mirror_may_be_old" \
        --include=linux-headers-amd64,linux-source,make,gcc,xz-utils,kmod,cpio,busybox-static \
        --customize-hook="$PWD/vm/kernel.sh" --customize-hook="copy-out /vm/vmlinuz /vm/initrd '$work'" \
        "$release" /dev/null "deb $mirror $release main" >&2 ||
        { echo "the kernel of Debian's $release cannot be had here" >&2; exit 1; }
    mkdir -p "$vm" && rm -f "$vm/kernel.sh"
    cp "$work/vmlinuz" "$work/initrd" "$vm"
    cp vm/kernel.sh "$vm"  # last: it tells that all is there, and made like this
fi
echo "$vm"
