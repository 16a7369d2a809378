"""
On command, as root, nine minutes: faults that need a network between two hosts, also through a tunnel of
wireguard-tools (and wireguard-go, if the kernel lacks WireGuard). In tests/command/:

    XBSA_LIBRARY=... XBSA_FTPD=... PYTHONPATH=../harness python3 -m unittest -v test_network
"""
import concurrent.futures
import contextlib
import ctypes as c
import os
import re
import select
import signal
import socket
import subprocess
import threading
import unittest

from ftpd import Daemon
from server import Server
from xbsa import ROOT, STRICT, descriptor, make_folder, pattern, read_text, run, write_plain

HERE, THERE, TUNNELLED = "10.77.0.1", "10.77.0.2", "10.78.0.2"
PATIENCE = 600  # seconds: limit of each scenario
OBJECT, CANARY = pattern(300000), b"canary" * 20000


def ip(*arguments):
    subprocess.run(["ip", *" ".join(arguments).split()], check=True)


def enter(name):
    with open(f"/var/run/netns/{name}", encoding="ascii") as file:
        assert c.CDLL(None, use_errno=True).setns(file.fileno(), 0) == 0


def in_host(host, job):
    with concurrent.futures.ThreadPoolExecutor(1, "", enter, [host]) as pool:
        return pool.submit(job).result()


def listen():
    return socket.create_server(("0.0.0.0", 2121))


class FarDaemon(Daemon):
    def __init__(self, host):
        super().__init__("vsftpd")
        self.forget()
        self.host, self.listener = host, in_host(host, listen)

    def serve(self, done):
        in_host(self.host, lambda: Daemon.serve(self, done))


class Far(Server):
    """Keeps a store's window closed, and a restore's data connection open, for a while."""

    def __init__(self, host, closed_for):
        super().__init__()
        self.host, self.closed_for, self.done = host, closed_for, None
        self.listener = in_host(host, listen)

    def _serve(self):
        with contextlib.suppress(OSError, ValueError):
            super().serve(self.done)

    def serve(self, done):
        """Ends a server that still waits after the client has ended."""
        self.done = done
        threading.Thread(target=lambda: enter(self.host) or self._serve(), daemon=True).start()
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


def wiretap(host):
    """The packets on this host's device."""
    tap = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
    tap.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE
    tap.bind((host, 0))
    return tap


def begin(x, host, server=THERE):
    enter(host)
    assert x.init(b"BSA_API_VERSION=1.0.1", f"BSA_SERVICE_HOST={server}:2121".encode()) == 0
    x.BSABeginTxn(x.handle)


def vanish(host):
    """The other host receives our packets, but its own are lost: no reset, no error."""
    ip("-n", host, "route add blackhole", HERE)


def vanish_in_store(x, here, there):
    """With unacknowledged data the system's limit ends the send."""
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


def die_in_the_second_store(x, here, address):
    names = {"owner": b"user=ftp:pass=", "path": b"."}
    begin(x, here, address)
    assert (x.store(CANARY, **names), x.restore(**names)) == ([0] * 3, ([0] * 3, CANARY))
    x.store(OBJECT, end=False, name=b"half", **names)
    os.kill(os.getpid(), signal.SIGKILL)


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
        self.assertEqual(self.scenario(vanish_in_store)[0], (3, "Connection timed out Data sending failed.", 3))

    def test_server_that_vanishes_in_a_restore(self):
        self.assertEqual(self.scenario(vanish_in_restore)[0][::2], (3, 3))

    def test_server_that_waits_for_a_tape(self):
        """A slow server may be silent for longer than a dead one is given."""
        codes, server = self.scenario(store, closed_for=240)
        self.assertEqual((codes, server.objects["obj"]), ([0, 0, 0], OBJECT * 40))

    def tunnel(self, hosts):
        """The examples with keys and addresses."""
        folder, words = make_folder(self), {"192.0.2.10": THERE, "192.0.2.20": HERE}
        for owner in "THE_DATABASE_HOST", "THE_BACKUP_SERVER":
            words["PRIVATE_KEY_OF_" + owner] = key = subprocess.getoutput("wg genkey")
            words["PUBLIC_KEY_OF_" + owner] = subprocess.getoutput(f"echo {key} | wg pubkey")
        for host, name in zip(hosts, ("database-host", "backup-server")):
            text = re.sub("|".join(words), lambda found: words[found[0]],
                          read_text(f"{ROOT}/examples/wireguard/{name}.conf"))
            write_plain(path := f"{folder}/{host}w.conf", text, 0o600)
            ip("netns exec", host, "wg-quick up", path)
            self.addCleanup(ip, "netns exec", host, "wg-quick down", path)

    def test_tunnel(self):
        """The tunnel hides all data, and passes the reset of a client that died."""
        here, there = self.hosts()
        self.tunnel((here, there))
        for address, words in (THERE, [b"canary", b"STOR"]), (TUNNELLED, []):
            with self.subTest(address), in_host(here, lambda: wiretap(here)) as wire:
                server, seen = FarDaemon(there), b""
                run(die_in_the_second_store, here, address, server=server, env=STRICT, killed=True)
                while select.select([wire], [], [], 0)[0]:
                    seen += wire.recv(65536)
                self.assertEqual(server.stored(), {"obj": CANARY})
                self.assertGreater(len(seen), 2 * len(CANARY))
                self.assertEqual([word for word in (b"canary", b"STOR") if word in seen], words)
