#!/bin/bash
# Makes the kernel and the initial file system of the virtual machine: prepare.sh [KERNEL]. KERNEL is
# 5.10, 6.1, 6.12, newest or a Debian release, this machine's own unless given. Prints the folder of the
# result, which is kept outside the checkout and made anew after a month.
set -eu -o pipefail
. "$(dirname "$0")/../scripts/common.sh"

[ $# -le 1 ] || refuse "unknown argument: $2"
if [ $# -eq 0 ]; then
    release=$(. /etc/os-release && echo "$VERSION_CODENAME")
else
    release=${releases[${1:-none}]-}
    [ -n "$release" ] || refuse "unknown kernel: $1"
fi
install_packages mmdebstrap qemu-system-x86 sudo iproute2 can-utils kmod cpio python3 python3-can >&2
vm=$cache/vm-$release
if [ -z "$(find "$vm/kernel.sh" -mtime -30 2>/dev/null)" ] || ! cmp -s vm/kernel.sh "$vm/kernel.sh"; then
    echo "Making the virtual machine in $vm, once a month: fetches Debian's $release kernel and" \
        "builds a driver for it, which takes a minute or more" >&2
    mirror=$(debian_mirror)
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    # The driver is built with the compiler and headers of the kernel's own release.
    run_as_root mmdebstrap --quiet --variant=essential --format=null --aptopt="$mirror_may_be_old" \
        --include=linux-headers-amd64,linux-source,make,gcc,xz-utils,kmod,cpio,busybox-static \
        --customize-hook="$PWD/vm/kernel.sh" --customize-hook="copy-out /vm/vmlinuz /vm/initrd '$work'" \
        "$release" /dev/null "deb $mirror $release main" >&2 ||
        { echo "the kernel of Debian's $release could not be fetched or built" >&2; exit 1; }
    mkdir -p "$vm" && rm -f "$vm/kernel.sh"
    cp "$work/vmlinuz" "$work/initrd" "$vm"
    cp vm/kernel.sh "$vm"  # last: it marks the result as complete
fi
echo "$vm"
