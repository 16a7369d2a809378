#!/bin/sh
# Builds the release and the sanitizer variant and runs every test on both. Installs what is missing
# (through sudo when not root). The last lines are the test runner's summary.
set -eu
cd "$(dirname "$0")"

packages="g++ cmake make python3 binutils clang-format clang-tidy clang-tools libcli11-dev libssl-dev"
missing=$(for name in $packages; do
    dpkg-query -W -f '${Status}' "$name" 2>/dev/null | grep -q 'ok installed' || echo "$name"
done)
as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
if [ -n "$missing" ]; then
    as_root apt-get update
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing
fi
tests/servers.sh build/ftpd

for preset in release asan; do
    cmake --preset $preset
    cmake --build --preset $preset -j "$(nproc)"
done
echo 'subdirs(release asan)' >build/CTestTestfile.cmake # one run, one summary
exec ctest --test-dir build --output-on-failure -j 4
