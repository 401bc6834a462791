#!/bin/bash
# Runs in the virtual machine: the library on a real CAN stack, with real controllers, sudo, ip and
# can-utils. inside.sh BUILD: the folder that holds the build to test.
set -u
build=$1
root=$(dirname "$0")/../..
cd "$(mktemp -d)" || exit 1
failed=0

# check NAME COMMAND...: runs it and tells whether it succeeded, with its output when not.
check() {
    if "${@:2}" >check.out 2>&1; then
        echo "ok: $1"
    else
        echo "FAILED: $1"
        sed 's/^/    /' check.out
        failed=$((failed + 1))
    fi
}
holds() { grep -qF -- "$2" "$1" || { echo "no '$2' in:"; cat "$1"; return 1; }; }
refuses() { ! as_user sudo -n "$@" 2>refused && holds refused 'password is required'; }

# The build where any user can read it; and a sudo for root that takes no second to think.
mkdir -p /opt/corvel/fast
cp "$build"/{exchange,monitor,send,gateway,bus_test,libtn_corvel.so,libpelid_log.so} /opt/corvel
cp -r "$build/simcan" /opt/corvel
export LD_LIBRARY_PATH=/opt/corvel PATH=/opt/corvel:$PATH
printf '#!/bin/sh\nexec "$@"\n' >/opt/corvel/fast/sudo
chmod -R a+rx /opt/corvel

# One user, in a group that has no rights yet.
groupadd corvel && useradd -M -G corvel tester
as_user() { setpriv --reuid tester --regid tester --init-groups env "$@" </dev/null; }

uname -srv

# listen LOG COMMAND...: starts a program in the background, once it listens.
listen() {
    "${@:2}" >"$1" 2>"$1.err" &
    listener=$!
    for _ in $(seq 50); do
        sleep 0.1
        grep -qE '^ +can[01] ' /proc/net/can/rcvlist_all && return
    done
    echo "$2 does not listen"
}
stop_listening() { sleep 0.5; kill -TERM "$listener"; wait "$listener"; }
settings() {
    ip -d link show can0 | tee settings | sed 's/^/    /'
    for text; do check "can0 has $text" holds settings "$text"; done
}
expect() { # NAME FRAMES...: have arrived
    printf '%s\n' "${@:2}" >expected
    check "$1" diff -u expected arrived
}

# facts_of NUMBER COMMAND...: so many tests of a bus, which hold on every kind; COMMAND runs them.
facts_of() {
    "${@:2}" >facts 2>/dev/null
    grep -E 'burst|came back' facts | sed 's/^/    /'
    check "$1 tests of the bus" holds facts "[  PASSED  ] $1 tests."
}
removal_of_the_adapter() {
    CORVEL_TEST_REMOVE=$1 timeout 90 bus_test --gtest_filter='*ACut*' >facts 2>/dev/null
    grep 'came back' facts | sed 's/^/    /'
    check 'a waiting read, and the adapter is removed' holds facts '[  PASSED  ] 1 test.'
}

permissions() {
    as_user timeout 30 setsid /opt/corvel/exchange >no-rights 2>&1
    check 'without rights: status 5, no prompt' holds no-rights 'could not be initialised (status 5)'
    install -m 440 "$root/packaging/sudoers.d/corvel" /etc/sudoers.d/corvel
    check 'the sudoers file is well-formed' visudo -cf /etc/sudoers.d/corvel
    check 'with the sudoers file: exchange as an ordinary user' as_user timeout 90 /opt/corvel/exchange
    while IFS='|' read -r what words; do check "refused: $what" refuses $words; done <<'END'
another interface|ip link set lo down
more words|ip link set can0 down up
another namespace|ip link set can0 down netns 1
another command|ip link delete can0
a semicolon|ip link set can0;reboot down
another queue length|ip link set can0 txqueuelen 10001
a rate that is none|ip link set can0 up type can bitrate 5e5 sample-point 0.875 restart-ms 0
END
    check 'refused: a new line' refuses ip link set can0 $'down\nnetns'

    # ip loads link_can.so from a folder that IP_LIB_DIR names; nothing may let a user name it.
    echo '__attribute__((constructor)) static void run(void) { __builtin_trap(); }' >link_can.c
    cc -shared -o link_can.so link_can.c && chmod a+rx . link_can.so
    echo 'Defaults setenv, !env_reset' >/etc/sudoers.d/zz
    up='ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0'
    check 'the trap works' bash -c '! IP_LIB_DIR=. $@ 2>/dev/null' trap $up
    check 'no code of the user in ip' as_user IP_LIB_DIR="$PWD" sudo -n $up
    as_user sudo -n IP_LIB_DIR="$PWD" $up 2>refused
    check 'nor by a word' holds refused 'not allowed to set'
    ip link set can0 down
}

