"""Real FTP servers, unpacked by servers.sh; each connection gets its own process, as from inetd."""
import grp
import os
import pathlib
import pwd
import shutil
import subprocess
import tempfile
import threading

from server import Listener

ROOT = os.environ["XBSA_FTPD"]
LIBRARIES = f"lib/{os.uname().machine}-linux-gnu"
ENV = {"PATH": os.environ["PATH"], "XBSA_FTPD": ROOT,
       "LD_LIBRARY_PATH": f"{ROOT}/usr/{LIBRARIES}:{ROOT}/{LIBRARIES}"}

# Listings and transfers are built in, or in newer releases of ProFTPD a module.
FOLDER = f"{ROOT}/usr/lib/proftpd"
MODULES = [f"ModulePath {FOLDER}\n", *(f"LoadModule {name}.c\n" for name in ("mod_xfer", "mod_ls")
                                       if os.path.exists(f"{FOLDER}/{name}.so"))]
NOBODY = pwd.getpwnam("nobody")[2:4]
PASSWORD = "$1$abcdefgh$cHJi5PXp/ki/ktXzqlk6I1"  # of "secret"


class Daemon(Listener):
    """Listens, and starts one server process for each connection, in its own process group, whose
    number goes to the end of the file groups. Stored objects are in data, the server's messages in the
    file log. limit: seconds until an idle client is dropped; most: number of connections to serve."""
    patience = 200

    def __init__(self, name, limit=300, most=None):
        super().__init__()
        self.most = most
        self.folder = tempfile.mkdtemp(prefix="ftpd")
        self.data = os.path.join(self.folder, "data")
        os.mkdir(self.data)
        account, group = pwd.getpwuid(os.getuid()).pw_name, grp.getgrgid(os.getgid()).gr_name
        conf = pathlib.Path(__file__).with_name("proftpd.conf" if name == "proftpd" else "vsftpd.conf")
        conf = conf.read_text("ascii").format(user=account, group=group, folder=self.folder, limit=limit)
        self._write("conf", "".join(MODULES * (name == "proftpd")) + conf)
        entry = f"{os.getuid()}:{os.getgid()}::{self.data}:/bin/sh"
        if name == "pure-ftpd":  # needs root, and serves the account nobody in a chroot
            entry = f"{NOBODY[0]}:{NOBODY[1]}::{self.data}/./{12 * ':'}"
        self._write("passwd", f"backup:{PASSWORD}:{entry}\n")
        self.owner = b"user=ftp:pass=" if name == "vsftpd" else b"user=backup:pass=secret"
        conf, users, banner = (os.path.join(self.folder, file) for file in ("conf", "db", "banner"))
        if name == "pure-ftpd":
            os.chown(self.data, *NOBODY)
            self._write("banner", "ready\n")  # ignored unless everybody may read it
            os.chmod(banner, 0o644)
            subprocess.run([f"{ROOT}/usr/bin/pure-pw", "mkdb", users, "-f", f"{self.folder}/passwd"],
                           env=ENV, check=True)
        self.command = {"proftpd": [f"{ROOT}/usr/sbin/proftpd", "-c", conf],
                        "vsftpd": [f"{ROOT}/usr/sbin/vsftpd", conf],
                        "pure-ftpd": [f"{ROOT}/usr/sbin/pure-ftpd", "-H", "-F", banner, "-l",
                                      f"puredb:{users}", "-I", str(-(-limit // 60))]}[name]
        self.children = []

    def _write(self, name, text, mode="w"):
        path = os.path.join(self.folder, name)
        with open(path, mode, encoding="ascii") as file:
            file.write(text)
        os.chmod(path, 0o600)

    def accept(self, connection):
        with connection, open(os.path.join(self.folder, "log"), "ab") as log:
            if len(self.children) == self.most:
                _ = connection.sendall(b"421 full\r\n"), connection.recv(99)
                return
            self.children.append(subprocess.Popen(self.command, stdin=connection, env=ENV,
                                                  stdout=connection, stderr=log, start_new_session=True))
            self._write("groups", f"{self.children[-1].pid}\n", "a")

    def serve(self, done):
        super().serve(done)
        for child in self.children:
            child.wait(self.patience)

    def stored(self):
        return {name: pathlib.Path(self.data, name).read_bytes() for name in os.listdir(self.data)}


def proftpd_version():
    return subprocess.run([f"{ROOT}/usr/sbin/proftpd", "-v"], env=ENV, capture_output=True, text=True,
                          check=True).stdout.split()[-1]


def serve_behind(test, server):
    """Runs in a thread until the test ends, then removes a daemon's directory."""
    reader, writer = os.pipe()
    thread = threading.Thread(target=server.serve, args=(reader,))
    thread.start()
    for job in (lambda: hasattr(server, "folder") and shutil.rmtree(server.folder),
                lambda: os.close(reader), server.forget, thread.join, lambda: os.close(writer)):
        test.addCleanup(job)
    return server
