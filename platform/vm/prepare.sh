#!/bin/bash
# Makes what the virtual machine boots: Debian's kernel, its CAN modules, a driver for the emulated
# CAN FD controllers, and an initial file system but for its init. Prints the folder that holds
# them, which is kept for later runs, outside the checkout and one per kernel version.
set -eu
. "$(dirname "$0")/../../scripts/common.sh"

install_packages qemu-system-x86 sudo iproute2 can-utils kmod cpio >&2
current_image() {
    apt-cache depends linux-image-amd64 2>/dev/null | sed -n 's/.*Depends: \(linux-image-6.*\)/\1/p'
}
image=$(current_image)
[ -n "$image" ] || { run_as_root apt-get -qq update >&2 && image=$(current_image); }
[ -n "$image" ] || { echo "apt knows no linux-image-amd64" >&2; exit 1; }
version=${image#linux-image-}
vm=${XDG_CACHE_HOME:-${HOME:-/var/tmp}/.cache}/tn_corvel/$version
if ! cmp -s "$0" "$vm/prepare.sh"; then
    echo "Preparing the virtual machine in $vm" >&2
    install_packages busybox-static make gcc xz-utils linux-source-6.1 "linux-headers-$version" >&2
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    (cd "$work" && apt-get -qq download "$image") >&2
    dpkg -x "$work"/linux-image-*.deb "$work/root"

    # Debian's kernel leaves this driver out. Its condition is mended: when the last frame waiting
    # is the last of its quota, it both ends its turn and asks for another, and the kernel may panic.
    tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$work" --strip-components=4 \
        linux-source-6.1/drivers/net/can/ctucanfd
    driver=$work/ctucanfd/ctucanfd_base.c
    sed -i 's/if (!framecnt && res != 0/& \&\& work_done < quota/' "$driver"
    grep -qF '&& work_done < quota) {' "$driver" ||
        echo "the driver's source has changed: does it still need mending?" >&2
    make -s -C "/usr/src/linux-headers-$version" M="$work/ctucanfd" \
        CONFIG_CAN_CTUCANFD=m CONFIG_CAN_CTUCANFD_PCI=m modules >&2
    modules=$work/root/lib/modules/$version
    [ -d "$modules" ] || modules=$work/root/usr/lib/modules/$version
    cp "$work"/ctucanfd/*.ko "$modules"
    depmod -b "${modules%/lib/modules/*}" "$version"

    # The modules in loading order, numbered.
    mkdir -p "$work/initrd/bin" "$work/initrd/modules"
    cp /bin/busybox "$work/initrd/bin"
    for module in virtio_pci 9pnet_virtio 9p overlay can-raw can-dev vxcan ctucanfd_pci; do
        modprobe -d "${modules%/lib/modules/*}" -S "$version" --show-depends "$module"
    done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' | nl -nrz -w3 |
        while read -r number file; do cp "$file" "$work/initrd/modules/$number-${file##*/}"; done
    mkdir -p "$vm" && rm -f "$vm/prepare.sh"
    cp "$work/root/boot/vmlinuz-$version" "$vm/vmlinuz"
    (cd "$work/initrd" && find . | cpio -o -H newc --quiet | gzip -1) >"$vm/initrd"
    cp "$0" "$vm"  # last: it tells that all is there, and made like this
fi
echo "$vm"
