#!/bin/bash
# Uses the library as other projects do: in a folder that is moved about; as a part of a project that
# has targets of its own; and from the packages, which are installed on this machine and removed
# again. Only this needs rights, and is left out where one is installed already.
set -eEu
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
. "$(dirname "$0")/../scripts/common.sh"
install_packages $build_packages $cpack_packages make man-db lintian
root=$PWD
packages='libtn-corvel libtn-corvel-dev'
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
quietly() { "$@" >log 2>&1 || { cat log; return 1; }; }
build() { # FOLDER GENERATOR CMAKE-WORDS...
    rm -rf "$1"
    quietly cmake -B "$1" -G "$2" "${@:3}"
    quietly cmake --build "$1" -j2
}
holds() { grep -q "$@" || { echo "not found: ${*: -2}"; exit 1; }; }
eventually() { for _ in $(seq 100); do ! "$@" || return 0; sleep 0.1; done; "$@"; }

use() { # PREFIX
    export PKG_CONFIG_PATH=$(dirname "$(find "$1/lib" -name tn_corvel.pc)") SIMCAN_RUN=$$
    export LD_LIBRARY_PATH=$(pkg-config --variable=libdir tn_corvel)
    examples=$1/share/doc/libtn-corvel-dev/examples
    build examples Ninja -S "$examples" -DCMAKE_PREFIX_PATH="$(realpath "$1")"
    LD_LIBRARY_PATH= "$1/bin/simcan" examples/exchange 2>/dev/null | holds -x 'all as expected'
    c++ "$examples/ping.cpp" -o ping $(pkg-config --cflags --libs tn_corvel)
    "$1/bin/simcan" ./ping 2>/dev/null | holds '^identifier 123, 3 bytes'

    cc "$examples/send.c" -o send $(pkg-config --cflags --libs tn_corvel)
    "$1/bin/simcan" python3 "$examples/monitor.py" 1 >frames 2>examples/err &
    eventually grep -q 'Successfully opened' examples/err
    for frame in 123#11.22.33 1ABCDEF0# 7FF#R2; do "$1/bin/simcan" ./send 0 $frame 2>/dev/null; done
    eventually grep -q R2 frames
    kill -TERM $!
    wait $!
    test "$(sed -E 's/^\([0-9]+\.[0-9]{6}\) //' frames)" = $'can1 123#112233\ncan1 1ABCDEF0#\ncan1 7FF#R2'
    for page in "$1"/share/man/man*/*corvel*; do
        LC_ALL=C.UTF-8 man --warnings -l "$page" 2>&1 >/dev/null | tee warnings
        test ! -s warnings
    done
    unset LD_LIBRARY_PATH PKG_CONFIG_PATH
}

quietly "$root/scripts/package.sh"
lintian --allow-root --fail-on error "$root"/build/package/*.deb
for package in "$root"/build/package/*.deb; do dpkg-deb -x "$package" unpacked; done
mv unpacked moved
use moved/usr
for words in '0 12345#11' '0 123#112233445566778899' '0 800#' 'x 123#' '0 7FF#R 1 0 9 9' '7 123#'; do
    ! moved/usr/bin/simcan examples/send $words 2>log || exit 1
    holds '^send: ' log
done

cat >parent.cmake <<'CMAKE'
foreach(name docs simcan unit_tests)
  add_custom_target(${name})
endforeach()
include(FetchContent)
FetchContent_Declare(tn_corvel SOURCE_DIR ${ROOT} OVERRIDE_FIND_PACKAGE)
CMAKE
build inside 'Unix Makefiles' -S "$root/examples" -DROOT="$root" -DBUILD_SHARED_LIBS=OFF \
    -DCMAKE_PROJECT_TOP_LEVEL_INCLUDES="$work/parent.cmake" \
    -DCMAKE_CXX_STANDARD=20 -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
moved/usr/bin/simcan inside/exchange 2>/dev/null | holds -x 'all as expected'
holds 'std=c++20.*tn_corvel' inside/compile_commands.json
holds -x 'CMAKE_BUILD_TYPE:STRING=' inside/CMakeCache.txt
quietly cmake --install inside --prefix "$work/installed"
for file in installed inside/*.so inside/CPackConfig.cmake; do test ! -e "$file"; done
! cmake -S "$root" -B refused -DBUILD_SHARED_LIBS=OFF >/dev/null 2>log || exit 1
holds 'tn_corvel is a shared library' log

leave_out() { echo "packages: $*"; exit 77; }
for package in $packages; do
    ! dpkg-query -W "$package" 2>/dev/null || leave_out "is installed here, and the test would remove it"
done
run_as_root true || leave_out "no right to install any"
remove() { run_as_root apt-get -qq -y purge $packages >/dev/null 2>&1 </dev/null; }
trap 'remove || true; rm -rf "$work"' EXIT
run_as_root apt-get -qq -y install "$root"/build/package/*.deb >/dev/null </dev/null
use /usr
remove
for file in /usr/{bin/simcan,include/*corvel*,lib/*/tn_corvel,share/doc/libtn-corvel*}; do test ! -e "$file"; done
echo "packages installed, used and removed"
