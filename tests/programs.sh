#!/bin/bash
# Every script and example explains itself, and refuses words that it does not know, before it does
# anything; and the variables of the log. programs.sh BUILD: the folder that holds the examples.
set -eEu -o pipefail
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
. "$(dirname "$0")/../scripts/common.sh"
[[ $# -eq 1 && -x $1/exchange ]] || refuse "no build with examples: $*"
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for program in {scripts,bench,tests,vm,examples}/*.{sh,py} "$build"/{exchange,failures,gateway,gateway_test,monitor,ping,send,simcan/simcan}; do
    [ -x "$program" ] || continue
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

logged() { # VARIABLE=VALUE...: the levels of what a run writes to standard error
    env "$@" "$build/simcan/simcan" --own "$build/exchange" 2>&1 >/dev/null | cut -d ' ' -f 2 | sort -u | tr -d '\n'
}
test "$(logged)" = 34
test "$(logged PELID_LOG_LEVEL=2)" = 234
test "$(logged PELID_LOG_LEVEL=0)" = ''
test "$(logged PELID_LOG_FILE="$work/log")$(logged PELID_LOG_FILE="$work/log")" = ''
test "$(grep -c 'Write failed,No such device' "$work/log")" = 2
test "$(logged PELID_LOG_FILE="$work/none/log")" = 34cannot

for interfaces in '' can0,can1 'can0 can0' can0: :bus can0:bus:2 sixteen.letters.; do
    ! SIMCAN=$interfaces "$build/simcan/simcan" touch "$work/started" 2>"$work/errors" || exit 1
    grep -q "Write SIMCAN='can0 can1'" "$work/errors"
done
! "$build/simcan/simcan" --own --kernel touch "$work/started" 2>"$work/errors" || exit 1
grep -q 'exclude each other' "$work/errors"
test ! -e "$work/started"
! "$build/simcan/simcan" cansend can2 123#11 2>"$work/errors" || exit 1
grep -q -x "simcan: no interface can2, SIMCAN='can0 can1'" "$work/errors"
