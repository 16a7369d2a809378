#!/usr/bin/env bash
# Builds, tests and installs in clean roots of other Debian releases, newest first, one at a time.
#   tests/command/systems.sh [trixie|bookworm|bullseye]...    default: all three
#
# In each root it builds, tests the library, builds and installs the packages, runs the demonstration,
# removes and purges. Older roots also test the libxbsa.so.1 of the first one, as on a host with a
# package from a newer system. The last lines are a table; logs and roots remain in build/systems.
# Needs root, 3 GB and mmdebstrap, and uses this host's apt mirror.
set -eu
cd "$(dirname "$0")/../.."
. tools/packages.sh

work=$PWD/build/systems
rows=()

# What runs in the root, one function per column.
root_build() {
    # Debian 11 has no CLI11, so use the header of the next release.
    if [[ ! -e /usr/include/CLI/CLI.hpp ]]; then
        sed 's/bullseye/bookworm/' /etc/apt/sources.list >/etc/apt/sources.list.d/next.list
        (cd /tmp && apt-get -qq update && apt-get -qq download libcli11-dev/bookworm && dpkg -x libcli11*.deb /)
        rm /etc/apt/sources.list.d/next.list
        apt-get -qq update
    fi
    tools/servers.sh /ftpd
    cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DXBSA_TOOL=ON -DXBSA_FTPD=/ftpd
    cmake --build build/release -j "$(nproc)"
}

root_tests() { (cd build/release && ctest -L '^library$' -j 4 --output-on-failure); }

root_newer() {
    cp /newer/libxbsa.so.1 build/release/lib/libxbsa.so.1.0.0
    root_tests
}

root_packages() {
    cmake --build build/release --target package
    apt-get install -y --no-install-recommends ./build/release/packages/*.deb
    dpkg-query -W -f '${Package}: ${Depends}\n' libxbsa1
}

root_demo() { korva-xbsa-demo; }

root_purge() { # a removal, and a purge after a new installation, must leave nothing
    local way
    for way in "apt-get remove -y" "dpkg --purge"; do
        apt-get install -y --no-install-recommends ./build/release/packages/*.deb
        $way libxbsa1 libxbsa-dev xbsactl korva-xbsa korva-xbsa-dev korva-xbsa-sandbox
        ! find / -xdev \( -path /src -o -path /root/.cache -o -path /newer \) -prune -o \
            -name '*xbsa*' -print | grep . || return
    done
}

# Not with chroot, where no account can create the namespaces for a private /etc.
run() { # RELEASE STEP
    local root=$work/$1
    unshare --mount --pid --fork --kill-child bash -euc '
        mount --bind "$1" "$1"
        cd "$1"
        mount -t proc proc proc
        mount --rbind /dev dev
        pivot_root . mnt
        cd /
        umount -l /mnt
        exec nice -n 5 bash /src/tests/command/systems.sh --in-root "$2"' bash "$root" "$2"
}

make_root() { # RELEASE
    local mirror packages=g++,make,cmake,nlohmann-json3-dev,libssl-dev,libxxhash-dev,zlib1g-dev,dpkg-dev,file,python3
    packages+=,mount,binutils,strace,pkg-config,openssl,procps,iproute2,ca-certificates,xxhash
    [[ $1 == bullseye ]] || packages+=,libcli11-dev
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' | head -n 1)
    rm -rf "${work:?}/$1"
    mmdebstrap --quiet --mode=root --variant=apt --include=$packages "$1" "$work/$1" "$mirror"
    mkdir "$work/$1/src" "$work/$1/newer"
    [[ -e $work/$1/etc/hosts ]] || echo "127.0.0.1 localhost" >"$work/$1/etc/hosts" # otherwise the installer's task
    git ls-files -z --cached --others --exclude-standard | xargs -0 tar -c | tar -x -C "$work/$1/src"
    [[ ! -e $work/libxbsa.so.1 ]] || cp "$work/libxbsa.so.1" "$work/$1/newer"
}

try_all() { # RELEASE: adds a row
    local step result row log
    make_root "$1" >"$work/$1.root.log" 2>&1
    row="| $1 | $(chroot "$work/$1" sh -c 'g++ -dumpfullversion; ldd --version | sed -n "1s/.* //p"
        cmake --version | sed -n "1s/.* //p"' | paste -sd ' ' | sed 's/ / | /g')"
    for step in build tests packages demo purge newer; do
        log=$work/$1.$step.log result=-
        if [[ $step != newer || -e $work/$1/newer/libxbsa.so.1 ]]; then
            result=passed
            run "$1" "$step" >"$log" 2>&1 || result="**failed**"
            result+=$(sed -n 's/.* \([0-9]*\) tests failed out of \([0-9]*\)/ (\2, \1 failed)/p' "$log")
        fi
        echo "$1: $step: $result"
        row+=" | $result"
    done
    cp -n "$work/$1/src/build/release/lib/libxbsa.so.1" "$work" || true # keeps the first one's
    rows+=("$row | $(sed -n 's/^libxbsa1: //p' "$work/$1.packages.log") |")
}

if [[ ${1-} == --in-root ]]; then
    cd /src
    export DEBIAN_FRONTEND=noninteractive HOME=/root
    "root_$2"
    exit
fi

[[ $(id -u) == 0 ]] || { echo "systems.sh: only root can make a root" >&2; exit 1; }
packages_need mmdebstrap debian-archive-keyring git
mkdir -p "$work"
rm -f "$work/libxbsa.so.1"
[[ $# != 0 ]] || set -- trixie bookworm bullseye
for release in "$@"; do try_all "$release"; done
printf '%s\n' "| release | g++ | glibc | CMake | build | library's tests | packages | demo | remove, purge | \
tests on $1's library | libxbsa1 needs |" "|---|---|---|---|---|---|---|---|---|---|---|" "${rows[@]}"
[[ ${rows[*]} != *failed\*\** ]]
