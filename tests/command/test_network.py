"""
On command, as root, twelve minutes: what only a network between two hosts can do. In tests/command/:

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


def inside(host, line, text=None):
    subprocess.run(["ip", "netns", "exec", host, *line.split()], input=text, text=True, check=True,
                   stdout=subprocess.DEVNULL)


# A router that hides a network behind its own address and follows PORT. A connection that is idle
# for five seconds is forgotten, and what does not belong to a known one is not let through.
NAT = """table ip nat {
    ct helper ftp { type "ftp" protocol tcp; }
    chain helped { type filter hook prerouting priority 0; tcp dport 2121 ct helper set "ftp"; }
    chain known { type filter hook forward priority 0; ct state invalid drop; }
    chain closed { type filter hook input priority 0; drop; }
    chain hidden { type nat hook postrouting priority srcnat; ip saddr 10.79.0.0/24 masquerade; }
}
"""
FORGETFUL = """net.ipv4.ip_forward=1 net.netfilter.nf_conntrack_tcp_timeout_established=5
    net.netfilter.nf_conntrack_tcp_loose=0"""


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
    inside(here, "sysctl net.ipv4.tcp_retries2=3")
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


def store(x, here, _=None):
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

    def test_nat_that_forgets(self):
        """The idle control connection; but not if the system shows in time that it is alive."""
        for alive, code in ((20, 3), (2, 0)):
            with self.subTest(alive=alive):
                here, there = self.hosts()
                router = self.router(here, there)
                inside(here, f"sysctl net.ipv4.tcp_keepalive_time={alive} "
                             "net.ipv4.tcp_keepalive_intvl=2 net.ipv4.tcp_keepalive_probes=3")
                inside(router, "sysctl " + FORGETFUL)
                inside(router, "nft -f -", NAT)
                server = Far(there, 9)  # while the probes of its window keep the data alive
                got = run(store, here, server=server, level=None)
                self.assertEqual((got.value, server.objects["obj"] == OBJECT * 40), ([0, 0, code], True))
                self.assertIn("PORT 10,77,0,3,", str(server.heard))
                self.doCleanups()

    def router(self, here, there):
        name = self.host("r")
        ip("-n", here, "link del", here)
        for far, near, net, last in ((here, "inner", "10.79.0", 1), (there, "outer", "10.77.0", 2)):
            ip("link add", far, "netns", far, "type veth peer name", near, "netns", name)
            ip("-n", far, f"addr add {net}.{last}/24 dev", far)
            ip("-n", name, f"addr add {net}.3/24 dev", near)
            ip("-n", far, "link set", far, "up")
            ip("-n", name, "link set", near, "up")
        ip("-n", here, "route add default via 10.79.0.3")
        return name
