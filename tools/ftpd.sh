# Shell functions that run a private FTP server (vsftpd) on 127.0.0.1 for the demonstration. Source
# this file from bash.
#
#   ftpd_start DIR PASSWORD
#       Starts the server in a new DIR, for the user "ftp". Sets FTPD_PORT and FTPD_DATA (the
#       directory of stored files). Returns 1 with a reason on standard error if it does not run.
#   ftpd_stop
#       Stops the server if it runs. Keeps DIR, which contains the log.
#
# Uses the installed server or unpacks one into a cache. It runs as the calling account; root runs it
# as nobody. It discards uploads that the client resets.

FTPD_PID=

ftpd_cache() { # prints the directory where the tests, too, keep the FTP servers
    echo "${XBSA_FTPD:-${XDG_CACHE_HOME:-${HOME:-$PWD/build}/.cache}/korva-xbsa/ftpd}"
}

ftpd_free_port() {
    python3 -c 'import socket
with socket.create_server(("127.0.0.1", 0)) as server: print(server.getsockname()[1])'
}

# Only the password keeps other accounts out: the server has the rights of the account that runs it.
ftpd_configure() { # DIR PASSWORD ACCOUNT
    (umask 077 && echo "$2" >"$1/password")
    cat >"$1/vsftpd.conf" <<CONFIGURATION
listen=YES
listen_address=127.0.0.1
listen_port=$FTPD_PORT
background=NO
run_as_launching_user=YES
seccomp_sandbox=NO
ftp_username=$3
secure_email_list_enable=YES
email_password_file=$1/password
anon_root=$1/data
anon_upload_enable=YES
anon_other_write_enable=YES
anon_world_readable_only=NO
anon_umask=022
write_enable=YES
delete_failed_uploads=YES
xferlog_enable=NO
CONFIGURATION
}

# Waits for the greeting while the process lives, at most ten seconds.
ftpd_wait() {
    local greeting= socket
    for _ in {1..200}; do
        kill -0 "$FTPD_PID" 2>/dev/null || return 1
        if { exec {socket}<>"/dev/tcp/127.0.0.1/$FTPD_PORT"; } 2>/dev/null; then
            read -r -t 10 greeting <&"$socket"
            exec {socket}>&-
            [[ $greeting == 220* ]] && return 0
        fi
        sleep 0.05
    done
    return 1
}

# Sets FTPD_COMMAND. The account nobody cannot read root's cache, so root makes a copy.
ftpd_provide() { # DIR
    local installed cache libraries
    installed=$(PATH=$PATH:/usr/sbin:/sbin type -P vsftpd) && FTPD_COMMAND=("$installed") && return 0
    cache=$(ftpd_cache)
    tools/servers.sh "$cache" vsftpd || return 1
    if [[ $(id -u) == 0 ]]; then
        cp -r "$cache" "$1/server" && cache=$1/server || return 1
    fi
    libraries=$(uname -m)-linux-gnu
    FTPD_COMMAND=(env "LD_LIBRARY_PATH=$cache/usr/lib/$libraries:$cache/lib/$libraries"
                  "$cache/usr/sbin/vsftpd")
}

ftpd_start() { # DIR PASSWORD
    local account command=(setpriv --pdeathsig TERM)
    mkdir -p "$1/data" && ftpd_provide "$1" || return 1
    account=$(id -un)
    if [[ $(id -u) == 0 ]]; then
        account=nobody
        command+=(--reuid nobody --regid "$(id -g nobody)" --clear-groups)
    fi
    FTPD_DATA=$1/data
    for _ in {1..5}; do # another process may have taken the port
        FTPD_PORT=$(ftpd_free_port) && ftpd_configure "$1" "$2" "$account" || return 1
        [[ $account != nobody ]] || chown nobody "$1"/{data,password,vsftpd.conf}
        "${command[@]}" "${FTPD_COMMAND[@]}" "$1/vsftpd.conf" >"$1/log" 2>&1 </dev/null &
        FTPD_PID=$!
        ftpd_wait && return 0
        ftpd_stop
    done
    echo "vsftpd does not start: $(tail -n 1 "$1/log")" >&2
    return 1
}

ftpd_stop() {
    [[ -n $FTPD_PID ]] || return 0
    kill "$FTPD_PID" 2>/dev/null
    wait "$FTPD_PID" 2>/dev/null
    FTPD_PID=
}
