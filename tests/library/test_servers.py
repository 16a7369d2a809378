"""Real FTP servers: what is stored comes back. What is left of a host that dies: test_real.py."""
import ctypes as c
import itertools
import os
import shutil
import signal
import socket
import subprocess
import threading
import time
import unittest

from ftpd import Daemon
from xbsa import STRICT, pattern, read_text, run_started

TAIL = pattern(400000)
SIZES = [0, 1, 65535, 65536, 65537, 50 << 20]


def there_and_back(x, server):
    for size in SIZES:
        names, data = {"owner": server.owner, "path": b".", "name": b"%d.obj" % size}, pattern(size)
        got = x.store(data, **names), x.restore(**names)
        assert got == ([0, 0, 0], ([0, 0, 0], data)), (size, got[0], got[1][0])


def cut(data):
    """By the kernel, on the server's side, or else on ours."""
    state = data.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)
    subprocess.run(f"ss -K state connected sport = :{data.getpeername()[1]}", shell=True, check=False,
                   capture_output=True)
    if data.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1) == state:
        c.CDLL(None).connect(data.fileno(), bytes(16), 16)


def cut_tail(x, server, late):
    """The server sleeps once it has begun, and wakes up when its connection is cut."""
    blocks = [TAIL[i:i + 40000] for i in range(0, len(TAIL), 40000)]
    names = {"owner": server.owner, "path": b".", "name": b"obj"}
    codes, group = x.store(blocks[0], end=False, **names), int(read_text(server.folder + "/groups"))
    while not server.stored().get("obj"):
        time.sleep(0.01)
    os.killpg(group, signal.SIGSTOP)
    codes += [x.send(block) for block in blocks[1:]]
    with socket.socket(fileno=os.dup(x.state.sSession.SData)) as data:
        thread = threading.Timer(late, lambda: (cut(data), os.killpg(group, signal.SIGCONT)))
        thread.start()
        thread.join(0 if late else None)
        code = x.BSAEndData(x.handle)
        thread.join()
    return max(codes), code, x.last_error() != ""


class Servers(unittest.TestCase):
    daemons = "proftpd", "vsftpd", "pyftpdlib"

    def daemon(self, name):
        server = Daemon(name)
        self.addCleanup(shutil.rmtree, server.folder)
        return server

    def test_there_and_back(self):
        for name in self.daemons:
            with self.subTest(name):
                server = self.daemon(name)
                run_started(there_and_back, server, server=server, env=STRICT)
                self.assertEqual({key: len(data) for key, data in server.stored().items()},
                                 {f"{size}.obj": size for size in SIZES})


    def test_cut_in_the_tail(self):
        """pyftpdlib confirms half an object whose data connection was cut; strict mode knows."""
        for late, strict in itertools.product((0, 0.2), (0, 1) if "pyftpdlib" in self.daemons else ()):
            with self.subTest(late=late, strict=strict):
                server = self.daemon("pyftpdlib")
                got = run_started(cut_tail, server, late, server=server, level=0,
                                  env={"KORVA_STRICT": str(strict)})
                self.assertEqual(got.value, (0, strict * 3, bool(strict)))
                self.assertLess(len(server.stored()["obj"]), len(TAIL))


class AsRoot(Servers):
    daemons = "pure-ftpd",
