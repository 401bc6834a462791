# shellcheck shell=bash disable=SC2034 # used by the scripts that source it
# Sourced by the scripts: answers --help, goes to the project's folder, and installs packages.
PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH # Debian's own programs, before others of their names
script=$(realpath "$0")

# Prints the comment that a script begins with.
usage() {
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$script"
}

# Ends a script that was given words which it does not know.
refuse() {
    echo "${script##*/}: $*" >&2
    usage >&2
    exit 2
}

# The same for a script that knows none.
takes_no_words() {
    [ $# -eq 0 ] || refuse "unknown word: $1"
}

case ${1-} in -h | --help) usage && exit ;; esac
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
case $PWD in *[:\;]*)
    echo "the loader takes no folder with a ':' or ';' in its name, please move this one: $PWD" >&2
    exit 2 ;;
esac

# What is made once and used by all checkouts.
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

# Installs those of the named Debian packages that are missing.
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

# The address that this machine gets Debian's packages from.
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

# Tries a command until it succeeds, for 40 s and more.
eventually() {
    for _ in {1..400}; do
        ! "$@" || return 0
        sleep 0.1
    done
    "$@"
}

# A mirror may stand still for longer than sid's lists are valid; this is for throw-away roots alone.
mirror_may_be_old='Acquire::Check-Valid-Until "false"; Acquire::Retries "3"'
