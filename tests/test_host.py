"""A guest in its host: descriptors, memory, and what a host does to its own descriptors."""
import _ctypes
import ctypes as c
import fcntl
import os
import resource
import shutil
import socket
import struct
import subprocess
import unittest

from ftpd import serve_behind
from server import Server
from xbsa import DEADLINE, LIBRARY, SANITIZED, Owner, descriptors, read_text, run, run_started

CYCLES = int(os.environ.get("XBSA_CYCLES", "150" if SANITIZED else "1000"))
SETTLED = 100  # after so many cycles the C library has what it keeps
LOG = {"XBSA_TRACE": "2", "XBSA_LOGFILE": "./xbsa.log"}


def resident_bytes():
    return int(read_text("/proc/self/statm").split()[1]) * resource.getpagesize()


def objects(x):
    while True:
        yield
        assert x.store() == [0, 0, 0] and x.restore() == ([0, 0, 0], b"hello")


def loads(_):
    """Of a copy that nobody else has loaded, each time with a session and its log open."""
    path = shutil.copy(LIBRARY, os.path.abspath("copy.so"))
    while True:
        yield
        library, handle = c.CDLL(path), c.c_long()
        assert library.BSAInit(c.byref(handle), None, c.byref(Owner(b"INFORMIX")), None) == 0
        _ctypes.dlclose(library._handle)


def many_cycles(x, kind):
    cycles = kind(x)
    for cycle in range(CYCLES):
        next(cycles)
        if cycle == SETTLED:
            open_ones, resident = descriptors(), resident_bytes()
    return descriptors() == open_ones, resident_bytes() - resident


def made_descriptors(x, server, closed):
    """None is inherited by a program that the host starts, or takes a standard one's number."""
    for number in closed:
        os.close(number)
    x.start(server)
    x.store(end=False)
    made = [x.state.sSession.SControl, x.state.sSession.SData, x.state.hLogFile]
    flags = [fcntl.fcntl(number, fcntl.F_GETFD) & fcntl.FD_CLOEXEC for number in made]
    code, low = x.BSAEndData(x.handle), [number for number in closed if number in descriptors()]
    for number in closed:
        os.dup2(made[2], number)
    return code, min(made) > 2, flags, low


def reused_numbers(x):
    """The numbers of the closed sockets become the host's ends of two pairs of its own."""
    pairs = [socket.socketpair() for _ in range(2)]
    x.store(end=False)
    numbers = x.state.sSession.SData, x.state.sSession.SControl
    x.BSAEndData(x.handle)
    for (ours, theirs), number in zip(pairs, numbers):
        os.dup2(ours.fileno(), number)
        theirs.sendall(b"226 done\r\n")
        theirs.shutdown(socket.SHUT_WR)
    codes = [x.BSAEndData(x.handle), x.BSAEndTxn(x.handle, 1), x.BSABeginTxn(x.handle),
             x.BSAEndData(x.handle), x.BSAEndTxn(x.handle, 1), x.send(b""), x.restore()[0]]
    unread = []
    for (ours, theirs), number in zip(pairs, numbers):
        unread.append(os.read(number, 100))
        os.close(number)
        ours.close()
        unread.append(theirs.recv(100))
        theirs.close()
    return codes, unread


def data_options(x):
    """A dead peer is noticed; a host that dies resets the connection."""
    x.store(end=False)
    with socket.socket(fileno=os.dup(x.state.sSession.SData)) as data:
        found = [data.getsockopt(socket.IPPROTO_TCP, option) for option in
                 (socket.TCP_KEEPIDLE, socket.TCP_KEEPINTVL, socket.TCP_KEEPCNT)]
        found.append(data.getsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE))
        found.append(data.getsockopt(socket.SOL_SOCKET, socket.SO_LINGER, 8))
    return found, x.BSAEndData(x.handle)


class Host(unittest.TestCase):
    def test_many_cycles(self):
        for kind, most, env in (objects, 1 << 19, {}), (loads, 1 << 18, LOG):
            with self.subTest(kind.__name__):
                same, grown = run_started(many_cycles, kind, server=Server(), level=None, env=env,
                                          deadline=DEADLINE + CYCLES // 10).value
                self.assertTrue(same)
                if not SANITIZED:
                    self.assertLess(grown, most)

    def test_made_descriptors(self):
        for closed in (), (0, 1, 2):
            server = Server()
            got = run(made_descriptors, server, closed, server=server, level=None, env=LOG)
            self.assertEqual(got.value, (0, True, [1, 1, 1], []))

    def test_data_options(self):
        self.assertEqual(run_started(data_options, server=Server()).value,
                         ([60, 15, 8, 1, struct.pack("ii", 1, 0)], 0))

    def test_reused_numbers(self):
        codes, unread = run_started(reused_numbers, server=Server(objects={"obj": b"hello"})).value
        self.assertEqual(codes, [3, 0, 0, 0, 0, 0, [0, 0, 0]])
        self.assertEqual(unread, [b"226 done\r\n", b""] * 2)


class Leaks(unittest.TestCase):
    def test_tool(self):
        """The tool and the library in it free all they took and end it, after failures too."""
        env = dict(os.environ, ASAN_OPTIONS="detect_leaks=1", XBSA_PASSWORD="secret")
        del env["LD_PRELOAD"]
        for command, script, code in (("store", {}, 0), ("store", {"CWD": ["550 no"]}, 1),
                                      ("store", {"STOR": ["150 go", "550 no"]}, 1),
                                      ("store", {"END": ["426 no"]}, 1), ("restore", {}, 0),
                                      ("restore", {"RETR": ["550 no"]}, 1)):
            with self.subTest(command, script=script):
                server = serve_behind(self, Server(script, objects={"obj": b"hello"}))
                line = [os.environ["XBSA_TOOL"], command, "obj", "--host",
                        f"127.0.0.1:{server.port}", "--user", "backup", "--trace", "3"]
                line[3:3] = ["/proc/self/status"] if command == "store" else []
                tool = subprocess.run(line, env=env, capture_output=True, check=False)
                self.assertEqual((tool.returncode, b"Sanitizer" in tool.stderr), (code, False),
                                 tool.stderr)
                self.assertEqual(tool.stderr.count(b"BSATerminate: Start"), 1, tool.stderr)
                self.assertEqual(tool.stdout,
                                 b"hello" if command == "restore" and code == 0 else b"")
