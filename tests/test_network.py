"""
On command, as root, twelve minutes: what only a network between two hosts can do. In tests/:

    XBSA_LIBRARY=... XBSA_FTPD=... python3 -m unittest -v test_network
"""
import ctypes as c
import os
import select
import socket
import subprocess
import threading
import unittest

from xbsa import Block, descriptor, pattern, run

HERE, THERE, SECOND = "10.77.0.1", "10.77.0.2", "10.78.0.2"
PATIENCE = 600  # seconds: no scenario may take longer
OBJECT = pattern(300000)
REPLIES = {"USER": "331", "PASS": "230", "PORT": "200", "CWD": "250", "STOR": "150", "RETR": "150"}


def ip(*arguments):
    subprocess.run(["ip", *" ".join(arguments).split()], check=True)


def inside(host, line, text=None):
    subprocess.run(["ip", "netns", "exec", host, *line.split()], input=text, text=True, check=True,
                   stdout=subprocess.DEVNULL)


def filters(host, hook, rule):
    """A firewall on a host, or on the way."""
    hooked = f"type filter hook {hook} priority 0"
    inside(host, "nft -f -", f"table ip {hook} {{\nchain {hook} {{\n{hooked}\n{rule}\n}}\n}}\n")


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
    """Moves this thread into a host of ours; sockets stay where they were made."""
    with open(f"/var/run/netns/{name}", encoding="ascii") as file:
        assert c.CDLL(None, use_errno=True).setns(file.fileno(), 0) == 0


class Far:
    """A server on the other host that keeps the window of a store closed for a while, and the data
    connection of a restore open for as long, or for ever."""

    def __init__(self, host, closed_for):
        self.host, self.closed_for, self.stored, self.ports = host, closed_for, b"", []
        self.free = threading.Event()

    def forget(self):
        pass

    def serve(self, done):
        threading.Thread(target=self._listen, daemon=True).start()
        assert select.select([done], [], [], PATIENCE)[0]
        self.free.set()

    def _listen(self):
        enter(self.host)
        with socket.create_server(("0.0.0.0", 2121)) as listener:
            while True:
                with listener.accept()[0] as control:
                    self._converse(control)

    def _converse(self, control):
        control.sendall(b"220 ready\r\n")
        for line in control.makefile("rb"):
            verb, _, argument = line.decode().rstrip().partition(" ")
            if verb == "PORT":
                self.ports.append(argument)
            control.sendall(REPLIES.get(verb, "200").encode() + b" ok\r\n")
            if verb in ("STOR", "RETR"):
                self._transfer(verb, control)

    def _transfer(self, verb, control):
        numbers = self.ports[-1].split(",")
        target = ".".join(numbers[:4]), int(numbers[4]) * 256 + int(numbers[5])
        with socket.create_connection(target) as data:
            if verb == "RETR":
                data.sendall(OBJECT)
                self.free.wait(self.closed_for or PATIENCE)
            else:
                self.free.wait(self.closed_for)
                self.stored = b"".join(iter(lambda: data.recv(1 << 16), b""))
        control.sendall(b"226 done\r\n")


def begin(x, host, address=THERE):
    enter(host)
    assert x.init(b"BSA_API_VERSION=1.0.1", f"BSA_SERVICE_HOST={address}:2121".encode()) == 0
    x.BSABeginTxn(x.handle)


def vanish(host):
    """The other host hears us, and nothing of it reaches us any more: no reset, no error."""
    ip("-n", host, "route add blackhole", HERE)


def vanish_in_store(x, here, there):
    begin(x, here)
    assert x.BSACreateObject(x.handle, c.byref(descriptor()), None) == 0 and x.send(OBJECT[:9]) == 0
    vanish(there)
    code = next(code for code in iter(lambda: x.send(OBJECT[:65535]), None) if code)
    with socket.socket(fileno=os.dup(x.state.sSession.SData)) as data:
        reset = data.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1) == b"\7"  # no end is on its way
    return code, reset, x.last_error(), x.BSAEndData(x.handle)


