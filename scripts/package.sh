#!/bin/sh
# Builds the Debian packages libtn-corvel and libtn-corvel-dev in build/package.
set -eu
. "$(dirname "$0")/common.sh"
install_packages $build_packages $cpack_packages
cmake -S . -B build/package -G Ninja -DCMAKE_INSTALL_PREFIX=/usr -DCORVEL_DOCS=ON >/dev/null
cmake --build build/package
cd build/package
rm -f ./*.deb
umask 022
cpack
