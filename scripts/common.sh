# shellcheck shell=bash disable=SC2034 # used by the scripts that source it
# Sourced by the scripts: answers --help, goes to the project's folder, and installs packages.
PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH # Debian's own programs first
script=$(realpath "$0")

# Prints the comment that a script begins with.
usage() {
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$script"
}

# Reports a bad argument and exits with 2.
refuse() {
    echo "${script##*/}: $*" >&2
    usage >&2
    exit 2
}

takes_no_arguments() { [ $# -eq 0 ] || refuse "unknown argument: $1"; }

case ${1-} in -h | --help) usage && exit ;; esac
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
case $PWD in *[:\;]*)
    echo "the loader takes no folder with a ':' or ';' in its name, please move this one: $PWD" >&2
    exit 2 ;;
esac

# Shared by all checkouts.
cache=${XDG_CACHE_HOME:-${HOME:-/var/tmp}/.cache}/tn_corvel

build_packages=(g++ cmake ninja-build pkg-config libnl-3-dev libnl-route-3-dev)
docs_packages=(doxygen)

run_as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "needs root or sudo: $*" >&2
        return 1
    fi
}

# Installs the named Debian packages that are missing.
install_packages() {
    local missing=()
    for package; do
        status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) || true
        [ "$status" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    echo "Installing: ${missing[*]}"
    run_as_root apt-get -qq update &&
        run_as_root env DEBIAN_FRONTEND=noninteractive \
            apt-get -qq -y --no-install-recommends install "${missing[@]}" </dev/null >/dev/null
}

# The address of this machine's Debian mirror.
debian_mirror() {
    for attempt in 1 2; do
        address=$(apt-get indextargets --format '$(REPO_URI)' \
            'Created-By: Packages' 'Origin: Debian' 'Label: Debian' | head -n 1)
        [ -z "$address" ] || { echo "$address" && return; }
        run_as_root apt-get -qq update >&2
    done
    echo "apt knows no source of Debian's packages" >&2
    return 1
}

# Debian's releases, by the version of their kernel and by name.
declare -A releases=([5.10]=bullseye [6.1]=bookworm [6.12]=trixie [newest]=sid
    [bullseye]=bullseye [bookworm]=bookworm [trixie]=trixie [forky]=forky [sid]=sid)

# Runs a command whose output is shown only if it fails.
quietly() {
    local output
    output=$("$@" 2>&1) || { printf '%s\n' "$output"; return 1; }
}

# Succeeds if a command fails. Unlike "!", it counts under set -e.
fails() { ! "$@"; }

# Tries a command for at least 40 s until it succeeds.
eventually() {
    for _ in {1..400}; do
        ! "$@" || return 0
        sleep 0.1
    done
    "$@"
}

# For throw-away roots only: a mirror may be older than the period for which sid's lists are valid.
mirror_may_be_old='Acquire::Check-Valid-Until "false"; Acquire::Retries "3"'
