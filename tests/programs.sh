#!/bin/bash
# What programs print and refuse, and texts that must agree: programs.sh BUILD (the folder of the build).
# shellcheck disable=SC2086 # commands of several words
set -eEu -o pipefail
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
. "$(dirname "$0")/../scripts/common.sh"
[[ $# -eq 1 && -x $1/exchange ]] || refuse "no build with examples: $*"
build=$(realpath "$1") simcan=$1/simcan/simcan
export SIMCAN_RUN=programs.$$
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
refuses() { # TEXT COMMAND...: before it does anything
    status=0
    "${@:2}" >"$work/output" 2>"$work/errors" || status=$?
    test "$status" = 2
    test ! -s "$work/output"
    grep -q -e "$1" "$work/errors"
}

finds_nothing() { status=0; grep "$@" || status=$?; test $status = 1; } # unlike an error

built=$(printf '%s\n' examples/*.c* | sed "s|.*/\(.*\)[.].*|$build/\1|")
for program in $(find scripts bench tests vm examples -maxdepth 1 -executable -name '*.[sp][hy]') $built "$simcan"; do
    echo "$program"
    "$program" --help >"$work/output" 2>"$work/errors"
    test -s "$work/output"
    test ! -s "$work/errors"
    refuses --nonsense "$program" --nonsense
done

for setting in SIMCAN={,can0\,can1,'can0 can0',can0:,:bus,can0:bus:2,sixteen.letters.} \
    SIMCAN_FAIL={'write ENOFOO','read EIO','write EIO -1','write EIO 1 0 0',write} \
    SIMCAN_STALL={can7,can0:x} SIMCAN_SUDO_FAIL={foo,'UP exit 2','up exit'}; do
    refuses "simcan: ${setting%%=*}='${setting#*=}'" env "$setting" "$simcan" touch "$work/started"
done
refuses 'exclude each other' "$simcan" --own --kernel touch "$work/started"
test ! -e "$work/started"
fails "$simcan" cansend can2 123#11 2>"$work/errors"
grep -q -x "simcan: no interface can2, SIMCAN='can0 can1'" "$work/errors"
SIMCAN_FAIL='write ENOBUFS 2 1; write 105 0 4' "$simcan" --own cangen can0 -i -g 0 -n 6 >"$work/output"
grep -q 'Counted 4 ENOBUFS' "$work/output" # the 2nd and 3rd, and all from the 5th on
for command in 'dev can0 type can bitrate 500000 dbitrate 2000000 fd on' 'dev can0 txqueuelen 9 up' 'up can0'; do
    "$simcan" --own sudo -n ip link set $command
done
for command in 'can9 up' 'can0 up type can bitrate 1000001' 'can0;reboot up' 'can0 mtu x'; do
    fails "$simcan" --own sudo ip link set $command 2>/dev/null
done

for row in =34 2=234 0=; do # the lowest level, and the levels of the records
    PELID_LOG_LEVEL=${row%=*} "$simcan" --own "$build/exchange" 2>"$work/log" >/dev/null
    test "$(cut -d ' ' -f 2 "$work/log" | sort -u | tr -d '\n')" = "${row#*=}"
done
record=$("$simcan" "$build/monitor" 9 2>&1 | grep 'does not exist' || true)
age=$(($(date +%s) - $(date --date "${record%% *}" +%s)))
test "${age#-}" -lt 30

"$simcan" "$build/monitor" 1 >"$work/frames" 2>"$work/log" &
eventually grep -q 'is open' "$work/log"
for frame in 123#11.22 1ABCDEF0#33 7FF#R2; do "$simcan" cansend can0 $frame; done
eventually grep -q 7FF "$work/frames"
kill $!; wait $!
test "$(sed 's/^([0-9.]*) //' "$work/frames")" = $'can1 123#1122\ncan1 1ABCDEF0#33\ncan1 7FF#R2'

SIMCAN_STALL=can1:5 "$simcan" "$build/cyclic" 1 >"$work/output" 2>"$work/log" &
eventually grep -q 'is open' "$work/log"
sleep 1; kill $!; wait $!
grep -q -x '5 frames written' "$work/output"

# The texts permit the commands that the library runs, and list the functions that it exports.
SIMCAN_SUDO_LOG=$work/sudo "$simcan" --own "$build/exchange" >/dev/null 2>&1
sed -n 's/^sudo ip //p' "$work/sudo" | sort -u >"$work/commands"
test "$(wc -l <"$work/commands")" = 10
grep -o '\^[^$]*\$' examples/etc/sudoers.d/corvel >"$work/permitted"
finds_nothing -E -v -f "$work/permitted" "$work/commands"
sed -n 's|^ */usr/sbin/ip \([^,\\]*\).*|\1|p' docs/permissions.md >"$work/permitted"
finds_nothing -x -v -f "$work/permitted" "$work/commands"
sed -n 's/^CORVEL_API .* \(corvel_[A-Za-z]*\)(.*/\1/p' include/tn_corvel.h | sort >"$work/functions"
test -s "$work/functions"
for file in README.md docs/{interface.md,tn_corvel.3} debian/libtn-corvel.symbols python/corvel_can/__init__.py; do
    grep -o -w -f "$work/functions" "$file" | sort -u | diff - "$work/functions"
done
