#!/usr/bin/env bash
# Builds and tests the library as other systems build it:
#   tests/command/hosts.sh fortify   all tests with glibc's checks at the highest level
#   tests/command/hosts.sh m32       32 bits; under qemu-i386 if the kernel runs no 32-bit programs
#   tests/command/hosts.sh musl      another C library
# The last two use the C host tests/harness/host.c; musl never unloads a library.
set -eu
cd "$(dirname "$0")/../.."
. tools/packages.sh

kind=${1:?usage: tests/command/hosts.sh fortify|m32|musl}
emulator=
case $kind in
musl) packages_need musl-tools ;;
m32)
    packages_need gcc-multilib g++-multilib
    probe=$(mktemp)
    trap 'rm -f "$probe"' EXIT
    echo 'int main(void) { return 0; }' | gcc -m32 -x c -o "$probe" -
    if ! "$probe" 2>/dev/null; then
        command -v qemu-i386 >/dev/null || packages_need qemu-user
        emulator=$(command -v qemu-i386)
    fi
    ;;
esac

ftpd=${XBSA_FTPD:-${XDG_CACHE_HOME:-${HOME:-$PWD/build}/.cache}/korva-xbsa/ftpd}
tools/servers.sh "$ftpd"
cmake --preset "$kind" -DXBSA_FTPD="$ftpd" -DCMAKE_CROSSCOMPILING_EMULATOR="$emulator"
cmake --build --preset "$kind" -j "$(nproc)"
exec ctest --preset "$kind" -j 4 "${@:2}"
