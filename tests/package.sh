#!/bin/bash
# Installs the packages on this machine, uses them as the writer of an application would, removes
# them, and checks that nothing is left.
set -eu
. "$(dirname "$0")/../scripts/common.sh"
packages='libtn-corvel libtn-corvel-dev'
leave_out() { echo "$*"; exit 77; }
for package in $packages; do
    ! dpkg-query -W "$package" 2>/dev/null || leave_out "is installed here, and the test would remove it"
done
run_as_root true || leave_out "no right to install packages"
install_packages python3 lintian man-db
scripts/package.sh
lintian --allow-root --fail-on error build/package/*.deb

work=$(mktemp -d)
remove() { run_as_root apt-get -qq -y purge $packages >/dev/null 2>&1 </dev/null; }
trap 'remove || true; rm -rf "$work"' EXIT
run_as_root apt-get -qq -y install ./build/package/*.deb >/dev/null </dev/null
dpkg -L $packages >"$work/files"
cd "$work"
cp /usr/share/doc/libtn-corvel-dev/examples/* .
export SIMCAN_RUN=$$

cc exchange.c -o exchange $(pkg-config --cflags --libs tn_corvel)
simcan ./exchange >out 2>/dev/null
tail -n 1 out | grep -x 'all as expected'

for page in 3/tn_corvel 3/corvel_{init,free}DLL 3/corvel_{write,read}Message 1/simcan; do
    LC_ALL=C.UTF-8 man --warnings -l /usr/share/man/man$page.${page%/*}.gz >/dev/null 2>warnings
    test ! -s warnings || { cat warnings; exit 1; }
done
cmake -S . -B build >/dev/null
cmake --build build >/dev/null
simcan build/ping 2>/dev/null | grep '^identifier 123, 3 bytes'

# The monitor in Python, against the sender.
cc send.c -o send -ltn_corvel
eventually() { for _ in $(seq 100); do ! "$@" || return 0; sleep 0.1; done; "$@"; }
: >err
simcan python3 monitor.py 1 >log 2>err &
eventually grep -q 'Successfully opened' err
for frame in 123#11.22.33 1ABCDEF0# 7FF#R2; do simcan ./send 0 $frame 2>/dev/null; done
eventually grep -q R2 log
kill -TERM $!
wait $!
test "$(sed -E 's/^\([0-9]+\.[0-9]{6}\) //' log)" = $'can1 123#112233\ncan1 1ABCDEF0#\ncan1 7FF#R2'
for words in '0 12345#11' '0 123#112233445566778899' '0 800#' 'x 123#' '0 7FF#R 1 0 9 9' '7 123#'; do
    ! simcan ./send $words 2>out || { echo "accepted: send $words"; exit 1; }
    grep -q '^send: ' out
done

cd /
remove
while read -r file; do [ -d "$file" ] || [ ! -e "$file" ] || exit 1; done <"$work/files"
! ls -d /usr/include/corvel /usr/lib/*/tn_corvel /usr/share/doc/libtn-corvel* 2>/dev/null || exit 1
echo "installed, used and removed"
