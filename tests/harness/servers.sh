#!/bin/sh
# Unpacks the FTP daemons that the tests talk to into a folder, side by side: as installed packages
# they exclude each other. Needs no root. Usage: servers.sh FOLDER
set -eu
packages="proftpd-core vsftpd pure-ftpd python3-pyftpdlib libhiredis0.14 libmemcached11
    libmemcachedutil2 libpcre2-posix3 libwrap0 libcap2 libpam0g libidn2-0 libsasl2-2 libnsl2
    libtirpc3 libsodium23 libhashkit2"
mkdir -p "$1"
cd "$1"
[ "$(cat complete 2>/dev/null)" != "$packages" ] || exit 0 # another list: fetched again
apt-get download $packages || { echo "servers.sh: no FTP daemons: apt-get update?" >&2; exit 1; }
for package in *.deb; do dpkg -x "$package" .; done
rm -f ./*.deb
echo "$packages" >complete
