#!/usr/bin/env bash
# On command, as root, ten minutes: which lines and branches of src/ do the library's tests run? Lists
# the other lines, and fails below 97 percent.
set -eu
cd "$(dirname "$0")/../.."
. tools/packages.sh
packages_need gcovr iproute2
export CCACHE_DISABLE=1 # the counters belong to this directory
ftpd=${XBSA_FTPD:-${XDG_CACHE_HOME:-$HOME/.cache}/korva-xbsa/ftpd}
build=$PWD/build/coverage

mkdir -p "$build"
tools/servers.sh "$ftpd"
cmake --preset coverage -DXBSA_FTPD="$ftpd" >"$build.log"
cmake --build --preset coverage -j "$(nproc)" >>"$build.log"
find "$build" -name '*.gcda' -delete

# The tests that lose packets take minutes, so they run in parallel.
(
    cd tests/command
    XBSA_COVERAGE=1 XBSA_LIBRARY=$build/lib/libxbsa.so.1 XBSA_FTPD=$ftpd \
        PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=../harness python3 -m unittest test_network
) >"$build/network.log" 2>&1 &
network=$!
tools='^(beyond|bench|check|contract|format|frontdoor|interface|package|pages|sandbox.Load|tidy|tool|tracelog|zsh)'
failed=0
ctest --preset coverage -j "$(nproc)" -E "$tools" || failed=1
wait $network || { cat "$build/network.log" && failed=1; }
((failed == 0)) || exit 1

gcovr --root . --filter src/ --txt --fail-under-line 97 "$build/src"
gcovr --root . --filter src/ --txt --branches "$build/src" | tail -n 3
