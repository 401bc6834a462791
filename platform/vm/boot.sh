#!/bin/bash
# Boots the virtual machine, runs a command of the host in it as root, and passes on its output and
# exit status: boot.sh SECONDS COMMAND [ARGUMENT...]. Whatever hangs is ended after SECONDS. With
# VM_COUNTED=1 the guest's clock counts instructions.
set -eu -o pipefail
here=$(cd "$(dirname "$0")" && pwd)
vm=$("$here/prepare.sh")
seconds=$1
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
console=$work/console
cp "$here/init" "$here/run" "$work"
printf 'exec %s\n' "$(printf '%q ' "$@")" >"$work/command"
(cat "$vm/initrd"; cd "$work" && printf '%s\n' init run command | cpio -o -H newc --quiet | gzip) \
    >"$work/initrd"
if [ "${VM_COUNTED-}" = 1 ]; then
    machine='-accel tcg,thread=single -smp 1 -icount shift=0,sleep=off
        -cpu qemu64,invtsc=on,xlevel=0x80000008'
    clock='tsc=reliable clocksource=tsc'
else
    machine='-accel tcg -smp 2' clock=
fi
# Two cards of two controllers. The controllers of one card share its interrupt line, which QEMU
# clears for one although the other still asks for service; so each bus joins different cards.
card=ctucan_pci,canbus0=bus0,canbus1=bus1
timeout "$seconds" qemu-system-x86_64 -M q35 $machine -m 1024 -nographic -no-reboot -nic none \
    -kernel "$vm/vmlinuz" -initrd "$work/initrd" \
    -append "console=ttyS0 quiet panic=-1 rdinit=/init $clock" \
    -virtfs local,path=/,mount_tag=host,security_model=none,readonly=on,multidevs=remap \
    -object can-bus,id=bus0 -object can-bus,id=bus1 -device "$card" -device "$card" \
    </dev/null 2>&1 | sed -u 's/\r//; s/\x1bc//g; s/\x1b\[[0-9;?]*[a-zA-Z]//g' | tee "$console" ||
    echo "the virtual machine failed, or was ended after $seconds s"
grep -q '^exit status: 0$' "$console"
