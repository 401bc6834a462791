#!/bin/bash
# What programs print and refuse, and texts that must agree: programs.sh BUILD (the folder of the build).
set -eEu -o pipefail
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
. "$(dirname "$0")/../scripts/common.sh"
[[ $# -eq 1 && -x $1/exchange ]] || refuse "no build with examples: $*"
build=$(realpath "$1") simcan=$1/simcan/simcan
export SIMCAN_RUN=programs.$$
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
built=$(printf '%s\n' examples/*.c* | sed "s|.*/\(.*\)[.].*|$build/\1|")
scripts=$(find scripts bench tests vm examples -maxdepth 1 -executable -name '*.[sp][hy]')
refuses() { # TEXT COMMAND...: before it does anything
    status=0
    "${@:2}" >"$work/output" 2>"$work/errors" || status=$?
    test "$status" = 2
    test ! -s "$work/output"
    grep -q -e "$1" "$work/errors"
}

for program in $scripts $built "$simcan"; do
    echo "$program"
    "$program" --help >"$work/output" 2>"$work/errors"
    test -s "$work/output"
    test ! -s "$work/errors"
    refuses --nonsense "$program" --nonsense
done
for interfaces in '' can0,can1 'can0 can0' can0: :bus can0:bus:2 sixteen.letters.; do
    SIMCAN=$interfaces refuses "Write SIMCAN='can0 can1'" "$simcan" touch "$work/started"
done
refuses 'exclude each other' "$simcan" --own --kernel touch "$work/started"
test ! -e "$work/started"
fails "$simcan" cansend can2 123#11 2>"$work/errors"
grep -q -x "simcan: no interface can2, SIMCAN='can0 can1'" "$work/errors"

logged() { # VARIABLE=VALUE: the levels of the records
    env "$@" "$simcan" --own "$build/exchange" 2>&1 >/dev/null | cut -d ' ' -f 2 | sort -u | tr -d '\n'
}
test "$(logged PELID_LOG_LEVEL=)" = 34
test "$(logged PELID_LOG_LEVEL=2)" = 234
test "$(logged PELID_LOG_LEVEL=0)" = ''
record=$("$simcan" "$build/monitor" 9 2>&1 | grep 'does not exist' || true)
age=$(($(date +%s) - $(date --date "${record%% *}" +%s)))
test "${age#-}" -lt 30

"$simcan" "$build/monitor" 1 >"$work/frames" 2>"$work/log" &
eventually grep -q 'is open' "$work/log"
for frame in 123#11.22 1ABCDEF0#33 7FF#R2; do "$simcan" cansend can0 $frame; done
eventually grep -q 7FF "$work/frames"
kill $! && wait $!
test "$(sed 's/^([0-9.]*) //' "$work/frames")" = $'can1 123#1122\ncan1 1ABCDEF0#33\ncan1 7FF#R2'

# A sender that nobody acknowledges can be ended.
SIMCAN_STALL=can1:5 "$simcan" "$build/cyclic" 1 >"$work/output" 2>"$work/log" &
eventually grep -q 'is open' "$work/log"
sleep 1
kill $! && wait $!
grep -q -x '5 frames written' "$work/output"

# The texts permit the commands that the library runs.
SIMCAN_SUDO_LOG=$work/sudo "$simcan" --own "$build/exchange" >/dev/null 2>&1
sed -n 's/^sudo ip //p' "$work/sudo" | sort -u >"$work/commands"
test "$(wc -l <"$work/commands")" = 10
grep -o '\^[^$]*\$' examples/etc/sudoers.d/corvel >"$work/permitted"
fails grep -E -v -f "$work/permitted" "$work/commands"
sed -n 's|^ */usr/sbin/ip \([^,\\]*\).*|\1|p' docs/permissions.md >"$work/permitted"
fails grep -x -v -f "$work/permitted" "$work/commands"

# The exported functions stand in all lists of them.
sed -n 's/^CORVEL_API .* \(corvel_[A-Za-z]*\)(.*/\1/p' include/tn_corvel.h >"$work/functions"
for file in README.md docs/{interface.md,tn_corvel.3} debian/libtn-corvel.symbols python/corvel_can/__init__.py; do
    test "$file $(grep -o -w -f "$work/functions" "$file" | sort -u | wc -l)" = "$file 4"
done
