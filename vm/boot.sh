#!/bin/bash
# Boots the virtual machine, runs a command of the host in it as root, and passes on its output and
# exit status: boot.sh [--kernel KERNEL] SECONDS COMMAND [ARGUMENT...]. KERNEL is 5.10, 6.1, 6.12,
# newest or a Debian release, this machine's own unless given. The machine is ended after SECONDS; if
# it did not boot, it is tried once more. With VM_COUNTED=1 the guest's clock counts instructions.
#
# can0 to can3 are CAN FD controllers, can0 and can1 joined to one bus, can2 and can3 to another; can4
# and can5 are SJA1000, joined too. If the kernel has no driver for CAN FD (5.10), can0 and can1 are the
# SJA1000. An emulated SJA1000 queues four frames and its bus takes no time, so frames sent in a burst are
# lost; after a remote frame with a length it is out of step until the next boot.
set -eu -o pipefail
. "$(dirname "$0")/../scripts/common.sh"
kernel=()
if [ "${1-}" = --kernel ]; then
    [ $# -ge 2 ] || refuse "--kernel needs a kernel"
    kernel=("$2")
    shift 2
fi
[[ ${1-} =~ ^[0-9]+$ ]] || refuse "no number of seconds: ${1-}"
[ $# -ge 2 ] || refuse "no command"
vm=$(vm/prepare.sh "${kernel[@]}")
seconds=$1
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT
console=$work/console
install vm/init.sh "$work/init"
cp vm/run.sh "$work/run"
printf 'exec %s\n' "$(printf '%q ' "$@")" >"$work/command"
verdict="exit status ($RANDOM$RANDOM):" # nothing else prints this
echo "$verdict" >"$work/verdict"
(cat "$vm/initrd"; cd "$work" && printf '%s\n' init run command verdict | cpio -o -H newc --quiet | gzip) \
    >"$work/initrd"
if [ "${VM_COUNTED-}" = 1 ]; then
    machine=(-accel 'tcg,thread=single' -smp 1 -icount 'shift=0,sleep=off'
        -cpu 'qemu64,invtsc=on,xlevel=0x80000008')
    clock='tsc=reliable clocksource=tsc'
else
    machine=(-accel tcg -smp 2) clock=
fi
# Each bus joins different cards: the controllers of one card share its interrupt line, which QEMU clears
# for one while the other still needs service.
card=ctucan_pci,canbus0=bus0,canbus1=bus1
for _ in first again; do
    timeout --foreground "$seconds" qemu-system-x86_64 -M q35 "${machine[@]}" -m 1024 -nographic \
        -no-reboot -nic none -kernel "$vm/vmlinuz" -initrd "$work/initrd" \
        -append "console=ttyS0 quiet panic=-1 rdinit=/init $clock" \
        -virtfs local,path=/,mount_tag=host,security_model=none,readonly=on,multidevs=remap \
        -object can-bus,id=bus0 -object can-bus,id=bus1 -device "$card" -device "$card" \
        -object can-bus,id=bus2 -device kvaser_pci,canbus=bus2 -device kvaser_pci,canbus=bus2 \
        </dev/null 2>&1 | sed -u 's/\r//; s/\x1bc//g; s/\x1b\[[0-9;?]*[a-zA-Z]//g' | tee "$console" ||
        echo "the virtual machine failed, or was ended after $seconds s"
    ! grep -q 'machine is up' "$console" || break
done
grep -qxF "$verdict 0" "$console"
