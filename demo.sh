#!/bin/bash
# Shows the library at work and uses both modes on 127.0.0.1. Plain mode: a real FTP server takes a file
# and a stream through xbsactl and gives them back. Informix mode: three processes back up three spaces
# at once to the sandbox, one of them is restored by its copy id. Everything that comes back is
# compared. In the source tree it builds first, and leaves nothing behind but what it built; once
# installed (korva-xbsa-demo) it takes the installed tool, or the one that XBSACTL names.
# Works on Debian and Ubuntu, as root or not; needs sudo only when packages are missing, or when this
# account may not have a private /etc.
set -u
[[ -z ${XBSACTL-} ]] || XBSACTL=$(readlink -f "$XBSACTL")
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")" || exit 1
. tools/packages.sh
. tools/proftpd.sh

fail() {
    echo "demo.sh failed: $*" >&2
    exit 1
}

say() { printf '\n== %s\n' "$*"; }

sum() { sha256sum "$@" | cut -d ' ' -f 1; }

build() {
    { cmake --preset release && cmake --build --preset release --parallel "$(nproc)"; } \
        >"$work/build.log" 2>&1 && return 0
    tail -n 30 "$work/build.log" >&2
    return 1
}

# A small shop with 50,000 orders, made on the spot: about 5 MB.
make_database() { # FILE
    sqlite3 "$1" <<'SQL'
CREATE TABLE orders (id INTEGER PRIMARY KEY, customer TEXT, note TEXT);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 50000)
INSERT INTO orders SELECT i, 'customer ' || (i % 997), hex(randomblob(32)) FROM n;
SQL
}

# Sets XBSACTL, in the source tree to what it builds there.
provide_tool() {
    if [[ -e CMakeLists.txt ]]; then
        say "Building"
        build || fail "the build failed"
        ls -l build/release/lib/libxbsa.so.1 build/release/bin/xbsactl
        XBSACTL=build/release/bin/xbsactl
    fi
    XBSACTL=$(readlink -f "${XBSACTL:-../../bin/xbsactl}")
    export XBSACTL # for the part that runs inside the sandbox
    "$XBSACTL" --version || fail "no xbsactl (package korva-xbsa)"
}

plain_mode() {
    local xbsactl=("$XBSACTL" --host "127.0.0.1:$PROFTPD_PORT" --user backup
                   --trace "2:$work/xbsa.log")
    export XBSA_PASSWORD=secret

    say "A file and a stream from a pipe go to the server"
    "${xbsactl[@]}" store shop.db "$work/shop.db" || fail "the file was not stored"
    sqlite3 "$work/shop.db" .dump | "${xbsactl[@]}" store shop.sql
    [[ ${PIPESTATUS[*]} == "0 0" ]] || fail "the stream was not stored"
    ls -l "$PROFTPD_DATA"

    say "And come back"
    "${xbsactl[@]}" restore shop.db "$work/restored.db" || fail "the file was not restored"
    "${xbsactl[@]}" restore shop.sql >"$work/restored.sql" || fail "the stream was not restored"
    sqlite3 "$work/shop.db" .dump >"$work/shop.sql"
    for name in shop.db:restored.db shop.sql:restored.sql; do
        printf '%s  %s\n' "$(sum "$work/${name%:*}")" "${name%:*}" \
            "$(sum "$work/${name#*:}")" "${name#*:}"
        cmp "$work/${name%:*}" "$work/${name#*:}" || fail "${name#*:} differs from ${name%:*}"
    done

    say "The last lines of the library's trace"
    tail -n 6 "$work/xbsa.log"
}

# What runs inside the sandbox: demo.sh --informix FOLDER
informix_mode() { # FOLDER, which the caller clears away
    local work=$1 xbsactl=("$XBSACTL" --informix) space pids=() copy
    export XBSA_TRACE=2

    say "Three processes back up three spaces at once"
    for space in rootdbs datadbs logdbs; do
        head -c 3000000 /dev/urandom >"$work/$space"
        XBSA_LOGFILE=$work/$space.log "${xbsactl[@]}" store --space "$space" level0 "$work/$space" &
        pids+=($!)
    done
    for pid in "${pids[@]}"; do wait "$pid" || fail "a space was not stored"; done

    export XBSA_LOGFILE=$work/query.log
    say "The copies that a query offers"
    for space in rootdbs datadbs logdbs; do
        "${xbsactl[@]}" query --space "$space" level0 | sed "$([[ $space == rootdbs ]] || echo 1d)"
        [[ ${PIPESTATUS[0]} == 0 ]] || fail "$space is not offered"
    done

    say "One comes back by its copy id"
    copy=$("${xbsactl[@]}" query --space datadbs level0 --json | grep -o '"copy_id": *[0-9]*' |
        grep -o '[0-9]*$') || fail "no copy id"
    "${xbsactl[@]}" restore --space datadbs level0 "$work/datadbs.back" --copy-id "$copy" ||
        fail "datadbs was not restored"
    printf '%s  %s\n' "$(sum "$work/datadbs")" stored "$(sum "$work/datadbs.back")" restored
    cmp "$work/datadbs" "$work/datadbs.back" || fail "datadbs came back different"

    say "What the library ran for it"
    grep -ho 'COM COMMAND: .*' "$work/datadbs.log"
}

# Where accounts may not make namespaces, as on newer Ubuntu, root runs the sandbox for them.
as_root=()
provide_namespace() {
    [[ $(id -u) != 0 ]] && ! sandbox/run --exec true >/dev/null 2>&1 || return 0
    command -v sudo >/dev/null || return 0 # the sandbox tells why
    echo "This account may not have a private /etc: asking root, with sudo"
    as_root=(sudo env "XBSACTL=$XBSACTL")
}

if [[ ${1-} == --informix ]]; then
    informix_mode "$2"
    exit
fi

work= korva=
finish() {
    local code=$?
    proftpd_stop
    [[ -z $korva ]] || "${as_root[@]}" rm -rf "$korva"
    [[ -z $work ]] || rm -rf "$work"
    exit "$code"
}
trap finish EXIT
trap 'exit 1' HUP INT TERM

work=$(mktemp -d) || fail "no temporary folder"
chmod 755 "$work" # root runs the FTP server as nobody
needed=(openssl python3 proftpd-core sqlite3)
[[ ! -e CMakeLists.txt ]] || needed+=(g++ make cmake libcli11-dev nlohmann-json3-dev libssl-dev)
packages_need "${needed[@]}" || fail "packages are missing"
provide_tool

say "Starting ProFTPD"
proftpd_start "$work/ftp" backup secret || fail "no FTP server"
echo "ProFTPD listens on 127.0.0.1:$PROFTPD_PORT"
make_database "$work/shop.db" || fail "no data to store"

plain_mode

say "Informix mode, on the sandbox"
provide_namespace
korva=$("${as_root[@]}" mktemp -d) || fail "no temporary folder" # root works in no other account's
"${as_root[@]}" sandbox/run --folder "$korva/sandbox" --exec "$PWD/demo.sh" --informix "$korva" ||
    fail "Informix mode failed"
say "The sandbox's catalogue"
"${as_root[@]}" sandbox/run --folder "$korva/sandbox" --catalogue || fail "no catalogue"

printf '\nSuccess: in both modes what was stored came back byte for byte.\n'
