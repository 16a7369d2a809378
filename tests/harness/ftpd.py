"""Real FTP servers, unpacked by servers.sh: each connection gets its own process, as from inetd."""
import grp
import os
import pathlib
import pwd
import re
import select
import shutil
import socket
import subprocess
import tempfile
import threading

DEADLINE = 200
ROOT = os.environ["XBSA_FTPD"]
LIBRARIES = f"lib/{os.uname().machine}-linux-gnu"
ENV = {"PATH": os.environ["PATH"], "XBSA_FTPD": ROOT,
       "LD_LIBRARY_PATH": f"{ROOT}/usr/{LIBRARIES}:{ROOT}/{LIBRARIES}"}

# Options, separated by semicolons. An aborted store leaves what was there before.
PROFTPD = """ServerType inetd;Port 0;DefaultAddress 127.0.0.1;User {user};Group {group};RootLogin on;
    UseFtpUsers off;RequireValidShell off;AuthUserFile {folder}/passwd;AuthOrder mod_auth_file.c;AllowOverwrite on;
    HiddenStores on;DeleteAbortedStores on;UseReverseDNS off;WtmpLog off;PidFile {folder}/pid;
    ScoreboardFile none;SystemLog {folder}/log;TransferLog none;TimeoutIdle {limit};
    TimeoutStalled {limit};TimeoutNoTransfer {limit};"""
# What lists and transfers is built in, or in newer releases a module.
PROFTPD = "".join([f"ModulePath {ROOT}/usr/lib/proftpd;", *(
    f"LoadModule {name}.c;" for name in ("mod_xfer", "mod_ls")
    if os.path.exists(f"{ROOT}/usr/lib/proftpd/{name}.so")), PROFTPD])
# An aborted store leaves nothing.
VSFTPD = """listen=NO;run_as_launching_user=YES;ftp_username={user};no_anon_password=YES;
    anon_root={folder}/data;anon_upload_enable=YES;anon_other_write_enable=YES;
    anon_world_readable_only=NO;write_enable=YES;delete_failed_uploads=YES;seccomp_sandbox=NO;
    data_connection_timeout={limit};idle_session_timeout={limit};"""
NOBODY = pwd.getpwnam("nobody")[2:4]
PASSWORD = "$1$abcdefgh$cHJi5PXp/ki/ktXzqlk6I1"  # of "secret"


class Daemon:
    """Listens, and starts one server process for each connection, in a process group of its own whose
    number ends the file groups. Stored objects lie in data, what the server had to say in the file
    log. limit: seconds of idleness that the servers stand; most: connections that are served."""

    def __init__(self, name, limit=300, most=None):
        self.most = most
        self.folder = tempfile.mkdtemp(prefix="ftpd")
        self.data = os.path.join(self.folder, "data")
        os.mkdir(self.data)
        account, group = pwd.getpwuid(os.getuid()).pw_name, grp.getgrgid(os.getgid()).gr_name
        conf = (PROFTPD if name == "proftpd" else VSFTPD).format(
            user=account, group=group, folder=self.folder, limit=limit)
        self._write("conf", re.sub(r";\s*", "\n", conf))
        entry = f"{os.getuid()}:{os.getgid()}::{self.data}:/bin/sh"
        if name == "pure-ftpd":  # to be started by root, and serves nobody of that name, shut in
            entry = f"{NOBODY[0]}:{NOBODY[1]}::{self.data}/./{12 * ':'}"
        self._write("passwd", f"backup:{PASSWORD}:{entry}\n")
        self.owner = b"user=ftp:pass=" if name == "vsftpd" else b"user=backup:pass=secret"
        conf, users, banner = (os.path.join(self.folder, file) for file in ("conf", "db", "banner"))
        if name == "pure-ftpd":
            os.chown(self.data, *NOBODY)
            self._write("banner", "ready\n")  # one line; one that not everybody may read is none
            os.chmod(banner, 0o644)
            subprocess.run([f"{ROOT}/usr/bin/pure-pw", "mkdb", users, "-f", f"{self.folder}/passwd"],
                           env=ENV, check=True)
        self.command = {"proftpd": [f"{ROOT}/usr/sbin/proftpd", "-c", conf],
                        "vsftpd": [f"{ROOT}/usr/sbin/vsftpd", conf],
                        "pure-ftpd": [f"{ROOT}/usr/sbin/pure-ftpd", "-H", "-F", banner, "-l",
                                      f"puredb:{users}", "-I", str(-(-limit // 60))]}[name]
        self.children = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]

    def _write(self, name, text, mode="w"):
        path = os.path.join(self.folder, name)
        with open(path, mode, encoding="ascii") as file:
            file.write(text)
        os.chmod(path, 0o600)

    def forget(self):
        self.listener.close()

    def serve(self, done):
        while self.listener in (ready := select.select([self.listener, done], [], [], DEADLINE)[0]):
            connection = self.listener.accept()[0]
            if len(self.children) == self.most:
                _ = connection.sendall(b"421 full\r\n"), connection.recv(99)
                connection.close()
                continue
            with open(os.path.join(self.folder, "log"), "ab") as log:
                self.children.append(subprocess.Popen(self.command, stdin=connection, env=ENV,
                                                      stdout=connection, stderr=log, start_new_session=True))
            self._write("groups", f"{self.children[-1].pid}\n", "a")
            connection.close()
        if not ready:
            raise TimeoutError
        for child in self.children:
            child.wait(DEADLINE)

    def stored(self):
        return {name: pathlib.Path(self.data, name).read_bytes() for name in os.listdir(self.data)}


def proftpd_version():
    return subprocess.run([f"{ROOT}/usr/sbin/proftpd", "-v"], env=ENV, capture_output=True, text=True,
                          check=True).stdout.split()[-1]


def serve_behind(test, server):
    """In a thread, until the test ends; a daemon's folder goes with it."""
    reader, writer = os.pipe()
    thread = threading.Thread(target=server.serve, args=(reader,))
    thread.start()
    for job in (lambda: hasattr(server, "folder") and shutil.rmtree(server.folder),
                lambda: os.close(reader), server.forget, thread.join, lambda: os.close(writer)):
        test.addCleanup(job)
    return server
