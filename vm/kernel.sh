#!/bin/sh
# Run by prepare.sh when a bare root of a Debian release stands: kernel.sh ROOT. Leaves in ROOT/vm
# that release's kernel (vmlinuz), and an initial file system but for its init, with the modules for
# CAN and one more that Debian's kernels lack: the driver for the emulated CAN FD controllers.
set -eu
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
case ${1-} in
    -h | --help) usage && exit ;;
    /*) ;;
    *) echo "kernel.sh: no root of a release: ${1-}" >&2 && usage >&2 && exit 2 ;;
esac
if [ "$1" != / ]; then
    mkdir "$1/vm"
    cp "$0" "$1/vm/kernel.sh"
    cd "$1/vm"
    export APT_CONFIG="$MMDEBSTRAP_APT_CONFIG"
    # shellcheck disable=SC2046 # several packages
    apt-get -qq -o APT::Sandbox::User=root download $(apt-cache depends --recurse --important \
        linux-image-amd64 | grep -E '^linux-(image|binary|modules)-[0-9]')
    exec chroot "$1" sh /vm/kernel.sh /
fi

cd /vm
for package in *.deb; do dpkg -x "$package" unpacked; done
cp "$(find unpacked -name 'vmlinuz*' -type f)" vmlinuz
modules=$(find unpacked -path '*/lib/modules/*' -prune)
version=${modules##*/}
mkdir -p "/lib/modules/$version"
cp -r "$modules"/. "/lib/modules/$version"

# The driver's condition is mended: when the last frame waiting is the last of its quota, it both ends
# its turn and asks for another, and the kernel may panic.
if tar -xJf /usr/src/linux-source-*.tar.xz --strip-components=4 --wildcards \
    '*/drivers/net/can/ctucanfd' 2>/dev/null; then
    sed -i 's/if (!framecnt && res != 0/& \&\& work_done < quota/' ctucanfd/ctucanfd_base.c
    grep -qF '&& work_done < quota) {' ctucanfd/ctucanfd_base.c ||
        { echo "the driver's source has changed: does it still need mending?" >&2; exit 1; }
    make -s -C "/usr/src/linux-headers-$version" M=/vm/ctucanfd \
        CONFIG_CAN_CTUCANFD=m CONFIG_CAN_CTUCANFD_PCI=m modules
    cp ctucanfd/*.ko "/lib/modules/$version"
    driver=ctucanfd_pci
else
    echo "kernel $version has no driver for the emulated CAN FD controllers" >&2
fi
depmod "$version"

# The modules in loading order, numbered.
mkdir -p files/bin files/modules
cp "$(command -v busybox)" files/bin
for module in virtio_pci 9pnet_virtio 9p overlay can-raw can-dev vxcan ${driver-} kvaser_pci vhci-hcd gs_usb; do
    modprobe -S "$version" --show-depends "$module" >>found
done
awk '$1 == "insmod" && !seen[$2]++ { print $2 }' found | nl -nrz -w3 | while read -r number file; do
    copy=files/modules/$number-${file##*/}
    cp "$file" "$copy"
    case $copy in *.xz) xz -d "$copy" ;; esac
done
cd files
find . | cpio -o -H newc --quiet | gzip -1 >/vm/initrd
