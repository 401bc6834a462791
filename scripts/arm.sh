#!/bin/bash
# Builds the packages for ARM boards in build/arm64 or build/armhf, and compares them with this machine's:
# arm.sh arm64 (64 bit) or arm.sh armhf (32 bit). They are built in a throw-away root with Debian's
# libraries for that architecture, where the unit tests run under qemu-user.
set -eu -o pipefail
. "$(dirname "$0")/common.sh"
case ${1-} in
    arm64) emulator=qemu-aarch64 ;;
    armhf) emulator=qemu-arm ;;
    *) refuse "unknown architecture: ${1-}" ;;
esac
[ $# -eq 1 ] || refuse "unknown argument: $2"
architecture=$1
here=$(dpkg --print-architecture)
install_packages mmdebstrap
mirror=$(debian_mirror)
release=$(. /etc/os-release && echo "$VERSION_CODENAME")
DEB_BUILD_PROFILES=nocheck DEB_BUILD_OPTIONS=nocheck scripts/package.sh >/dev/null

build=build/$architecture
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/inside" <<END
cd /build
dpkg-source --extract *.dsc tn-corvel && cd tn-corvel
apt-get -qq -y build-dep --arch-only --host-architecture $architecture -P cross . >/dev/null
export DEB_BUILD_OPTIONS='nocheck noautodbgsym' DEB_CFLAGS_APPEND=-Werror DEB_CXXFLAGS_APPEND=-Werror
dpkg-buildpackage -us -uc -B --host-arch $architecture -Pcross
$emulator obj-*/unit_tests
END
mkdir "$work/out"
run_as_root mmdebstrap --quiet --variant=minbase --architectures="$here,$architecture" --format=null \
    --include="build-essential,crossbuild-essential-$architecture,libstdc++6:$architecture,qemu-user" \
    --aptopt="$mirror_may_be_old" \
    --customize-hook='mkdir "$1/build"' \
    --customize-hook="copy-in $(echo build/package/tn-corvel_*.dsc build/package/tn-corvel_*.tar.xz) $work/inside /build" \
    --customize-hook='chroot "$1" sh -eu /build/inside' \
    --customize-hook="sync-out /build '$work/out'" \
    "$release" /dev/null "deb $mirror $release main"
rm -rf "$build"
mkdir -p "$build"
cp "$work"/out/*.deb "$build"

# Files, names of dependencies, and symbols, without the architecture's own names. libgcc-s1 is left
# out: on 32-bit ARM, libstdc++6 has the unwinder's entry.
contents() { # ARCHITECTURE FOLDER
    multiarch=$(dpkg-architecture -A "$1" -q DEB_TARGET_MULTIARCH)
    {
        for name in libtn-corvel libpelid-log-standin libtn-corvel-dev simcan; do
            dpkg-deb --field "$2/${name}"_*_"$1.deb" Package Multi-Arch Depends |
                sed 's/ ([^)]*)//g; s/libgcc-s1, //'
            dpkg-deb --fsys-tarfile "$2/${name}"_*_"$1.deb" | tar -t
        done
        dpkg-deb --ctrl-tarfile "$2"/libtn-corvel_*_"$1.deb" | tar -xO ./symbols
    } | sed "s/$multiarch/ARCHITECTURE/g"
}
contents "$here" build/package >"$work/here"
contents "$architecture" "$build" >"$work/there"
diff "$work/here" "$work/there"
