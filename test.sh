#!/usr/bin/env bash
# Builds the release and the sanitizer variant and runs every test on both. Installs missing packages,
# which needs root. The last lines are the test runner's summary.
set -eu
cd "$(dirname "$0")"
. tools/packages.sh

packages_need g++ cmake make python3 binutils clang-format clang-tidy clang-tools libcli11-dev \
    nlohmann-json3-dev libssl-dev libxxhash-dev zlib1g-dev xxhash dpkg-dev file pkg-config clang libclang-rt-dev \
    strace valgrind

# Some tests and the benchmark need these; without them the other tests still run.
wanted=(lintian rpm zsh man-db mandoc rclone postgresql python3-psycopg2 curl lftp git codespell aspell aspell-en)
untested=$(packages_want "${wanted[@]}")

# Downloaded once for all checkouts of this account.
ftpd=${XBSA_FTPD:-${XDG_CACHE_HOME:-${HOME:-$PWD/build}/.cache}/korva-xbsa/ftpd}
tools/servers.sh "$ftpd"

for preset in release asan; do
    cmake --preset $preset -DXBSA_TOOL=ON -DXBSA_TESTS=ON -DXBSA_FTPD="$ftpd"
    cmake --build --preset $preset -j "$(nproc)"
done
echo 'subdirs(release asan)' >build/CTestTestfile.cmake # one run with one summary
[[ -z $untested ]] || echo "$untested"
exec ctest --test-dir build --output-on-failure -j 4
