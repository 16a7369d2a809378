#!/bin/bash
# Demonstrates the library in both modes on 127.0.0.1. Plain mode: xbsactl stores files and a stream on
# a real FTP server and restores them. Informix mode: three processes back up three spaces at once to
# the sandbox, then one space is restored by its copy id, and all are compared with the journal. In the source
# tree the script builds first; installed as korva-xbsa-demo it uses the installed tool, or the one
# that XBSACTL names. It leaves what it built, the packages for the build and an FTP server (vsftpd) in
# ~/.cache/korva-xbsa, unless vsftpd is installed. Works on Debian and Ubuntu, as root or not. Needs
# sudo only if packages are missing or this account may not have a private /etc.
set -u
[[ -z ${XBSACTL-} ]] || XBSACTL=$(readlink -f "$XBSACTL")
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")" || exit 1
. tools/ftpd.sh

fail() {
    echo "demo.sh failed: $*" >&2
    exit 1
}

say() { printf '\n== %s\n' "$*"; }

same() { # STORED RESTORED
    cmp "$1" "$2" || fail "${1##*/} differs after the restore"
    echo "the same: ${1##*/}"
}

build() {
    { cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release &&
        cmake --build build/release --target xbsa xbsactl --parallel "$(nproc)"; } \
        >"$work/build.log" 2>&1 && return 0
    tail -n 30 "$work/build.log" >&2
    return 1
}

# A small shop with 50,000 orders, about 5 MB, and a file of 200 MB, which is enough to measure rates.
make_data() {
    python3 - "$work/shop.db" <<'PYTHON' &&
import os
import sqlite3
import sys

with sqlite3.connect(sys.argv[1]) as shop:
    shop.execute("CREATE TABLE orders (id INTEGER PRIMARY KEY, customer TEXT, note TEXT)")
    shop.executemany("INSERT INTO orders VALUES (?, ?, ?)", (
        (i, f"customer {i % 997}", os.urandom(32).hex()) for i in range(50000)))
PYTHON
        head -c 200000000 /dev/urandom >"$work/big.img"
}

# Sets XBSACTL; in the source tree it builds the tool first.
provide_tool() {
    if [[ -e CMakeLists.txt ]]; then
        . tools/packages.sh
        packages_need g++ make cmake libcli11-dev nlohmann-json3-dev libssl-dev libxxhash-dev zlib1g-dev python3 ||
            fail "packages are missing"
        say "Building"
        build || fail "the build failed"
        ls -l build/release/lib/libxbsa.so.1 build/release/bin/xbsactl
        XBSACTL=build/release/bin/xbsactl
    fi
    XBSACTL=$(readlink -f "${XBSACTL:-../../bin/xbsactl}")
    export XBSACTL # for the part that runs inside the sandbox
    "$XBSACTL" --version || fail "no xbsactl (package xbsactl)"
}

plain_mode() {
    local xbsactl=("$XBSACTL" --host "127.0.0.1:$FTPD_PORT" --user ftp --trace "2:$work/xbsa.log")

    say "Two files and a stream from a pipe go to the server"
    "${xbsactl[@]}" store big.img "$work/big.img" || fail "big.img was not stored"
    "${xbsactl[@]}" store shop.db "$work/shop.db" || fail "shop.db was not stored"
    tar -C "$work" -c shop.db | "${xbsactl[@]}" store shop.tar
    [[ ${PIPESTATUS[*]} == "0 0" ]] || fail "the stream was not stored"
    ls -l "$FTPD_DATA"

    say "And come back"
    "${xbsactl[@]}" restore big.img | same "$work/big.img" -
    [[ ${PIPESTATUS[*]} == "0 0" ]] || fail "big.img was not restored"
    "${xbsactl[@]}" restore shop.db "$work/restored.db" || fail "shop.db was not restored"
    same "$work/shop.db" "$work/restored.db"
    mkdir "$work/stream" && "${xbsactl[@]}" restore shop.tar | tar -C "$work/stream" -x
    [[ ${PIPESTATUS[*]} == "0 0" ]] || fail "the stream was not restored"
    same "$work/shop.db" "$work/stream/shop.db"

    say "The last lines of the library's trace"
    tail -n 6 "$work/xbsa.log"
}

