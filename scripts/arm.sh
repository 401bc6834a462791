#!/bin/bash
# Builds the library and its packages for ARM boards and runs the unit tests under qemu-user:
# arm.sh arm64 (64 bit) or arm.sh armhf (32 bit). Debian's libraries for that architecture are unpacked
# in a cache folder; the machine's own package system is not told.
set -eu
. "$(dirname "$0")/common.sh"
case ${1-} in
    arm64) export ARM_TRIPLET=aarch64-linux-gnu ARM_PROCESSOR=aarch64 emulator=qemu-aarch64 ;;
    armhf) export ARM_TRIPLET=arm-linux-gnueabihf ARM_PROCESSOR=armv7 emulator=qemu-arm ;;
    *) sed -n '2,4s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
esac
architecture=$1
install_packages $build_packages $cpack_packages "g++-$ARM_TRIPLET" qemu-user

export ARM_ROOT=$cache/$architecture
if [ ! -e "$ARM_ROOT/complete" ]; then
    apt=$ARM_ROOT/apt
    mkdir -p "$apt"/lists/partial "$apt"/archives/partial
    : >"$apt/status"
    mirror=$(debian_mirror)
    echo "deb $mirror $(. /etc/os-release && echo "$VERSION_CODENAME") main" >"$apt/sources.list"
    # Nothing of what apt runs here needs root.
    foreign() {
        apt-get -qq -o APT::Architecture="$architecture" -o APT::Architectures::="$architecture" \
            -o Dir::Etc::SourceList="$apt/sources.list" -o Dir::Etc::SourceParts=- \
            -o APT::Sandbox::User= -o Dir::State="$apt" -o Dir::State::Lists="$apt/lists" \
            -o Dir::State::status="$apt/status" -o Dir::Cache="$apt" -o Debug::NoLocking=1 "$@"
    }
    foreign update
    (cd "$apt" && foreign download libnl-3-200 libnl-3-dev libnl-route-3-200 libnl-route-3-dev \
        libgtest-dev libc6 libgcc-s1 libstdc++6)
    for package in "$apt"/lib*-dev_*.deb "$apt"/libnl-*.deb; do dpkg -x "$package" "$ARM_ROOT"; done
    mkdir -p "$ARM_ROOT/packages"
    for package in "$apt"/*.deb; do
        name=${package##*/}
        dpkg-deb -R "$package" "$ARM_ROOT/packages/${name%%_*}"
    done
    touch "$ARM_ROOT/complete"
fi

build=$PWD/build/$architecture
cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/packaging/arm.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCORVEL_WERROR=ON -DCORVEL_TESTS=ON -DCORVEL_DOCS=ON \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$ARM_TRIPLET" \
    -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE="$architecture" >/dev/null
cmake --build "$build"
"$ARM_TRIPLET-readelf" -h "$build/libtn_corvel.so" | grep Machine
libraries=$ARM_ROOT/usr/lib/$ARM_TRIPLET:$ARM_ROOT/lib/$ARM_TRIPLET
$emulator -L "/usr/$ARM_TRIPLET" -E LD_LIBRARY_PATH="$libraries" "$build/unit_tests"

# The packages. What they depend on is read from the libraries' own packages, as nothing of this
# architecture is installed here.
mkdir -p "$build/debian"
printf 'Source: tn-corvel\n\nPackage: libtn-corvel\nArchitecture: any\n' >"$build/debian/control"
depends() {
    (cd "$build" && DEB_HOST_ARCH=$architecture dpkg-shlibdeps --ignore-missing-info -O \
        "${known[@]}" -l"$build" -l"$build/simcan" "$@" 2>/dev/null | sed 's/^shlibs:Depends=//')
}
known=()
while read -r folder; do known+=(-l"$folder"); done \
    < <(find "$ARM_ROOT/packages" -name '*.so.*' -printf '%h\n' | sort -u)
for package in "$ARM_ROOT"/packages/*; do known+=(-S"$package"); done
rm -rf "$build/installed"
DESTDIR=$build/installed cmake --install "$build" >/dev/null
! grep -rlF "$ARM_ROOT" "$build/installed" || { echo "these name a folder of this machine" >&2; exit 1; }
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
library=$build/installed/usr/lib/$ARM_TRIPLET
rm -f "$build"/*.deb
umask 022
(cd "$build" && cpack \
    -D CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS=OFF -D CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS=OFF \
    -D "CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS=iproute2, sudo, $(depends "$library"/lib*.so)" \
    -D "CPACK_DEBIAN_DEV_PACKAGE_DEPENDS=libtn-corvel (= $version), $(depends \
        "$library"/tn_corvel/simcan/{libsimcan.so,simcan-down})")
for package in "$build"/*.deb; do
    dpkg -I "$package" | grep -E '^ (Package|Architecture|Depends):'
done
