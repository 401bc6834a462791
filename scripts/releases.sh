#!/bin/bash
# Tries releases of Debian as a new user would, in bare roots with git and a clean clone of the last
# commit: builds the packages and runs their tests in one root, and both README commands in another.
# Ends with a table; the exit status is 0 if all passed.
#
# releases.sh [RELEASE...]  bookworm, trixie and sid unless given
#
# Needs root. Bare roots are kept as build/releases/RELEASE.tar, the last trials as RELEASE and
# RELEASE-packages beside it. All mounts and processes are in namespaces, so none is left behind.
set -u
. "$(dirname "$0")/common.sh"
for release; do
    [ "${releases[${release:-none}]-}" = "$release" ] || refuse "unknown release: $release"
done
[ "$(id -u)" -eq 0 ] || refuse "needs root"
if [ "${RELEASES_INSIDE-}" != 1 ]; then
    RELEASES_INSIDE=1 unshare --mount --pid --fork --kill-child scripts/releases.sh "$@" &
    inside=$!
    trap 'kill -KILL "$inside"; exit 130' INT TERM HUP
    wait "$inside"
    exit
fi
[ $# -gt 0 ] || set -- bookworm trixie sid

install_packages mmdebstrap git && mirror=$(debian_mirror) || exit 1
mkdir -p build/releases
failed=0
table=

# Unpacks the bare root of a release. Makes it first if it is missing or damaged.
unpack_root() { # RELEASE
    kept=$PWD/build/releases/$1.tar
    for _ in kept new; do
        rm -rf "$root" && mkdir "$root"
        ! tar -xf "$kept" -C "$root" --exclude='./dev/*' 2>/dev/null || return 0
        mmdebstrap --quiet --variant=minbase --include=git --aptopt="$mirror_may_be_old" "$1" \
            "$kept.part" "deb $mirror $1 main" --format=tar && mv "$kept.part" "$kept" || return 1
    done
    return 1
}

# Makes a root that commands can run in, with the clone.
make_root() { # RELEASE FOLDER
    root=$PWD/build/releases/$2
    unpack_root "$1" || return 1
    mount --bind "$root" "$root" # to make its / a mount point
    for folder in dev sys; do mount --rbind "/$folder" "$root/$folder"; done
    mount -t proc proc "$root/proc"
    cp /etc/resolv.conf "$root/etc"
    git clone -q . "$root/root/tn_corvel"
}

# Runs a command in the clone, with the environment of a new user.
in_root() {
    env -i ${CI:+CI="$CI"} HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
        chroot "$root" sh -c 'cd /root/tn_corvel && exec "$@"' sh "$@" </dev/null
}

# The same, with its output on screen and in the log.
run() {
    in_root "$@" 2>&1 | tee -a "$log"
    return "${PIPESTATUS[0]}"
}

for release; do
    echo "=== Debian $release"
    if ! make_root "$release" "$release-packages"; then
        echo "no root of Debian's $release could be made"
        table+="$release: LEFT OUT, no root could be made"$'\n'
        failed=$((failed + 1))
        continue
    fi
    log=$PWD/build/releases/$release.log
    verdict=passed
    start=$SECONDS
    : >"$log"
    packages='built, and their tests passed'
    run sh -ec './scripts/package.sh; apt-get -qq -y install autopkgtest >/dev/null
        exec autopkgtest build/package/*.changes -- null' || packages=FAILED verdict=FAILED
    packages+=", $((SECONDS - start)) s"
    make_root "$release" "$release" || exit 1
    start=$SECONDS
    run ./scripts/demo.sh || verdict=FAILED
    demo=$SECONDS
    run ./scripts/test.sh || verdict=FAILED
    [ $verdict = passed ] || failed=$((failed + 1))
    table+="$release, $(sed -n 's/^PRETTY_NAME=//p' "$root/etc/os-release"): $verdict"$'\n'
    table+="  $(grep -m1 '^Linux ' "$log")"$'\n'
    table+="  packages $packages"$'\n'
    table+="  demo.sh $((demo - start)) s, test.sh $((SECONDS - demo)) s, of which"$'\n'
    table+="$(grep -E '^[a-z0-9+]+ +(passed|FAILED|LEFT OUT) +[0-9]+ s$' "$log" | sed 's/^/    /')"$'\n'
done

printf '\n%s' "$table"
[ "$failed" -eq 0 ]
