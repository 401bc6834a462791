#!/bin/bash
# Uses the project as its users do: packages, built twice with the same result; a tree that is moved;
# a Python environment; a part of another project. At last the packages are installed on this machine
# and removed, which is left out without rights, or if one of them is installed already.
set -eEu
trap 'echo "FAILED in line $LINENO: $BASH_COMMAND"' ERR
. "$(dirname "$0")/../scripts/common.sh"
takes_no_arguments "$@"
install_packages "${build_packages[@]}" make lintian autopkgtest \
    python3-venv python3-setuptools python3-wheel python3-can
root=$PWD
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build() { # FOLDER CMAKE-ARGUMENTS...
    quietly cmake -B "$@"
    quietly cmake --build "$1" -j2
}

echo 'Building packages'
quietly scripts/package.sh
lintian --allow-root --fail-on error,warning build/package/*.changes
read -ra packages < <(sed -n 's/^Binary: //p' build/package/*.changes)
installed=$(dpkg-query -W "${packages[@]}" 2>/dev/null || true)
echo 'Building them again, elsewhere'
cd "$work"; mkdir again
quietly dpkg-source -x "$root"/build/package/*.dsc again/elsewhere
(cd again/elsewhere && DEB_BUILD_OPTIONS=nocheck quietly dpkg-buildpackage -b -us -uc)
for package in "$root"/build/package/*.deb; do cmp "$package" "again/${package##*/}"; done

echo 'Using a moved tree, a Python environment, and the project inside another'
build release -S "$root" -G Ninja
quietly cmake --install release --prefix "$work/installed"
folder=$work/moved; mv installed "$folder"
simcan=$folder/bin/simcan examples=$folder/share/doc/libtn-corvel-dev/examples
build examples -G Ninja -S "$examples" -DCMAKE_PREFIX_PATH="$folder"
quietly ctest --test-dir examples
read -ra flags < <(PKG_CONFIG_PATH=$folder/lib/pkgconfig pkg-config --cflags --libs tn_corvel)
cc -fsanitize=address "$examples/exchange.c" -o exchange "${flags[@]}" -Wl,-rpath,"$folder/lib"
$simcan ./exchange 2>/dev/null | grep -q -x 'all as expected'

# Without the dependency: trixie's python3-can, which the environment uses, calls itself version 0.0.0.
/usr/bin/python3 -m venv --system-site-packages environment
quietly environment/bin/pip install --no-index --no-build-isolation --no-deps again/elsewhere/python
program='import can; can.Bus(interface="corvel", channel=0).shutdown()'
[ -n "$installed" ] || environment/bin/python -c "$program" 2>&1 |
    grep -q 'libtn_corvel.so: .*: install libtn-corvel'
LD_LIBRARY_PATH=$folder/lib $simcan environment/bin/python -c "$program"

cat >parent.cmake <<'CMAKE'
add_custom_target(docs)
include(FetchContent)
FetchContent_Declare(tn_corvel SOURCE_DIR ${ROOT} OVERRIDE_FIND_PACKAGE)
CMAKE
build inside -G 'Unix Makefiles' -S "$root/examples" -DROOT="$root" -DBUILD_SHARED_LIBS=OFF \
    -DCMAKE_PROJECT_TOP_LEVEL_INCLUDES="$work/parent.cmake" -DCORVEL_SIMCAN=ON
inside/simcan/simcan inside/exchange 2>/dev/null | grep -q -x 'all as expected'
quietly cmake --install inside --prefix "$work/installed"
for file in installed inside/*.so; do test ! -e "$file"; done

echo 'Running stages of test.sh that fail or are left out'
mkdir copy; cp -r "$root/scripts" copy # without presets and git
CI='' fails copy/scripts/test.sh g++ >log 2>&1
grep -q '^g++ *FAILED' log
CI='' copy/scripts/test.sh format | grep -q '^format *LEFT OUT'
CI=1 fails copy/scripts/test.sh format >log
grep -q '^format *LEFT OUT' log

if [ -n "$installed" ] || ! run_as_root true; then
    echo "packages: no right to install them, or one is installed here, which the test would remove"
    exit 77
fi
echo 'Installing, using and removing the packages'
trap 'run_as_root dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
quietly run_as_root autopkgtest "$root"/build/package/*.changes -- null
