#!/bin/bash
# Runs in the virtual machine: the library on a real CAN stack, with real controllers, sudo, ip and
# can-utils. Ends at the first surprise. inside.sh BUILD: the folder that holds the build to test.
set -eEu -o pipefail
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
root=$(realpath "$(dirname "$0")/../..")
cd "$(mktemp -d)"
uname -srv
eventually() { for _ in $(seq 100); do ! "$@" || return 0; sleep 0.1; done; "$@"; }
holds() { # FILE TEXTS...
    for text in "${@:2}"; do grep -qF -- "$text" "$1" || { echo "no '$text' in:"; cat "$1"; return 1; }; done
}

# The build where any user can read it; and a sudo for root that takes no second to think.
mkdir -p /opt/corvel/fast
cp "$1"/{exchange,monitor,send,gateway,bus_test,libtn_corvel.so,libpelid_log.so} /opt/corvel
cp -r "$1/simcan" /opt/corvel
export LD_LIBRARY_PATH=/opt/corvel PATH=/opt/corvel/fast:/opt/corvel:$PATH
printf '#!/bin/sh\nexec "$@"\n' >/opt/corvel/fast/sudo
chmod -R a+rx /opt/corvel

# One user, in a group that has no rights yet.
groupadd corvel && useradd -M -G corvel tester
as_user() { setpriv --reuid tester --regid tester --init-groups env "$@" </dev/null; }
refuses() { ! as_user sudo -n "$@" 2>refused && holds refused 'password is required'; }

tests() { # COMMAND...: runs tests of the bus
    "$@" >out 2>/dev/null || { cat out; return 1; }
    grep -E 'came back|suite ran|expected' out
}
settings() { # TEXTS...: of can0
    ip -d link show can0 >settings
    holds settings "$@"
}

