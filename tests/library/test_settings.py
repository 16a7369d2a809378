"""Settings of the data connection, which are off unless the environment sets them."""
import contextlib
import ctypes as c
import errno
import itertools
import os
import socket
import unittest

from server import Server
from utility import Utility, answers, start
from xbsa import both_modes, descriptor, read_text, rows, run

OPTIONS = 47, 72, socket.SO_SNDBUF, socket.SO_RCVBUF  # pacing rate, locked buffers, both sizes
SCALE = 6  # in TCP_INFO: the peer's window scale is in the low half of the byte
# The variables; of the data connection the pacing rate (-1 is none), fixed buffers (which determine the
# window scale) and their size as doubled by the system (0 is the default); and the trace.
CONNECTIONS = rows("variables", ("",),
    dict(variables="PORT_RANGE=20000-29999", trace="BSAInit: KORVA_PORT_RANGE = 20000-29999."),
    dict(variables="RATE_LIMIT=2000000", rate=2000000, trace="BSAInit: KORVA_RATE_LIMIT = 2000000."),
    dict(variables="SOCKET_BUFFER=65536", fixed=3, size=131072, trace="BSAInit: KORVA_SOCKET_BUFFER = 65536."),
    dict(variables="SOCKET_BUFFER=1073741823", size=None, trace="stpc_port: KORVA_SOCKET_BUFFER = 1073"
         "741823: net.core.wmem_max allows only " + read_text("/proc/sys/net/core/wmem_max").strip() + "."),
    ("PORT_RANGE= RATE_LIMIT= SOCKET_BUFFER=",), rate=-1, fixed=0, size=0, trace="")
# Rejected values of each variable, and what the message suggests.
REFUSED = rows("name values offer",
    ("PORT_RANGE", "50000 50000- -50000 1023-2000 2000-65536 50001-50000 50000-50001x +50000-50001",
     "FIRST-LAST, two ports from 1024 to 65535, such as 50000-50099"),
    ("RATE_LIMIT", "999 2000000001 4294969296 2M 18446744073709553616 \t2000",
     "bytes per second, from 1000 to 2000000000"),
    ("SOCKET_BUFFER", "4095 1073741824", "bytes, from 4096 to 1073741823"))


def settings(line):
    return {"KORVA_" + name: value for name, _, value in (text.partition("=") for text in line.split())}


def free_port(where=iter(range(10000 + os.getpid() % 9000, 32000))):
    """Ports that the system does not assign to other tests."""
    for port in where:
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)):
                return port
    raise AssertionError("no free port")


def look(x, begin, way, names):
    assert begin(x) == 0
    codes = [x.BSABeginTxn(x.handle), getattr(x, {"store": "BSACreateObject", "restore": "BSAGetObject"}[
        way])(x.handle, c.byref(descriptor(**names)), None)]
    with socket.socket(fileno=os.dup(x.state.sSession.SData)) as data:
        found = [data.getsockopt(socket.SOL_SOCKET, option) for option in OPTIONS]
    return [*codes, x.BSAEndData(x.handle)], *found


def reuse(x, begin):
    assert begin(x) == 0
    opened, second = x.store(end=False), x.stpc_port(x.state.sSession.SControl)
    text, ends = x.last_error(), [x.BSAEndData(x.handle), x.BSAEndTxn(x.handle, 1)]
    return opened, second, text, ends, x.store(), x.restore()[0], x.store()


def store(x, begin):
    assert begin(x) == 0
    return x.store(end=False), x.last_error(), x.BSAEndData(x.handle)


class Both:
    names = {}

    def server(self):
        self.scales = []
        server = Server(*[{"DATA": [lambda s: self.scales.append(s.data.getsockopt(
            socket.IPPROTO_TCP, socket.TCP_INFO, 104)[SCALE] & 15), "transfer"]}] * 5)
        return server, lambda x: x.init(b"BSA_SERVICE_HOST=127.0.0.1:%d" % server.port)

    def test_connections(self):
        usual = {}
        for (mode, row), way in itertools.product(both_modes(CONNECTIONS), ("store", "restore")):
            with self.subTest(row, way=way, mode=mode):
                server, begin = self.server()
                got = run(look, begin, way, self.names, server=server, env=mode | settings(row.variables))
                codes, paced, locks, *sizes = got.value
                sizes_then, scales_then = usual.setdefault(way, (sizes, self.scales))
                self.assertEqual((codes, paced, locks), (
                    [0, 0, 0], row.rate if way == "store" else -1, row.fixed))
                self.assertEqual(self.scales < scales_then, row.fixed == 3)
                if row.size is not None:
                    self.assertEqual(sizes, [row.size] * 2 if row.size else sizes_then)
                self.assertEqual(20000 <= server.target[1] <= 29999, "-" in row.variables, server.target)
                self.assertIn(row.trace, [*got.trace, ""])

    def test_one_port(self):
        port = free_port()
        server, begin = self.server()
        got = run(reuse, begin, server=server, env=settings(f"PORT_RANGE={port}-{port}"))
        text = f"No free port in KORVA_PORT_RANGE = {port}-{port}."
        self.assertEqual(got.value, ([0, 0], -1, text, [0, 0], [0] * 3, [0] * 3, [0] * 3))
        self.assertEqual(str(server.heard).count("PORT 127,0,0,1,%d,%d'" % divmod(port, 256)), 4)


class Plain(Both, unittest.TestCase):
    def test_ports_of_others(self):
        """All ports but one are in use; all are; and another stream listened on one first."""
        first = free_port()
        ports = {free_port() for _ in range(3)}
        env = settings(f"PORT_RANGE={first}-{max(ports)}")
        text = f"No free port in KORVA_PORT_RANGE = {first}-{max(ports)}."
        with contextlib.ExitStack() as stack:
            for port in range(first + 1, max(ports) + 1):
                with contextlib.suppress(OSError):
                    stack.enter_context(socket.create_server(("127.0.0.1", port)))
            server, begin = self.server()
            self.assertEqual(run(store, begin, server=server, env=env).value, ([0, 0], "", 0))
            self.assertEqual(server.target[1], first)
            stack.enter_context(socket.create_server(("127.0.0.1", first)))
            server, begin = self.server()
            self.assertEqual(run(store, begin, server=server, env=env).value, ([3], text, 3))
            self.assertNotIn("PORT", server.verbs()[0])

    def test_lost_race(self):
        def raced(x, begin):
            c.CDLL(None).shim_arm(b"listen", 1, 0, errno.EADDRINUSE)
            return store(x, begin)
        for line, *want in (("PORT_RANGE=20000-29999", [0, 0], "", 0),
                            ("", [3], "Address already in use listen() failed.", 3)):
            server, begin = self.server()
            self.assertEqual(run(raced, begin, server=server, env=settings(line)).value, (*want,))

    def test_refused(self):
        for name, values, offer in REFUSED:
            for value in values.split(" "):
                with self.subTest(name, value=value):
                    got = run(lambda x: (x.init(), x.last_error(), x.init()), env=settings(
                        "PORT_RANGE=50000-50001 RATE_LIMIT=5000") | {"KORVA_" + name: value})
                    text = f"KORVA_{name} = {value} is not allowed: use {offer}."
                    self.assertEqual(got.value, (3, text, 5))
                    self.assertIn("BSAInit: " + text, got.trace)


class Informix(Both, unittest.TestCase):
    names = {"copy_id": 4711}

    def server(self):
        server, _ = super().server()
        Utility(self, answers(server.port))
        return server, start
