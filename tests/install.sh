#!/bin/bash
# Uses the project as others do: as a tree that is moved about, from Python's environments, as a part of
# a project that has targets of its own, and as packages, built twice the same, which are installed on
# this machine and removed again. Only this needs rights, and is left out where one is installed already.
set -eEu
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
. "$(dirname "$0")/../scripts/common.sh"
takes_no_arguments "$@"
install_packages "${build_packages[@]}" make lintian autopkgtest \
    python3-venv python3-setuptools python3-wheel python3-can
root=$PWD
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; return 1; }; }
build() { # FOLDER CMAKE-WORDS...
    quietly cmake -B "$@"
    quietly cmake --build "$1" -j2
}

quietly scripts/package.sh
lintian --allow-root --fail-on error,warning build/package/*.changes
read -ra packages < <(sed -n 's/^Binary: //p' build/package/*.changes)
cd "$work"
mkdir again
quietly dpkg-source -x "$root"/build/package/*.dsc again/elsewhere
(cd again/elsewhere && DEB_BUILD_OPTIONS=nocheck quietly dpkg-buildpackage -b -us -uc)
for package in "$root"/build/package/*.deb; do cmp "$package" "again/${package##*/}"; done
dpkg-deb -x again/libtn-corvel_*.deb unpacked
nm -D unpacked/usr/lib/*/libtn_corvel.so | grep -q __stack_chk_fail

build release -S "$root" -G Ninja
quietly cmake --install release --prefix "$work/installed"
mv installed moved
folder=$work/moved
simcan=$folder/bin/simcan
examples=$folder/share/doc/libtn-corvel-dev/examples
build examples -G Ninja -S "$examples" -DCMAKE_PREFIX_PATH="$folder"
quietly ctest --test-dir examples
read -ra flags < <(PKG_CONFIG_PATH=$folder/lib/pkgconfig pkg-config --cflags --libs tn_corvel)
cc -fsanitize=address "$examples/exchange.c" -o exchange "${flags[@]}" -Wl,-rpath,"$folder/lib"
$simcan ./exchange 2>/dev/null | grep -q -x 'all as expected'

# Without the dependency: trixie's python3-can, which the environment uses, calls itself version 0.0.0.
/usr/bin/python3 -m venv --system-site-packages environment
quietly environment/bin/pip install --no-index --no-build-isolation --no-deps again/elsewhere/python
program='import can; can.Bus(interface="corvel", channel=0).shutdown()'
! environment/bin/python -c "$program" 2>log || exit 1
grep -q 'libtn_corvel.so was not found: install libtn-corvel' log
LD_LIBRARY_PATH=$folder/lib $simcan environment/bin/python -c "$program"

cat >parent.cmake <<'CMAKE'
foreach(name docs simcan unit_tests)
  add_custom_target(${name})
endforeach()
include(FetchContent)
FetchContent_Declare(tn_corvel SOURCE_DIR ${ROOT} OVERRIDE_FIND_PACKAGE)
CMAKE
build inside -G 'Unix Makefiles' -S "$root/examples" -DROOT="$root" -DBUILD_SHARED_LIBS=OFF \
    -DCMAKE_PROJECT_TOP_LEVEL_INCLUDES="$work/parent.cmake" \
    -DCMAKE_CXX_STANDARD=20 -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
$simcan inside/exchange 2>/dev/null | grep -q -x 'all as expected'
grep -q 'std=c++20.*tn_corvel' inside/compile_commands.json
grep -q -x 'CMAKE_BUILD_TYPE:STRING=' inside/CMakeCache.txt
quietly cmake --install inside --prefix "$work/installed"
for file in installed inside/*.so; do test ! -e "$file"; done

if dpkg-query -W "${packages[@]}" 2>/dev/null | grep . || ! run_as_root true; then
    echo "packages: no right to install them, or one is installed here, which the test would remove"
    exit 77
fi
trap 'run_as_root dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
quietly run_as_root autopkgtest "$root"/build/package/*.changes -- null
echo "packages installed, used and removed"
