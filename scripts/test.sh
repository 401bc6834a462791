#!/bin/bash
# Installs what the tests need and runs all of them. Ends with a table of the stages and CTest's
# summary; the exit status is 0 when nothing failed.
#
# test.sh [--no-vm | --kernel KERNEL] [--arm]
# --no-vm   leaves out the tests on a real kernel, in a virtual machine
# --kernel  takes another kernel for them than this release's own: 5.10, 6.1, 6.12 or newest
# --arm     adds packages for 64-bit and 32-bit ARM, and the unit tests on emulated processors
set -u
. "$(dirname "$0")/common.sh"

vm=1
arm=0
kernel=()
while [ $# -gt 0 ]; do
    case $1 in
        --no-vm) vm=0 ;;
        --arm) arm=1 ;;
        --kernel) [ $# -ge 2 ] || refuse "--kernel needs a kernel"; kernel=("$1" "$2"); shift ;;
        -h | --help) usage && exit ;;
        *) refuse "unknown word: $1" ;;
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

# Runs one stage, with its output on screen and in the log.
stage() {
    echo "=== $1"
    start=$SECONDS
    ("${@:2}") </dev/null 2>&1 | tee -a "$log"
    case ${PIPESTATUS[0]} in
        0) verdict=passed ;;
        77) verdict='LEFT OUT' ;;
        *) verdict=FAILED && failed=$((failed + 1)) ;;
    esac
    table+=$(printf '%-10s %-8s %4d s' "$1" "$verdict" $((SECONDS - start)))$'\n'
}

# Versions of clang-format differ in what they do, so it is always the same.
check_format() {
    install_packages git clang-format-19 || { echo "no clang-format 19 here: nothing was checked"; return 77; }
    mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h' '*.hpp')
    [ ${#files[@]} -gt 0 ] || { echo "git lists no files here: nothing was checked"; return 77; }
    clang-format-19 --dry-run -Werror "${files[@]}"
}

# The same holds for what clang-tidy finds.
lint() {
    install_packages git shellcheck flake8 mypy python3-can || return 1
    mapfile -t files < <(git grep -lE '^#!/bin/(bash|sh|busybox sh)$')
    [ ${#files[@]} -gt 0 ] || { echo "git lists no files here: nothing was checked"; return 77; }
    shellcheck scripts/common.sh "${files[@]}" || return 1
    mapfile -t files < <(git ls-files '*.py')
    flake8 --max-line-length=100 "${files[@]}" || return 1
    mypy --strict --implicit-reexport --cache-dir=build/mypy python/corvel_can || return 1
    install_packages clang-tidy-19 || { echo "no clang-tidy 19 here: C and C++ were not checked"; return 77; }
    cmake -S . -B build/lint -G Ninja >/dev/null || return 1
    mapfile -t files < <(sed -n 's/^ *"file": "\(.*\)".*/\1/p' build/lint/compile_commands.json)
    clang-tidy-19 -p build/lint --quiet "${files[@]}"
}

# Builds a preset and runs its tests. The sanitizers want address space laid out as usual.
build_and_test() {
    cmake --preset "$1" >/dev/null && cmake --build --preset "$1" &&
        setarch -R ctest --preset "$1" "${@:2}"
}

# The unit tests have an operator new of their own, which valgrind is not to replace. What a thread has
# that runs when the process ends is "possibly" lost.
memcheck() {
    ulimit -Sn 1100 # valgrind keeps the descriptors from here on; the tests use as many
    check=(build/dev/simcan/simcan --own valgrind -q --leak-check=full --error-exitcode=9
        --show-leak-kinds=definite --errors-for-leak-kinds=definite --soname-synonyms=somalloc=nouserintercepts)
    export PELID_LOG_LEVEL=0
    "${check[@]}" build/dev/unit_tests &&
        "${check[@]}" build/dev/bus_test --gtest_filter='BusTest.*-*WithoutPause*'
}

stage format check_format
stage g++ build_and_test dev -j2
stage lint lint
stage asan build_and_test asan
stage tsan build_and_test tsan
stage memcheck memcheck
stage docs cmake --build --preset dev --target docs
stage install tests/install.sh
[ "$arm" -eq 0 ] || { stage arm64 scripts/arm.sh arm64; stage armhf scripts/arm.sh armhf; }
[ "$vm" -eq 0 ] || stage vm vm/boot.sh "${kernel[@]}" 1500 "$PWD/tests/in_vm.sh" "$PWD/build/dev"

echo
printf '%s' "$table"
[ "$vm" -eq 1 ] || echo "left out: the tests on a real kernel (--no-vm)"
grep -A99 'tests passed' "$log" | grep -E 'tests passed|Total Test time|^\s+[0-9]+ - '
[ "$failed" -eq 0 ]
