# Sourced by the scripts: goes to the project's folder, and installs packages.
cd "$(dirname "$0")/.." || exit 1

build_packages='g++ cmake ninja-build pkg-config libnl-3-dev libnl-route-3-dev'

# Installs those of the named Debian packages that are missing.
install_packages() {
    missing=
    for package; do
        status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) || true
        [ "$status" = installed ] || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    echo "Installing:$missing"
    root=
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || { echo "needs root or sudo to install$missing" >&2; exit 1; }
        root=sudo
    fi
    $root apt-get -qq update
    $root env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -y --no-install-recommends install $missing </dev/null >/dev/null
}