# What runs inside the sandbox: demo.sh --informix FOLDER
informix_mode() { # FOLDER, which the caller removes
    local work=$1 xbsactl=("$XBSACTL" --informix) space pids=() copy
    export XBSA_TRACE=2 KORVA_JOURNAL=$work/journal

    say "Three processes back up three dbspaces at once"
    for space in rootdbs datadbs logdbs; do
        head -c 3000000 /dev/urandom >"$work/$space"
        XBSA_LOGFILE=$work/$space.log "${xbsactl[@]}" store --space demo_tcp "$space" "$work/$space" &
        pids+=($!)
    done
    for pid in "${pids[@]}"; do wait "$pid" || fail "a dbspace was not stored"; done

    export XBSA_LOGFILE=$work/query.log
    say "The copies that a query offers"
    for space in rootdbs datadbs logdbs; do
        "${xbsactl[@]}" query --space demo_tcp "$space" | sed "$([[ $space == rootdbs ]] || echo 1d)"
        [[ ${PIPESTATUS[0]} == 0 ]] || fail "$space is not offered"
    done

    say "One comes back by its copy id"
    copy=$("${xbsactl[@]}" query --space demo_tcp datadbs --json | grep -o '"copy_id": *[0-9]*' |
        grep -o '[0-9]*$') || fail "no copy id"
    "${xbsactl[@]}" restore --space demo_tcp datadbs "$work/datadbs.back" --copy-id "$copy" ||
        fail "datadbs was not restored"
    same "$work/datadbs" "$work/datadbs.back"

    say "The commands that the library ran for it"
    grep -ho 'COM COMMAND: .*' "$work/datadbs.log"

    morning_after "$work"
}

# What the library's journal is good for.
morning_after() { # DIRECTORY
    local object
    export XBSA_LOGFILE=$1/verify.log

    say "The morning after: the report shows what was stored"
    "$XBSACTL" report --max-age 25h || fail "the report found a fault"

    say "All newest copies are read back and compared with the journal"
    "$XBSACTL" --informix verify --journal "$KORVA_JOURNAL" --newest --jobs 3 ||
        fail "an object differs"

    say "A byte of a stored object is changed, and verify finds it"
    for object in "$1"/sandbox/objects/*; do
        cmp -s "$object" "$1/datadbs" || continue
        printf '%s' "$(head -c 1 "$object" | grep -q x && echo y || echo x)" |
            dd of="$object" conv=notrunc status=none || fail "no byte was changed"
    done
    ! "$XBSACTL" --informix verify --journal "$KORVA_JOURNAL" --newest --jobs 3 ||
        fail "the changed byte was not noticed"
}

# If this account may not create namespaces, as on newer Ubuntu, root runs the sandbox.
as_root=()
provide_namespace() {
    local reason
    [[ $(id -u) != 0 ]] || return 0
    reason=$(PYTHONDONTWRITEBYTECODE=1 sandbox/run --exec true 2>&1) && return 0
    echo "This account may not have a private /etc: asking root, with sudo"
    command -v sudo >/dev/null && sudo true && as_root=(sudo) && return 0
    cat >&2 <<REASON
${reason%%;*}
Plain mode works, see above. Informix mode needs a private /etc, but this account can use neither user
namespaces nor sudo.
hint: run demo.sh as root, or let root allow user namespaces for all accounts, with the one of these
settings that this system has:
    sysctl kernel.unprivileged_userns_clone=1                  # older Debian
    sysctl kernel.apparmor_restrict_unprivileged_userns=0      # Ubuntu
    sysctl user.max_user_namespaces=10000
REASON
    return 1
}

# Keeps Python's compiled files out of the source tree.
sandbox() {
    "${as_root[@]}" env "XBSACTL=$XBSACTL" "PYTHONPYCACHEPREFIX=$korva/compiled" sandbox/run \
        --folder "$korva/sandbox" "$@"
}

if [[ ${1-} == --informix ]]; then
    informix_mode "$2"
    exit
fi

work= korva=
finish() {
    local code=$?
    trap '' HUP INT QUIT PIPE TERM
    ftpd_stop
    [[ -z $korva ]] || "${as_root[@]}" rm -rf "$korva"
    [[ -z $work ]] || rm -rf "$work"
    exit "$code"
}
trap finish EXIT
trap 'exit 1' HUP INT QUIT PIPE TERM

work=$(mktemp -d) || fail "cannot create a temporary directory"
chmod 755 "$work" # root runs the FTP server as nobody
[[ $(df -Pk "$work" | awk 'NR == 2 { print $4 }') -ge 500000 ]] ||
    fail "${TMPDIR:-/tmp} has less than 500 MB of free space: set TMPDIR to another directory"
provide_tool

say "Starting an FTP server"
XBSA_PASSWORD=$(od -An -N 16 -tx1 /dev/urandom | tr -d ' \n')
export XBSA_PASSWORD
ftpd_start "$work/ftp" "$XBSA_PASSWORD" || fail "no FTP server"
echo "vsftpd listens on 127.0.0.1:$FTPD_PORT"
make_data || fail "no data to store"

plain_mode

say "Informix mode, on the sandbox"
provide_namespace || fail "Informix mode was not tried"
korva=$("${as_root[@]}" mktemp -d) || fail "cannot create a temporary directory" # root uses no other account's
sandbox --exec "$PWD/demo.sh" --informix "$korva" || fail "Informix mode failed"
say "The sandbox's catalogue"
sandbox --catalogue || fail "no catalogue"

printf '\nSuccess: in both modes what was stored came back byte for byte.\n'
