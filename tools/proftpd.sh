# Shell functions that run a private ProFTPD on 127.0.0.1, for the demonstration and the tests. To
# be sourced by bash.
#
#   proftpd_start FOLDER USER PASSWORD
#       Starts it with a new FOLDER of its own and one virtual user; sets PROFTPD_PORT and
#       PROFTPD_DATA (the user's folder, which the caller may read). Returns 1 with a reason on
#       standard error when it does not run.
#   proftpd_stop
#       Stops it, if it runs. FOLDER stays: it holds the log.
#
# It runs as the calling account; root runs it as nobody. Stores are hidden until they are whole,
# and one that the client resets is thrown away.

PROFTPD_PID=

# A port whose lower neighbour is free as well: active mode sends data from there.
proftpd_free_port() {
    python3 - <<'PYTHON'
import socket

for _ in range(100):
    with socket.socket() as port, socket.socket() as neighbour:
        port.bind(("127.0.0.1", 0))
        try:
            neighbour.bind(("127.0.0.1", port.getsockname()[1] - 1))
        except OSError:
            continue
        print(port.getsockname()[1])
        break
PYTHON
}

proftpd_configure() { # FOLDER USER PASSWORD ACCOUNT
    local uid gid hash
    uid=$(id -u "$4") && gid=$(id -g "$4") || return 1
    hash=$(openssl passwd -6 -stdin <<<"$3") || return 1
    printf '%s:%s:%s:%s::%s:/bin/false\n' "$2" "$hash" "$uid" "$gid" "$1/data" >"$1/users"
    cat >"$1/proftpd.conf" <<CONFIGURATION
ServerName            "Korva XBSA"
ServerType            standalone
DefaultAddress        127.0.0.1
SocketBindTight       on
Port                  $PROFTPD_PORT
UseIPv6               off
UseReverseDNS         off
User                  $4
Group                 $(id -gn "$4")
AuthUserFile          $1/users
AuthOrder             mod_auth_file.c
RequireValidShell     off
AllowOverwrite        on
HiddenStores          on
DeleteAbortedStores   on
PidFile               $1/pid
ScoreboardFile        $1/scoreboard
WtmpLog               off
TransferLog           none
<IfModule mod_delay.c>
  DelayEngine         off
</IfModule>
CONFIGURATION
    chmod 600 "$1/users"
}

# Waits for the greeting, while the process lives, for ten seconds at most.
proftpd_wait() {
    local greeting=
    for _ in {1..200}; do
        kill -0 "$PROFTPD_PID" 2>/dev/null || return 1
        if { exec {PROFTPD_SOCKET}<>"/dev/tcp/127.0.0.1/$PROFTPD_PORT"; } 2>/dev/null; then
            read -r -t 10 greeting <&"$PROFTPD_SOCKET"
            exec {PROFTPD_SOCKET}>&-
            [[ $greeting == 220* ]] && return 0
        fi
        sleep 0.05
    done
    return 1
}

proftpd_start() { # FOLDER USER PASSWORD
    local account command=()
    account=$(id -un)
    command=("$(PATH=$PATH:/usr/sbin:/sbin type -P proftpd)")
    if [[ -z ${command[0]} ]]; then
        echo "proftpd is not installed (package proftpd-core)" >&2
        return 1
    fi
    mkdir -p "$1/data" || return 1
    if [[ $(id -u) == 0 ]]; then
        account=nobody
        command=(setpriv --reuid "$account" --regid "$(id -g "$account")" --clear-groups
                 "${command[@]}")
    fi
    export PROFTPD_DATA=$1/data
    for _ in {1..5}; do # another process may take the port meanwhile
        PROFTPD_PORT=$(proftpd_free_port)
        proftpd_configure "$1" "$2" "$3" "$account" || return 1
        [[ $account == nobody ]] && chown -R "$account" "$1"
        "${command[@]}" -n -c "$1/proftpd.conf" >"$1/proftpd.log" 2>&1 </dev/null &
        PROFTPD_PID=$!
        proftpd_wait && return 0
        proftpd_stop
    done
    echo "proftpd does not start: $(tail -n 1 "$1/proftpd.log")" >&2
    return 1
}

proftpd_stop() {
    [[ -n $PROFTPD_PID ]] || return 0
    kill "$PROFTPD_PID" 2>/dev/null
    wait "$PROFTPD_PID" 2>/dev/null
    PROFTPD_PID=
}
