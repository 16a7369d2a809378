# Shell functions that install Debian packages. Source this file from bash.
#
#   packages_need PACKAGE...
#       Installs missing packages, which needs root. Never removes a package, so a conflict is a
#       failure. Returns 1 with a reason on standard error.
#   packages_want PACKAGE...
#       Tries the same once, without asking for a password, and continues without them. Lists those
#       that are missing, so that nobody takes their tests for passed.

packages_as_root() {
    if [[ $(id -u) == 0 ]]; then "$@"; else sudo "$@"; fi
}

# An installed server must not run beside the one that we start.
packages_silence() { # SERVICE
    [[ -e /etc/init.d/$1 || -e /lib/systemd/system/$1.service ]] || return 0
    packages_as_root invoke-rc.d "$1" stop >/dev/null 2>&1
    packages_as_root update-rc.d "$1" disable >/dev/null 2>&1
    return 0
}

packages_missing() { # PACKAGE... prints those that are not installed
    local package
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            echo "$package"
    done
}

packages_need() { # PACKAGE...
    local missing install
    mapfile -t missing < <(packages_missing "$@")
    [[ ${#missing[@]} == 0 ]] && return 0

    install=(env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-remove
             --no-install-recommends "${missing[@]}")
    if [[ $(id -u) != 0 ]] && ! { command -v sudo >/dev/null && sudo true; }; then
        echo "packages are missing, and this account may not install them: ${missing[*]}" >&2
        echo "hint: run as root: apt-get install --no-install-recommends ${missing[*]}" >&2
        return 1
    fi
    echo "Installing ${missing[*]}"
    if ! { packages_as_root apt-get update -q && packages_as_root "${install[@]}"; } >/dev/null; then
        echo "installing packages failed: ${missing[*]}" >&2
        return 1
    fi
}

# One short look-up without retries, so that a machine without network does not wait.
packages_try() { # PACKAGE...
    local package sudo=() apt=(apt-get -q -o Acquire::Retries=0 -o Acquire::http::Timeout=10
                       -o Acquire::https::Timeout=10)
    [[ $(id -u) == 0 ]] || sudo=(sudo -n)
    apt=("${sudo[@]}" env DEBIAN_FRONTEND=noninteractive "RES_OPTIONS=timeout:2 attempts:1"
         timeout 300 "${apt[@]}")
    "${apt[@]}" -o APT::Update::Error-Mode=any update || return 0
    for package in "$@"; do
        "${apt[@]}" install -y --no-remove --no-install-recommends "$package" || continue
        [[ $package != postgresql ]] || packages_silence postgresql
    done
}

packages_want() { # PACKAGE...
    local missing
    mapfile -t missing < <(packages_missing "$@")
    [[ ${#missing[@]} == 0 ]] && return 0
    packages_try "${missing[@]}" </dev/null >/dev/null 2>&1 || true
    mapfile -t missing < <(packages_missing "${missing[@]}")
    [[ ${#missing[@]} == 0 ]] || echo "Not installed, so their tests do not run here: ${missing[*]}"
}
