#!/usr/bin/env bash
# Shows the library at work: builds it, starts a real FTP server on 127.0.0.1, stores a file and a
# stream through xbsactl, restores both and compares. Leaves nothing behind but build/release.
# Works on Debian and Ubuntu, as root or not; installs packages only when some are missing.
set -u
cd "$(dirname "${BASH_SOURCE[0]}")" || exit 1
. tools/packages.sh
. tools/proftpd.sh

work=
finish() {
    local code=$?
    proftpd_stop
    [[ -z $work ]] || rm -rf "$work"
    exit "$code"
}
trap finish EXIT
trap 'exit 1' HUP INT TERM

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

plain_road() {
    local xbsactl=(build/release/bin/xbsactl --host "127.0.0.1:$PROFTPD_PORT" --user backup
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

work=$(mktemp -d) || fail "no temporary folder"
chmod 755 "$work" # root runs the FTP server as nobody
packages_need g++ make cmake libcli11-dev nlohmann-json3-dev libssl-dev openssl python3 \
    proftpd-core sqlite3 || fail "packages are missing"

say "Building"
build || fail "the build failed"
ls -l build/release/lib/libxbsa.so.1 build/release/bin/xbsactl

say "Starting ProFTPD"
proftpd_start "$work/ftp" backup secret || fail "no FTP server"
echo "ProFTPD listens on 127.0.0.1:$PROFTPD_PORT"
make_database "$work/shop.db" || fail "no data to store"

plain_road

printf '\nSuccess: what was stored came back byte for byte.\n'
