#!/bin/bash
# The library on a kernel's CAN stack in the virtual machine, with sudo, ip and can-utils; stops at the
# first failure. in_vm.sh BUILD: the folder that holds the build to test.
# shellcheck disable=SC2086 # arguments of several words
set -eEu -o pipefail
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
. "$(dirname "$0")/../scripts/common.sh"
[[ $# -eq 1 && -x $1/bus_test ]] || refuse "no build with tests: $*"
root=$PWD
cd "$(mktemp -d)"
uname -srv
holds() { # FILE TEXTS...
    for text in "${@:2}"; do grep -qF -- "$text" "$1" || { echo "no '$text' in:"; cat "$1"; return 1; }; done
}

# The build in a folder that any user can read, and a sudo for root that adds no delay.
mkdir -p /opt/corvel/fast
cp "$1"/{exchange,monitor,gateway,bus_test,libtn_corvel.so,libpelid_log.so} /opt/corvel
cp -r "$1/simcan" "$root"/{python,scripts,tests} /opt/corvel
export LD_LIBRARY_PATH=/opt/corvel PYTHONPATH=/opt/corvel/python PYTHONDONTWRITEBYTECODE=1
PATH=/opt/corvel/fast:/opt/corvel:$PATH
printf '#!/bin/sh\nexec "$@"\n' >/opt/corvel/fast/sudo; chmod -R a+rx /opt/corvel

groupadd corvel && useradd -M -G corvel tester # a user in a group that has no rights yet
as_user() { setpriv --reuid tester --regid tester --init-groups env "$@" </dev/null; }
refuses() { fails as_user sudo -n "$@" 2>refused && holds refused 'password is required'; }

tests() { # COMMAND...: runs tests of the bus
    "$@" >out 2>/dev/null || { cat out; return 1; }
    grep -E 'PASSED  ] [1-9]|expected|equal' out
}
python_tests() { # NUMBER WORDS COMMAND...: as many tests, from Python
    "${@:3}" /usr/bin/python3 /opt/corvel/tests/python_test.py $2 >out 2>&1 || { cat out; return 1; }
    holds out "Ran $1 test"
}
permissions() {
    local PATH=${PATH#*:}  # with the real sudo
    fails as_user timeout 30 setsid exchange >no-rights 2>&1  # nor does it ask for a password
    holds no-rights 'could not be initialised (status 5)'
    install -m 440 "$root/examples/etc/sudoers.d/corvel" /etc/sudoers.d/corvel
    visudo -cf /etc/sudoers.d/corvel
    tests as_user exchange
    for words in 'set lo down' 'set can0 down up' 'set can0 down netns 1' 'set can0;reboot down' 'delete can0' \
        'set can0 txqueuelen 10001' 'set can0 up type can bitrate 5e5 sample-point 0.875 restart-ms 0'; do
        refuses ip link $words
    done
    refuses ip link set can0 $'down\nnetns'
}

# Another pair of interfaces, with constant traffic.
other_pair() {
    ip link add can8 up type vxcan peer name can9
    ip link set can9 up
    cangen can8 -g 2 -I 7AB -L 4 -D FFFFFFFF -i &
}
removed_by() { # REMOVAL COMMAND...
    CORVEL_TEST_REMOVE=$1 tests "${@:2}" --gtest_filter='*ARemoved*'
}

can_fd_controllers() {
    tests bus_test
    python_tests 2 '-k frames -k blocks'
    removed_by 'echo 1 >/sys/class/net/can0/device/remove' bus_test
}

classic_controllers() { # two SJA1000
    [ ! -e /sys/class/net/can4 ] || "$root/vm/take_over.sh" can4 can5
    fails monitor 0 500 2000 >log 2>&1
    holds log 'could not be initialised (status 5)' 'not supported'
    CORVEL_CLASSIC=1 tests bus_test
    removed_by 'echo 1 >/sys/class/net/can0/device/remove' bus_test
}

# Four emulated adapters on a USB of the kernel's own, can0 and can1 on one bus, can2 and can3 on
# another; `pull` pulls one out, or plugs it in again.
usb_adapters() {
    mkfifo pull && exec 9<>pull
    /usr/bin/python3 "$root/vm/usb_adapters.py" A1 A2 B1 B2 <pull &
    adapters() { basename -a /sys/bus/usb/drivers/gs_usb/*/net/can*; }
    eventually eval '[ "$(adapters | wc -l)" = 4 ]'
    adapters | xargs "$root/vm/take_over.sh"
    tests bus_test
    plug_in() { echo A1 >&9; eventually test -e /sys/class/net/can0; }
    removed_by 'echo A1 >&9' bus_test
    plug_in
    CORVEL_TEST_REMOVE='echo A1 >&9' python_tests 1 '-k removed'
    plug_in
    pulled_gateway
}

# The gateway between two busy buses ends in order after its adapter was pulled out.
pulled_gateway() {
    for number in 1 3; do ip link set can$number up type can bitrate 500000; done
    for _ in $(seq 20); do
        gateway 0 2 >forwarded 2>log &
        gateway=$!
        eventually grep -q 'are open' log
        cangen can1 -g 2 -i & senders=$!
        cangen can3 -g 2 -i & senders+=" $!"
        sleep 0.5; echo A1 >&9
        eventually test ! -e /sys/class/net/can0
        sleep 0.2; kill $senders $gateway
        timeout 20 tail -s 0.02 --pid=$gateway -f /dev/null
        [ "$(grep -c '^[1-9]' forwarded)" = 2 ]
        plug_in
    done
    echo "the gateway ended in order after 20 pulls"
}

virtual_interfaces() {
    on_pair() {
        as_user /opt/corvel/simcan/simcan --kernel bash -c "$(declare -f other_pair)"'
            other_pair; "$@"; status=$?; kill %1; exit $status' pair "$@"
    }
    on_two_pairs() {
        as_user /opt/corvel/simcan/simcan --kernel bash -c '
            ip link add can2 mtu 72 type vxcan peer name can3 mtu 72
            for number in 0 1 2 3; do ip link set can$number up; done; "$@"' pairs "$@"
    }
    chmod 711 /  # an ordinary user cannot list it then
    tests on_pair exchange
    tests on_pair bus_test
    tests on_two_pairs /opt/corvel/tests/can_tools.sh /opt/corvel
    on_two_pairs /opt/corvel/tests/raw_test.py
    python_tests 3 '-k frames -k blocks -k killed_opening' on_pair
    for _ in 1 2 3 4 5 6; do removed_by 'ip link del can0' on_pair bus_test; done
    sysctl -q user.max_user_namespaces=0
    fails on_pair true 2>log
    holds log 'simcan: this user may make no network namespace; as root: /opt/corvel/simcan/simcan --kernel'
}

sections='permissions can_fd_controllers virtual_interfaces classic_controllers usb_adapters'
if [ ! -e /sys/class/net/can3 ]; then
    echo "LEFT OUT: CAN FD controllers, for which this kernel has no driver; USB adapters, which stop it"
    sections='virtual_interfaces classic_controllers'
fi
other_pair
for section in $sections; do
    echo "--- ${section//_/ }"
    $section
done
