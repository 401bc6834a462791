#!/bin/bash
# Facts about programs and about texts that must agree: each script and example explains itself and
# refuses unknown arguments before it does anything else. programs.sh BUILD: the folder of the build.
set -eEu -o pipefail
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
. "$(dirname "$0")/../scripts/common.sh"
[[ $# -eq 1 && -x $1/exchange ]] || refuse "no build with examples: $*"
build=$(realpath "$1")
simcan=$build/simcan/simcan
export SIMCAN_RUN=programs.$$
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

built=(examples/*.{c,cpp})
built=("${built[@]%.*}")
scripts=$(find scripts bench tests vm examples -maxdepth 1 -executable -name '*.[sp][hy]')
for program in $scripts "${built[@]/#examples/$build}" "$simcan"; do
    echo "$program"
    for option in -h --help; do
        test -n "$("$program" $option 2>"$work/errors")"
        test ! -s "$work/errors"
    done
    status=0
    "$program" --nonsense >"$work/output" 2>"$work/errors" || status=$?
    test $status = 2
    test ! -s "$work/output"
    grep -q -e --nonsense "$work/errors"
done

logged() { # VARIABLE=VALUE: the levels of the records
    env "$@" "$simcan" --own "$build/exchange" 2>&1 >/dev/null | cut -d ' ' -f 2 | sort -u | tr -d '\n'
}
test "$(logged PELID_LOG_LEVEL=)" = 34
test "$(logged PELID_LOG_LEVEL=2)" = 234
test "$(logged PELID_LOG_LEVEL=0)" = ''
before=$(date +%s%3N)
record=$("$simcan" "$build/monitor" 9 2>&1 | grep 'does not exist' || true)
logged=$(date --date "${record%% *}" +%s%3N)
[[ $before -le $logged && $logged -le $(date +%s%3N) ]]

"$simcan" "$build/monitor" 1 >"$work/frames" 2>"$work/log" &
eventually grep -q 'is open' "$work/log"
for frame in 123#11.22 1ABCDEF0#33 7FF#R2; do "$simcan" cansend can0 $frame; done
eventually grep -q 7FF "$work/frames"
kill $!
wait $!
test "$(sed 's/^([0-9.]*) //' "$work/frames")" = $'can1 123#1122\ncan1 1ABCDEF0#33\ncan1 7FF#R2'

# The commands that the library runs are those that the texts permit.
SIMCAN_SUDO_LOG=$work/sudo "$simcan" --own "$build/exchange" >/dev/null 2>&1
sed -n 's/^sudo ip //p' "$work/sudo" | sort -u >"$work/commands"
test "$(wc -l <"$work/commands")" = 10
grep -o '\^[^$]*\$' examples/etc/sudoers.d/corvel >"$work/permitted"
! grep -E -v -f "$work/permitted" "$work/commands" || exit 1
sed -n 's|^ *\(Cmnd_Alias CORVEL = \)*/usr/sbin/ip \([^,\\]*\).*|\2|p' docs/permissions.md >"$work/permitted"
! grep -x -v -f "$work/permitted" "$work/commands" || exit 1

mapfile -t functions < <(sed -n 's/^CORVEL_API .* \(corvel_[A-Za-z]*\)(.*/\1/p' include/tn_corvel.h)
test ${#functions[@]} = 4
for function in "${functions[@]}"; do
    for file in README.md docs/interface.md docs/tn_corvel.3 debian/libtn-corvel.symbols python/corvel_can/__init__.py; do
        grep -q "\<$function\>" $file || { echo "no $function in $file"; exit 1; }
    done
done

for interfaces in '' can0,can1 'can0 can0' can0: :bus can0:bus:2 sixteen.letters.; do
    ! SIMCAN=$interfaces "$simcan" touch "$work/started" 2>"$work/errors" || exit 1
    grep -q "Write SIMCAN='can0 can1'" "$work/errors"
done
! "$simcan" --own --kernel touch "$work/started" 2>"$work/errors" || exit 1
grep -q 'exclude each other' "$work/errors"
test ! -e "$work/started"
! "$simcan" cansend can2 123#11 2>"$work/errors" || exit 1
grep -q -x "simcan: no interface can2, SIMCAN='can0 can1'" "$work/errors"
