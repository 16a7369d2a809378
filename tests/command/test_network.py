"""
On command, as root, nine minutes: what only a network between two hosts can do. In tests/command/:

    XBSA_LIBRARY=... XBSA_FTPD=... PYTHONPATH=../harness python3 -m unittest -v test_network
"""
import contextlib
import ctypes as c
import os
import select
import socket
import subprocess
import threading
import unittest

from server import Server
from xbsa import STRICT, descriptor, pattern, run

HERE, THERE = "10.77.0.1", "10.77.0.2"
PATIENCE = 600  # seconds: no scenario may take longer
OBJECT = pattern(300000)


def ip(*arguments):
    subprocess.run(["ip", *" ".join(arguments).split()], check=True)




def enter(name):
    with open(f"/var/run/netns/{name}", encoding="ascii") as file:
        assert c.CDLL(None, use_errno=True).setns(file.fileno(), 0) == 0


class Far(Server):
    """Keeps the window of a store closed, and the data connection of a restore open, for a while."""

    def __init__(self, host, closed_for):
        super().__init__()
        self.host, self.closed_for, self.done = host, closed_for, None
        self._there(self._listen).join()

    def _there(self, job):
        thread = threading.Thread(target=lambda: enter(self.host) or job(), daemon=True)
        thread.start()
        return thread

    def _listen(self):
        self.listener = socket.create_server(("0.0.0.0", 2121))

    def _serve(self):
        with contextlib.suppress(OSError, ValueError):
            super().serve(self.done)

    def serve(self, done):
        """What is left of it when the client has ended waits in vain."""
        self.done = done
        self._there(self._serve)
        assert select.select([done], [], [], PATIENCE)[0]

    def _do_connect(self, source=""):
        super()._do_connect("")

    def _receive(self):
        select.select([self.done], [], [], self.closed_for)
        return super()._receive()

    def _send(self):
        self.objects.setdefault(self.name, OBJECT)
        super()._send()
        select.select([self.done], [], [], self.closed_for or PATIENCE)
        return "FIN"


def begin(x, host):
    enter(host)
    assert x.init(b"BSA_API_VERSION=1.0.1", f"BSA_SERVICE_HOST={THERE}:2121".encode()) == 0
    x.BSABeginTxn(x.handle)


def vanish(host):
    """The other host hears us, and nothing of it reaches us any more: no reset, no error."""
    ip("-n", host, "route add blackhole", HERE)


def vanish_in_store(x, here, there):
    """With data under way the system's own limit ends the send."""
    ip("netns exec", here, "sysctl -q net.ipv4.tcp_retries2=3")
    begin(x, here)
    assert x.BSACreateObject(x.handle, c.byref(descriptor()), None) == 0 and x.send(OBJECT[:9]) == 0
    vanish(there)
    code = next(code for code in iter(lambda: x.send(OBJECT[:65535]), None) if code)
    return code, x.last_error(), x.BSAEndData(x.handle)


def vanish_in_restore(x, here, there):
    begin(x, here)
    assert x.BSAGetObject(x.handle, c.byref(descriptor()), None) == 0
    assert [x.take(30000)[0] for _ in range(10)] == [0] * 10
    vanish(there)
    return x.take(30000)[0], x.last_error(), x.BSAEndData(x.handle)


def store(x, here, _):
    begin(x, here)
    return x.store(OBJECT * 40)


class Network(unittest.TestCase):
    def host(self, letter):
        name = f"x{letter}{os.getpid()}"
        ip("netns add", name)
        self.addCleanup(ip, "netns del", name)
        return name

    def hosts(self):
        names = here, there = self.host("h"), self.host("t")
        ip("link add", here, "netns", here, "type veth peer name", there, "netns", there)
        for name, last in zip(names, "12"):
            ip("-n", name, f"addr add 10.77.0.{last}/24 dev", name)
            ip("-n", name, "link set", name, "up")
        return names

    def scenario(self, function, closed_for=0):
        here, there = self.hosts()
        server = Far(there, closed_for)
        return run(function, here, there, server=server, level=None, env=STRICT).value, server

    def test_server_that_vanishes_in_a_store(self):
        self.assertEqual(self.scenario(vanish_in_store)[0],
                         (3, "Connection timed out Data sending failed.", 3))

    def test_server_that_vanishes_in_a_restore(self):
        self.assertEqual(self.scenario(vanish_in_restore)[0][::2], (3, 3))

    def test_server_that_waits_for_a_tape(self):
        """Longer than the silence that means the end of another."""
        codes, server = self.scenario(store, closed_for=240)
        self.assertEqual((codes, server.objects["obj"]), ([0, 0, 0], OBJECT * 40))
