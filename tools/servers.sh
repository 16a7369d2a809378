#!/bin/sh
# Unpacks FTP daemons into a directory instead of installing them, because the packages conflict and start
# the daemons. Does not need root. Usage:
#   servers.sh DIR           all daemons of the tests
#   servers.sh DIR PACKAGE   one daemon, with the libraries that this system lacks
set -eu
all="proftpd-core vsftpd pure-ftpd"
mkdir -p "$1"
cd "$1"
complete=complete${2+.$2}
[ "$(cat complete 2>/dev/null)" != "$all" ] || exit 0 # fetch again for another list
[ "$complete" = complete ] || [ ! -e "$complete" ] || exit 0
command -v apt-get >/dev/null || { echo "servers.sh: apt-get is missing; install ${2-the servers} yourself" >&2; exit 1; }

# Resolves the packages one by one, because they conflict.
wanted() { # APT-OPTION... prints the packages to fetch
    [ "$complete" = complete ] || all=${complete#*.}
    for server in $all; do
        plan=$(apt-get "$@" -s -qq --no-install-recommends --reinstall install "$server") || return
        echo "$plan"
    done >plan && sed -n 's/^Inst \([^ ]*\).*/\1/p' plan | sort -u
}

fetch() { # APT-OPTION...
    packages=$(wanted "$@") && [ -n "$packages" ] && apt-get "$@" -qq download $packages
}

# The system's package lists may be missing or old; our own lists need no root and are removed again.
fetch_with_lists() {
    mkdir -p lists/partial
    set -- -o "Dir::State::Lists=$PWD/lists" -o "Dir::Cache=$PWD/lists"
    apt-get "$@" -qq update && fetch "$@"
}

trap 'rm -rf lists plan ./*.deb' EXIT
fetch >/dev/null 2>&1 || fetch_with_lists >&2 || {
    echo "servers.sh: downloading the packages failed, see above" >&2
    exit 1
}
for package in *.deb; do dpkg -x "$package" .; done
echo "$all" >"$complete"
