# Shell function that installs Debian packages. To be sourced by bash.
#
#   packages_need PACKAGE...
#       Installs those that are missing; root is asked for only then. Removes nothing: a package
#       that another one excludes is a failure. Returns 1 with a reason on standard error.

packages_as_root() {
    if [[ $(id -u) == 0 ]]; then "$@"; else sudo "$@"; fi
}

# A server that came as a package must not run beside the one that is started on purpose.
packages_silence() { # SERVICE
    [[ -e /etc/init.d/$1 || -e /lib/systemd/system/$1.service ]] || return 0
    packages_as_root invoke-rc.d "$1" stop >/dev/null 2>&1
    packages_as_root update-rc.d "$1" disable >/dev/null 2>&1
    return 0
}

packages_need() { # PACKAGE...
    local missing=() package install
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            missing+=("$package")
    done
    [[ ${#missing[@]} == 0 ]] && return 0

    install=(env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-remove
             --no-install-recommends "${missing[@]}")
    if [[ $(id -u) != 0 ]] && ! command -v sudo >/dev/null; then
        echo "missing packages: let root run apt-get install ${missing[*]}" >&2
        return 1
    fi
    echo "Installing ${missing[*]}"
    if ! { packages_as_root apt-get update -q && packages_as_root "${install[@]}"; } >/dev/null; then
        echo "packages could not be installed: ${missing[*]}" >&2
        return 1
    fi
    for package in "${missing[@]}"; do
        [[ $package != proftpd-core ]] || packages_silence proftpd
    done
}
