#!/bin/bash
# Builds the Debian packages and their source package in build/package, without debug symbols.
set -eu
. "$(dirname "$0")/common.sh"
takes_no_arguments "$@"
dpkg-checkbuilddeps 2>/dev/null || {
    run_as_root apt-get -qq update
    run_as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -y --no-install-recommends build-dep . </dev/null >/dev/null
}
umask 022
copy=build/package/tn-corvel # dpkg-buildpackage puts the packages beside the tree
rm -rf build/package
mkdir -p "$copy"
tar -c --exclude=./build --exclude=./.git . | tar -x -C "$copy"
(cd "$copy" && DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS-} noautodbgsym" dpkg-buildpackage -us -uc)
rm -r "$copy"
