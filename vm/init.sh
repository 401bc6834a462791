#!/bin/busybox sh
# First program in the virtual machine: lays a file system in memory over the host's, which is mounted
# read-only, and continues with `run` there.
bb=/bin/busybox
$bb mkdir -p /dev /proc /sys /host /memory /root
$bb mount -t devtmpfs dev /dev
$bb mount -t proc proc /proc
$bb mount -t sysfs sys /sys
for module in /modules/*; do $bb insmod "$module"; done
# The first CAN FD card's controllers are can0 and can2, the second's can1 and can3.
if [ -e /sys/class/net/can3 ]; then
    $bb ip link set can1 name second
    $bb ip link set can2 name can1
    $bb ip link set second name can2
fi
$bb mount -t 9p -o trans=virtio,version=9p2000.L,msize=1048576,cache=loose,ro host /host
$bb mount -t tmpfs memory /memory
$bb mkdir /memory/upper /memory/work
$bb mount -t overlay -o lowerdir=/host,upperdir=/memory/upper,workdir=/memory/work overlay /root

# Accounts without the host's passwords.
etc=/root/etc
$bb rm -rf $etc/shadow $etc/gshadow $etc/sudoers $etc/sudoers.d
$bb mkdir $etc/sudoers.d
$bb sed 's/:.*/:*:19000::::::/' $etc/passwd >$etc/shadow
$bb printf 'root ALL=(ALL) ALL\n@includedir /etc/sudoers.d\n' >$etc/sudoers
$bb chmod 440 $etc/sudoers

# A new root rather than a chroot, in which users could not make namespaces.
$bb mount -t tmpfs tmpfs /root/run
$bb cp $bb /run /command /verdict /root/run
for kind in proc sys dev; do $bb mount -o move /$kind /root/$kind; done
exec $bb switch_root /root /run/busybox sh /run/run
