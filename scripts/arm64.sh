#!/bin/bash
# Builds the library for 64-bit ARM and runs the unit tests under qemu-user. Debian's libraries for
# that architecture are unpacked in a cache folder; the machine's own package system is not told.
set -eu
. "$(dirname "$0")/common.sh"
install_packages $build_packages g++-aarch64-linux-gnu qemu-user

export ARM64_ROOT=${XDG_CACHE_HOME:-${HOME:-/var/tmp}/.cache}/tn_corvel/arm64
if [ ! -e "$ARM64_ROOT/complete" ]; then
    apt=$ARM64_ROOT/apt
    mkdir -p "$apt"/lists/partial "$apt"/archives/partial
    : >"$apt/status"
    # Nothing of what apt runs here needs root.
    foreign() {
        apt-get -qq -o APT::Architecture=arm64 -o APT::Architectures::=arm64 -o APT::Sandbox::User= \
            -o Dir::State="$apt" -o Dir::State::Lists="$apt/lists" -o Dir::State::status="$apt/status" \
            -o Dir::Cache="$apt" -o Debug::NoLocking=1 "$@"
    }
    foreign update
    (cd "$apt" && foreign download libnl-3-200 libnl-3-dev libnl-route-3-200 libnl-route-3-dev \
        libgtest-dev)
    for package in "$apt"/*.deb; do dpkg -x "$package" "$ARM64_ROOT"; done
    touch "$ARM64_ROOT/complete"
fi

cmake -S . -B build/arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/packaging/arm64.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCORVEL_WERROR=ON -DCORVEL_TESTS=ON >/dev/null
cmake --build build/arm64
aarch64-linux-gnu-readelf -h build/arm64/libtn_corvel.so | grep Machine
ln -sf /bin/true build/arm64/simcan/simcan-down # commands are run by this machine's own shell
libraries=$ARM64_ROOT/usr/lib/aarch64-linux-gnu:$ARM64_ROOT/lib/aarch64-linux-gnu
qemu-aarch64 -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH="$libraries" build/arm64/unit_tests