def vanish_in_restore(x, here, there):
    begin(x, here)
    room = c.create_string_buffer(30000)
    block = Block(30000, 0, c.addressof(room))
    assert x.BSAGetObject(x.handle, c.byref(descriptor()), None) == 0
    for _ in range(10):
        assert x.BSAGetData(x.handle, c.byref(block)) == 0
    vanish(there)
    return x.BSAGetData(x.handle, c.byref(block)), x.last_error(), x.BSAEndData(x.handle)


def there_and_back(x, here, size):
    begin(x, here)
    return x.store(OBJECT[:size]), x.restore()[1] == OBJECT


def store(x, here, address=THERE):
    begin(x, here, address)
    return x.store(OBJECT * 40)


class Network(unittest.TestCase):
    def hosts(self, mtu=1500):
        names = here, there = f"xh{os.getpid()}", f"xt{os.getpid()}"
        for name in names:
            ip("netns add", name)
            self.addCleanup(ip, "netns del", name)
        ip("link add", here, "netns", here, f"mtu {mtu} type veth peer name", there, "netns", there,
           f"mtu {mtu}")
        for name, last in zip(names, "12"):
            ip("-n", name, f"addr add 10.77.0.{last}/24 dev", name)
            ip("-n", name, f"addr add 10.78.0.{last}/24 dev", name)
            ip("-n", name, "link set", name, "up")
        return names

    def scenario(self, function, *arguments, closed_for=0, mtu=1500):
        here, there = self.hosts(mtu)
        server = Far(there, closed_for)
        return run(function, here, *(arguments or (there,)), server=server, level=None,
                   env={"KORVA_STRICT": "1"}, deadline=PATIENCE).value, server

    def test_server_that_vanishes_in_a_store(self):
        self.assertEqual(self.scenario(vanish_in_store)[0],
                         (3, True, "Connection timed out Data sending failed.", 3))

    def test_server_that_vanishes_in_a_restore(self):
        code, _, end = self.scenario(vanish_in_restore)[0]
        self.assertEqual((code, end), (3, 3))

    def test_server_that_waits_for_a_tape(self):
        """Longer than the silence that means the end of another."""
        codes, server = self.scenario(store, THERE, closed_for=240)
        self.assertEqual((codes, server.stored), ([0, 0, 0], OBJECT * 40))

    def test_loss(self):
        """Every fifth packet is lost, each way."""
        here, there = self.hosts()
        for host in (here, there):
            filters(host, "input", "numgen random mod 100 < 20 drop")
        server = Far(there, 1)
        got = run(there_and_back, here, len(OBJECT), server=server, level=None, deadline=PATIENCE,
                  env={"KORVA_STRICT": "1"})
        self.assertEqual((got.value, server.stored), (([0, 0, 0], True), OBJECT))

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
                got = run(store, here, server=server, level=None, deadline=PATIENCE)
                self.assertEqual((got.value, server.stored == OBJECT * 40), ([0, 0, code], True))
                self.assertTrue(server.ports[0].startswith("10,77,0,3,"), server.ports)
                self.doCleanups()

    def router(self, here, there):
        """A third host between the two."""
        name = f"xr{os.getpid()}"
        ip("netns add", name)
        self.addCleanup(ip, "netns del", name)
        ip("-n", here, "link del", here)
        for far, near, net, last in ((here, "inner", "10.79.0", 1), (there, "outer", "10.77.0", 2)):
            ip("link add", far, "netns", far, "type veth peer name", near, "netns", name)
            ip("-n", far, f"addr add {net}.{last}/24 dev", far)
            ip("-n", name, f"addr add {net}.3/24 dev", near)
            ip("-n", far, "link set", far, "up")
            ip("-n", name, "link set", near, "up")
        ip("-n", here, "route add default via 10.79.0.3")
        return name

    def test_small_packets(self):
        codes, server = self.scenario(store, THERE, mtu=576)
        self.assertEqual((codes, server.stored), ([0, 0, 0], OBJECT * 40))

    def test_two_addresses(self):
        """The one that the control connection has is announced."""
        for address, announced in ((THERE, "10,77,0,1,"), (SECOND, "10,78,0,1,")):
            codes, server = self.scenario(store, address)
            self.assertEqual(codes, [0, 0, 0])
            self.assertTrue(server.ports[0].startswith(announced), server.ports)
            self.doCleanups()


if __name__ == "__main__":
    unittest.main()
