"""Storing and restoring on the scripted server."""
import ctypes as c
import mmap
import os
import signal
import socket
import time
import unittest

from server import Server
from xbsa import DEADLINE, STRICT, Block, descriptor, descriptors, pattern, run, run_started

# Script, process environment (and the SECONDS of the time-out, if not 1), names; then what comes of
# it: codes, ends of data, last error.
STORES = [
    ("no time-out", {}, {"SECONDS": "-1"}, {}, [0, 0, 0], ["FIN"], ""),
    ("a long one", {}, {"SECONDS": str(2**31 - 1)}, {}, [0, 0, 0], ["FIN"], ""),
    ("empty greeting", {"GREETING": [""]}, {}, {}, [3], [], "The greeting is empty."),
    ("550 in place of the data", {"STOR": ["150 go", "550 no tape"]}, {}, {},
     [3], [], "STOR failed. NEGATIVE reply: 550 no tape"),
    ("data before the 150", {"STOR": ["connect", "150 go"]}, {}, {}, [0, 0, 0], ["FIN"], ""),
    ("data, then 550", {"STOR": ["connect", "550 no"]}, {}, {},
     [3], ["RST"], "STOR failed. NEGATIVE reply: 550 no"),
    ("bare numbers behind it", {"STOR": ["150-go", "connect", "150"], "END": ["226"]}, STRICT,
     {}, [0, 0, 0], ["FIN"], ""),
    ("end after the 150", {"STOR": ["150 go", "close"]}, {}, {},
     [3], [], "Connection reset by peer accept() failed."),
    ("no data connection", {"STOR": ["150 go"]}, {}, {},
     [3], [], "Connection timed out accept() failed."),
    ("foreign, taken", {"STOR": ["150 go", "foreign"]}, {}, {}, [0, 0, 0], ["FIN"], ""),
    ("foreign, refused", {"STOR": ["150 go", "foreign", "connect"]}, STRICT, {},
     [0, 0, 0], ["FIN"], ""),
    ("foreign alone, refused", {"STOR": ["150 go", "foreign"]}, STRICT, {},
     [3], ["FIN"], "Connection timed out accept() failed."),
    ("line break in the user", {}, {}, {"owner": b"user=a\r\nDELE x:pass=p"}, [3], [], None),
    ("control character in the name", {}, {}, {"name": b"a\x01b"}, [3], [], None),
]


def store_once(x, server, names):
    x.start(server, b"BSA_TIMEOUT=" + os.environ.get("SECONDS", "1").encode())
    codes, error = x.store(**names), x.last_error()
    return codes, error, x.store()


class Transfers(unittest.TestCase):
    def test_stores(self):
        for name, script, env, names, codes, ends, error in STORES:
            with self.subTest(name):
                server = Server(script)
                got = run(store_once, server, names, server=server, env=env).value
                self.assertEqual((got[0], got[2]), (codes, [0, 0, 0]))
                self.assertEqual(server.ends, ends + ["FIN"])
                if error is not None:
                    self.assertEqual(got[1].strip(), error)
                else:
                    self.assertTrue(got[1], "no last message")
                    self.assertEqual(sum(server.heard[:-1], []), [])

    def test_names_on_the_wire(self):
        """The whole name in a STOR; in a RETR its first word, unless strict."""
        for scenario, env, line in (("store", {}, "STOR a b"), ("restore", {}, "RETR a"),
                                    ("restore", STRICT, "RETR a b")):
            server = Server()
            run_started(lambda x: getattr(x, scenario)(name=b"a b"), server=server, env=env)
            heard = server.heard[0]
            self.assertRegex(heard.pop(4), r"^PORT 127,0,0,1,\d{1,3},\d{1,3}$")
            self.assertEqual(heard, ["USER backup", "PASS secret", "TYPE I", "CWD /data", line,
                                     "QUIT"])

    def test_single_calls(self):
        """What the library is made of serves a host that drives the connection itself."""
        def transfer(x, verb):
            control, line = x.STPC_connect(), c.create_string_buffer(2048)
            call = getattr(x, "STPC_" + verb.lower())
            codes = [x.STPC_receive(control, line, 2047, 0), call(b"x" * 3000, control)]
            data, room = call(b".", control), c.create_string_buffer(b"stored", 64)
            move = x.SOCKET_send if verb == "STOR" else x.SOCKET_recv
            codes += [move(data, room, 6, 0), x.SOCKET_close(data),
                      x.STPC_receive(control, line, 2047, 0), x.STPC_send(control, b"QUIT\r\n", 6, 0)]
            x.SOCKET_close(control)
            return codes, x.last_error(), room.value, line.value
        for verb in "STOR", "RETR", "LIST":
            with self.subTest(verb):
                server = Server({"LIST": ["150 here", "connect"]}, objects={".": b"listed"})
                self.assertEqual(run_started(transfer, verb, server=server).value, (
                    [1, -1, 6, 0, 1, 6], "Command too long: " + verb,
                    b"stored" if verb == "STOR" else b"listed", b"226 done"))
                self.assertEqual(server.verbs(), [f"PORT PORT {verb} QUIT"])
                self.assertEqual(server.objects["."], b"stored" if verb == "STOR" else b"listed")

    def test_counts(self):
        """Of the bytes of a large object, exact and beyond 32 bits."""
        def transfer(x):
            for call in x.store, x.restore:
                x.state.sSession.dBytes = 20 << 30
                call()
        got = run_started(transfer, server=Server())
        self.assertEqual([line for line in got.trace if line.startswith(("BSASendD", "BSAGetD"))], [
            f"BSASendData: Data written: 5, total: {(20 << 30) + 5}",
            "BSAGetData: bufferLen=65535, numBytes=65535",
            f"BSAGetData: Data read: 5, total: {(20 << 30) + 5}"])

    def test_completed_descriptor(self):
        def create(x):
            made = descriptor(name=b"4711.x")
            made.copyId.left = 9
            x.BSACreateObject(x.handle, c.byref(made), None)
            x.BSAEndData(x.handle)
            return (made.copyId.left, made.copyId.right, made.objectStatus, made.objectInfo,
                    made.createTime.year > 100, made.owner.bsa)
        self.assertEqual(run_started(create, server=Server()).value,
                         (9, 4711, 1, b"SEGMENT=3", True, b"user=backup:pass=secret"))