link_settings() {
    listen log monitor 0 500 2000
    settings ,UP 'mtu 72' 'qlen 10000' '<FD>' 'bitrate 500000 sample-point 0.750' 'dbitrate 2000000' \
        'restart-ms 0'
    stop_listening
    settings 'state DOWN'
    listen log monitor 0 250
    settings ,UP 'qlen 2000' 'bitrate 250000 sample-point 0.875' 'restart-ms 0'
    stop_listening
}

frames_against_can_utils() {
    frames='123#112233 7FF# 000#0102030405060708 00000123#AA 1FFFFFFF#FFEE 7FF#R2 001ABCDE#R'
    fd_frames='123##1112233 7FF##1 001ABCDE##10102030405060708'
    fd_received='123##5112233 7FF##5 001ABCDE##50102030405060708'  # the kernel marks them as CAN FD
    fd_as_classic='123#112233 7FF# 001ABCDE#0102030405060708'
    # Each lists what arrived, without times.
    from_can_utils() { # MODE FRAMES...: can1 sends with cansend, the library receives on can0
        listen log monitor 0 500 $1
        for frame in ${*:2}; do cansend can1 "$frame"; done
        stop_listening
        sed 's/.* //' log >arrived
    }
    to_can_utils() { # MODE FRAMES...: the library sends on can0, can1 receives with candump
        listen log candump -L can1
        for frame in ${*:2}; do send 0 "$frame" 1 0 500 $1 2>/dev/null; done
        stop_listening
        sed 's/.* //' log >arrived
    }
    ip link set can1 up type can bitrate 500000
    from_can_utils '' $frames
    expect 'cansend to the library, classic' $frames
    to_can_utils '' $frames
    expect 'the library to candump, classic' $frames
    ip link set can1 down
    ip link set can1 up type can bitrate 500000 dbitrate 2000000 fd on
    from_can_utils 2000 $fd_frames $frames
    expect 'cansend to the library, CAN FD and classic' $fd_as_classic $frames
    to_can_utils 2000 $fd_as_classic
    expect 'the library to candump, CAN FD' $fd_received
    from_can_utils 2000 123##1112233445566778899AABBCC 7FF#1122
    expect '12 bytes are dropped, the next frame is not' 7FF#1122
    check '12 bytes are reported' holds log.err 'CAN FD frame dropped, len above 8:12'
    ip link set can1 down
}

can_fd_controllers() {
    facts_of 5 timeout 90 bus_test
    removal_of_the_adapter 'echo 1 >/sys/class/net/can0/device/remove'
}

# take_over A B: these become can0 and can1.
take_over() {
    ip link set "$1" name new0
    ip link set "$2" name new1
    for old in can0 can1; do
        [ ! -e /sys/class/net/$old ] || ip link set $old down name "$old-$1"
    done
    ip link set new0 name can0
    ip link set new1 name can1
}

# Two SJA1000.
classic_controllers() {
    [ ! -e /sys/class/net/can4 ] || take_over can4 can5
    monitor 0 500 2000 >log 2>&1
    check 'CAN FD: status 5' holds log 'could not be configured (status 5)'
    check 'and why' holds log 'not supported'
    settings 'state DOWN'
    facts_of 4 env CORVEL_CLASSIC=1 timeout 90 bus_test --gtest_filter='-*ABurst*'
    removal_of_the_adapter 'echo 1 >/sys/class/net/can0/device/remove'
}

