#!/bin/bash
# Installs what the tests need and runs them. Ends with a table of the stages and CTest's summary; the
# exit status is 0 if nothing failed. Under CI (a variable that is set there), nothing may be left out.
#
# test.sh [--no-vm | --kernel KERNEL] [--arm] [STAGE...]
# --no-vm   leaves out the stage vm: the tests on a real kernel, in a virtual machine
# --kernel  boots another kernel there than this release's own: 5.10, 6.1, 6.12 or newest
# --arm     adds the stages arm64 and armhf: packages for ARM, and unit tests on emulated processors
# STAGE     runs the named stages only: format, g++, lint, asan, tsan, memcheck, docs, install or vm;
#           memcheck, docs and vm use what g++ has built
set -u -o pipefail
. "$(dirname "$0")/common.sh"

stages=' format g++ lint asan tsan memcheck docs install vm '
chosen=
kernel=()
while [ $# -gt 0 ]; do
    case $1 in
        --no-vm) stages=${stages/ vm / } ;;
        --arm) stages+='arm64 armhf ' ;;
        --kernel)
            [ -n "${releases[${2:-none}]-}" ] || refuse "no such kernel: ${2-}"
            kernel=("$1" "$2") && shift ;;
        *) [[ $stages == *" $1 "* ]] || refuse "unknown argument: $1"; chosen+=" $1 " ;;
    esac
    shift
done

install_packages "${build_packages[@]}" "${docs_packages[@]}" clang libgtest-dev valgrind can-utils python3-can python3-pytest &&
    install_packages "libclang-rt-$(clang -dumpversion | cut -d. -f1)-dev" || exit 1
mkdir -p build
log=build/test.log
: >"$log"
failed=0
table=

# Runs a stage if it is chosen, with its output on screen and in the log.
stage() {
    [[ ${chosen:-$stages} == *" $1 "* ]] || return 0
    echo "=== $1"
    start=$SECONDS
    ("${@:2}") </dev/null 2>&1 | tee -a "$log"
    case ${PIPESTATUS[0]} in
        0) verdict=passed ;;
        77) verdict='LEFT OUT' && [ -z "${CI-}" ] || failed=$((failed + 1)) ;;
        *) verdict=FAILED && failed=$((failed + 1)) ;;
    esac
    table+=$(printf '%-10s %-8s %4d s' "$1" "$verdict" $((SECONDS - start)))$'\n'
}

left_out() { echo "$*: not checked"; return 77; }

# Always the same version of clang-format and clang-tidy, as versions differ in what they report.
check_format() {
    install_packages git clang-format-19 || left_out "no clang-format 19" || return
    mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h' '*.hpp')
    [ ${#files[@]} -gt 0 ] || left_out "git lists no files" || return
    clang-format-19 --dry-run -Werror "${files[@]}"
}

lint() {
    install_packages git shellcheck flake8 mypy python3-can || return 1
    mapfile -t files < <(git grep -lE '^#!/bin/(bash|sh|busybox sh)$')
    [ ${#files[@]} -gt 0 ] || left_out "git lists no files" || return
    shellcheck scripts/common.sh "${files[@]}" || return 1
    mapfile -t files < <(git ls-files '*.py')
    flake8 --max-line-length=100 "${files[@]}" || return 1
    quietly mypy --strict --implicit-reexport --cache-dir=build/mypy python/corvel_can || return 1
    install_packages clang-tidy-19 || left_out "C and C++, as there is no clang-tidy 19" || return
    cmake -S . -B build/lint -G Ninja >/dev/null || return 1
    mapfile -t files < <(sed -n 's/^ *"file": "\(.*\)".*/\1/p' build/lint/compile_commands.json)
    quietly clang-tidy-19 -p build/lint --quiet "${files[@]}"
}

# Builds a preset and runs its tests. The sanitizers need the usual layout of the address space.
build_and_test() {
    cmake --preset "$1" >/dev/null && cmake --build --preset "$1" &&
        setarch -R ctest --preset "$1" "${@:2}"
}

# The unit tests define operator new, which valgrind must not replace. Memory of a thread that still runs
# when the process ends is "possibly" lost.
memcheck() {
    ulimit -Sn 1100 # the tests use descriptors up to here; valgrind keeps those above
    check=(build/dev/simcan/simcan --own valgrind -q --leak-check=full --error-exitcode=9
        --show-leak-kinds=definite --errors-for-leak-kinds=definite --soname-synonyms=somalloc=nouserintercepts)
    export PELID_LOG_LEVEL=0
    { "${check[@]}" build/dev/unit_tests &&
        "${check[@]}" build/dev/bus_test --gtest_filter='BusTest.*-*WithoutPause*'; } | tee build/memcheck.log &&
        ! grep ' 0 tests' build/memcheck.log
}

stage format check_format
stage g++ build_and_test dev -j2
stage lint lint
stage asan build_and_test asan
stage tsan build_and_test tsan
stage memcheck memcheck
stage docs cmake --build --preset dev --target docs
stage install tests/install.sh
stage arm64 scripts/arm.sh arm64
stage armhf scripts/arm.sh armhf
stage vm vm/boot.sh "${kernel[@]}" 1500 "$PWD/tests/in_vm.sh" "$PWD/build/dev"

echo
printf '%s' "$table"
[[ -n $chosen || $stages == *' vm '* ]] || echo "left out: the tests on a real kernel (--no-vm)"
grep -A99 'tests passed' "$log" | grep -E 'tests passed|Total Test time|^\s+[0-9]+ - '
[ "$failed" -eq 0 ]