class Broken(unittest.TestCase):
    """Whole or not at all: what the server sees of a store that went wrong."""

    def test_server_resets(self):
        server = Server({"DATA": ["reset_data"], "END": ["426 disk full"]})
        got = run_started(lambda x: x.store(pattern(30 << 20)), server=server)
        self.assertEqual(got.value, [0, 3, 3])
        retries = [line for line in got.trace if "Resending" in line]
        self.assertEqual(retries, [f"BSASendData: Data sending failed. Resending [{n}] times"
                                   for n in range(1, 6)])

    def test_failed_send(self):
        """A block that cannot be read fails the object, whatever the server says of it."""
        def store(x):
            sent = [x.store(b"begun", end=False)]
            sent.append(x.BSASendData(x.handle, c.byref(Block(100, 0, unreadable_page()))))
            return sent + [x.BSAEndData(x.handle), x.BSAEndTxn(x.handle, 1), x.store()]
        server = Server({"END": ["426 aborted"]})
        self.assertEqual(run_started(store, server=server).value, [[0, 0], 3, 3, 0, [0, 0, 0]])
        self.assertEqual(server.ends, ["RST", "FIN"])

    def test_timed_out(self):
        """A server that the system has given up is not waited for, at the end neither."""
        def store(x):
            x.store(end=False)
            with socket.socket(fileno=os.dup(x.state.sSession.SData)) as data:
                data.setsockopt(socket.IPPROTO_TCP, socket.TCP_USER_TIMEOUT, 500)
            code = next(code for code in iter(lambda: x.send(pattern(65535)), None) if code)
            return code, x.last_error(), x.BSAEndData(x.handle)
        self.assertEqual(run_started(store, server=Server({"DATA": [], "END": []})).value,
                         (3, "Connection timed out Data sending failed.", 3))

    def test_ticking_host(self):
        """Signals whose handlers restart what they interrupt do not end the wait for a slow server."""
        def store(x):
            signal.signal(signal.SIGALRM, lambda *_: None)
            signal.siginterrupt(signal.SIGALRM, False)
            signal.setitimer(signal.ITIMER_REAL, 0.02, 0.02)
            codes = x.store(pattern(16 << 20))
            signal.setitimer(signal.ITIMER_REAL, 0)
            return codes, x.last_error()
        server = Server({"DATA": [lambda s: time.sleep(0.5), "transfer"]})
        self.assertEqual(run_started(store, server=server).value, ([0, 0, 0], ""))

    def test_forked_host(self):
        """The server sees the end, or the reset, though a child of the host lives on."""
        def store(x, wrong):
            x.store(end=False)
            child = os.fork()
            if child == 0:
                signal.alarm(DEADLINE)
                signal.pause()
            code = x.BSAEndData(x.handle.value + wrong)
            os.kill(child, signal.SIGKILL)
            os.waitpid(child, 0)
            return code
        for wrong, code, end in (0, 0, "FIN"), (1, 3, "RST"):
            server = Server()
            self.assertEqual(run_started(store, wrong, server=server).value, code)
            self.assertEqual(server.ends, [end])

    def test_no_data_connection(self):
        """Number 0 in its place is none, and stays the host's own."""
        def end(x):
            x.state.sSession.iLastCall, x.state.sSession.SData = 2, 0
            return x.BSAEndData(x.handle), 0 in descriptors()
        self.assertEqual(run_started(end, server=Server()).value, (3, True))

    def test_abandoned(self):
        """What a transfer left open is closed when the next one opens."""
        def restore(x):
            x.BSABeginTxn(x.handle)
            return (x.BSAGetObject(x.handle, c.byref(descriptor()), None),
                    x.BSAEndTxn(x.handle, 1), x.restore())
        self.assertEqual(run_started(restore, server=Server(objects={"obj": b"hello"})).value,
                         (0, 0, ([0, 0, 0], b"hello")))


def unreadable_page():
    libc = c.CDLL(None)
    libc.mmap.restype, libc.mmap.argtypes = c.c_void_p, [c.c_void_p, c.c_size_t] + [c.c_int] * 4
    return libc.mmap(None, mmap.PAGESIZE, 0, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS, -1, 0)