# Two emulated adapters on a USB of the kernel's own; `pull` pulls one out.
usb_adapters() {
    mkfifo pull && exec 9<>pull
    python3 "$root/platform/vm/usb_adapters.py" A1 B2 <pull &
    found() { ls /sys/bus/usb/drivers/gs_usb/*/net; }
    for _ in $(seq 100); do [ "$(found 2>/dev/null | grep -c ^can)" -lt 2 ] || break; sleep 0.1; done
    take_over $(found | grep ^can)
    facts_of 5 timeout 90 bus_test

    send 0 123#11 400 2>log &
    sleep 2
    settings 'state ERROR-PASSIVE'
    kill %send && wait %send
    check 'nobody acknowledges: a write waits when the buffer is full' grep -qE '^2[0-9]{2} of 400' log
    ip link set can1 up type can bitrate 250000
    send 0 123#11 400 2>log &
    sleep 2
    settings 'state BUS-OFF'
    kill %send && wait %send
    ip link set can1 down
    check 'after bus-off, initialised again' bus_test --gtest_filter='*InOrder'

    removal_of_the_adapter 'echo A1 >&9'
}

ends() {
    while IFS='|' read -r devices signals program; do
        for signal in $signals; do
            env --default-signal timeout 20 $program >log 2>&1 &
            for _ in $(seq 100); do [ "$(grep -c Successfully log)" -lt "$devices" ] || break; sleep 0.1; done
            kill "-$signal" $! && wait $!
            check "released after SIG$signal: $program" test "$(cat /sys/class/net/can[01]/operstate)" = $'down\ndown'
        done
    done <<END
1|INT TERM HUP|monitor 0
1|INT TERM HUP|send 0 123# 9999 5
2|INT TERM HUP|gateway 0 1
2|INT TERM HUP|exchange
1|HUP|python3 $root/examples/monitor.py 0
END
    listen log monitor 0
    kill -KILL "$listener"
    ! monitor 0 >log 2>&1
    check 'a link left up: status 5' holds log 'could not be configured (status 5)'
    check 'and why' holds log 'Device or resource busy'
    ip link set can0 down
}

virtual_interfaces() {
    on_pair() { as_user timeout 90 /opt/corvel/simcan/simcan --kernel "$@" 2>/dev/null; }
    check 'exchange' on_pair exchange
    facts_of 5 on_pair bus_test
    on_pair bash -c 'ip link set can1 up; monitor 0 & candump -L can1 &
        until [ $(grep -cE "^ +can[01] " /proc/net/can/rcvlist_all) = 2 ]; do sleep 0.1; done; cansend can1 123#1122
        send 0 7FF#R2; kill -TERM %1 %2; wait' >log
    sed -n 's/^([0-9.]*) //p' log | sort >arrived
    expect 'candump and cansend, monitor and send' 'can0 123#1122' 'can0 7FF#R2' 'can1 123#1122' 'can1 7FF#R2'
    sysctl -q user.max_user_namespaces=0
    as_user /opt/corvel/simcan/simcan --kernel true 2>refused
    check 'without the right: status 2 and a message' test "$?$(cat refused)" = \
        '2simcan: this user may make no network namespace; as root: /opt/corvel/simcan/simcan --kernel true'
    rmmod vxcan
    /opt/corvel/simcan/simcan --kernel true 2>refused
    check 'without the module: status 2 and a message' test "$?$(cat refused)" = \
        '2simcan: this kernel has no virtual CAN interfaces (module vxcan)'
}

section() {
    echo "--- ${1//_/ }"
    "$1"
}
if [ -e /sys/class/net/can3 ]; then
    section permissions
    export PATH=/opt/corvel/fast:$PATH
    section link_settings
    section frames_against_can_utils
    section ends
    section can_fd_controllers
    last=usb_adapters
else
    echo "LEFT OUT: CAN FD controllers, for which this kernel has no driver; USB adapters, which stop it"
    export PATH=/opt/corvel/fast:$PATH
fi
section virtual_interfaces
section classic_controllers
${last:+section $last}

echo "$failed failed"
exit "$failed"