permissions() {
    local PATH=${PATH#*:}  # with the real sudo
    ! as_user timeout 30 setsid exchange >no-rights 2>&1 || return 1  # nor does it ask for a password
    holds no-rights 'could not be initialised (status 5)'
    install -m 440 "$root/packaging/sudoers.d/corvel" /etc/sudoers.d/corvel
    visudo -cf /etc/sudoers.d/corvel
    tests as_user exchange
    for words in 'set lo down' 'set can0 down up' 'set can0 down netns 1' 'set can0;reboot down' \
        'delete can0' 'set can0 txqueuelen 10001' \
        'set can0 up type can bitrate 5e5 sample-point 0.875 restart-ms 0'; do
        refuses ip link $words
    done
    refuses ip link set can0 $'down\nnetns'

    # ip loads link_can.so from a folder that IP_LIB_DIR names; nothing may let a user name it.
    echo '__attribute__((constructor)) static void run(void) { __builtin_trap(); }' >link_can.c
    cc -shared -o link_can.so link_can.c && chmod a+rx . link_can.so
    echo 'Defaults setenv, !env_reset' >/etc/sudoers.d/zz
    up='ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0'
    ! IP_LIB_DIR=. $up 2>/dev/null || return 1
    as_user IP_LIB_DIR="$PWD" sudo -n $up
    ! as_user sudo -n IP_LIB_DIR="$PWD" $up 2>refused || return 1
    holds refused 'not allowed to set'
    ip link set can0 down
}

# pass_frames MODE SENT ANSWERED ARRIVED SETTINGS...: cansend on can1 to monitor on can0, then send
# from there; ARRIVED is what monitor printed, and after it candump, which sees both.
pass_frames() {
    candump -L can1 >dumped &
    monitor 0 500 $1 >received 2>log &
    eventually grep -q Successfully log
    settings ,UP 'restart-ms 0' "${@:5}"
    for frame in $2; do cansend can1 $frame; done
    sleep 0.5
    kill %monitor && wait %monitor
    settings 'state DOWN'
    for frame in $3; do send 0 $frame 1 0 500 $1 2>/dev/null; done
    sleep 0.5
    kill %candump && wait %candump || true
    sed 's/.* //' received dumped | diff <(printf '%s\n' $4) -
}
frames_against_can_utils() {
    frames='123#112233 7FF# 000#0102030405060708 00000123#AA 1FFFFFFF#FFEE 7FF#R2 001ABCDE#R'
    ip link set can1 up type can bitrate 500000
    pass_frames '' "$frames" "$frames" "$frames $frames $frames" \
        'qlen 2000' 'bitrate 500000 sample-point 0.875'
    ip link set can1 down
    ip link set can1 up type can bitrate 500000 dbitrate 2000000 fd on
    # Of 12 bytes nothing arrives. The kernel adds 4 to the flags, which marks them as CAN FD.
    pass_frames 2000 '123##1112233 7FF##1 123##1112233445566778899AABBCC 7FF#R2 000#01' \
        '123#112233 7FF# 001ABCDE#0102030405060708' \
        '123#112233 7FF# 7FF#R2 000#01
         123##5112233 7FF##5 123##5112233445566778899AABBCC 7FF#R2 000#01
         123##5112233 7FF##5 001ABCDE##50102030405060708' \
        'mtu 72' 'qlen 10000' '<FD>' 'bitrate 500000 sample-point 0.750' 'dbitrate 2000000'
    ip link set can1 down
}

ends() {
    opened() { [ "$(grep -c Successfully log)" -ge "$1" ]; }
    for program in '1 monitor 0' '1 send 0 123# 9999 5' '2 gateway 0 1' '2 exchange' \
        "1 python3 $root/examples/monitor.py 0"; do # with the number of its devices
        for signal in INT TERM HUP; do
            env --default-signal timeout 20 ${program#* } >log 2>&1 &
            eventually opened "${program%% *}"
            kill "-$signal" $!
            wait $! || true
            [ "$(cat /sys/class/net/can[01]/operstate)" = $'down\ndown' ]
        done
    done
}

can_fd_controllers() {
    tests bus_test
    CORVEL_TEST_REMOVE='echo 1 >/sys/class/net/can0/device/remove' tests bus_test --gtest_filter='*ACut*'
}

take_over() { # A B: these become can0 and can1
    ip link set "$1" name new0
    ip link set "$2" name new1
    for number in 0 1; do
        [ ! -e /sys/class/net/can$number ] || ip link set can$number down name "can$number-$1"
        ip link set new$number name can$number
    done
}

# Two SJA1000.
classic_controllers() {
    [ ! -e /sys/class/net/can4 ] || take_over can4 can5
    ! monitor 0 500 2000 >log 2>&1 || return 1
    holds log 'could not be configured (status 5)' 'not supported'
    CORVEL_CLASSIC=1 tests bus_test
    CORVEL_TEST_REMOVE='echo 1 >/sys/class/net/can0/device/remove' tests bus_test --gtest_filter='*ACut*'
}

# Two emulated adapters on a USB of the kernel's own; `pull` pulls one out.
usb_adapters() {
    mkfifo pull && exec 9<>pull
    python3 "$root/platform/vm/usb_adapters.py" A1 B2 <pull &
    adapters() { ls /sys/bus/usb/drivers/gs_usb/*/net 2>/dev/null | grep ^can; }
    both() { [ "$(adapters | wc -l)" = 2 ]; }
    eventually both
    take_over $(adapters)
    tests bus_test
    CORVEL_TEST_REMOVE='echo A1 >&9' tests bus_test --gtest_filter='*ACut*'
}

virtual_interfaces() {
    on_pair() { as_user /opt/corvel/simcan/simcan --kernel "$@"; }
    tests on_pair exchange
    tests on_pair bus_test
    sysctl -q user.max_user_namespaces=0
    ! on_pair true 2>log || return 1
    holds log 'simcan: this user may make no network namespace; as root: /opt/corvel/simcan/simcan --kernel true'
}

sections='permissions frames_against_can_utils ends can_fd_controllers virtual_interfaces
    classic_controllers usb_adapters'
if [ ! -e /sys/class/net/can3 ]; then
    echo "LEFT OUT: CAN FD controllers, for which this kernel has no driver; USB adapters, which stop it"
    sections='virtual_interfaces classic_controllers'
fi
for section in $sections; do
    echo "--- ${section//_/ }"
    $section
done
