"""
On command: many processes at once, one process with many objects, one object of 20 GiB. Each run
prints a line of figures; what it says is checked. In tests/, all of it (or name runs at the end):

    XBSA_LIBRARY=... XBSA_TOOL=... XBSA_FTPD=... PYTHONPATH=../sandbox \\
        ../sandbox/run --exec python3 soak.py
"""
import multiprocessing
import os
import random
import resource
import subprocess
import sys
import time
import unittest

from server import Server
from test_com import Utility
from test_host import resident_bytes
from xbsa import STRICT, descriptors, pattern, run

PROCESSES, OBJECTS, MANY = 64, 200, 20000
GIANT = (20 << 30) + 1
SIZES = [0, 1, 512, 65534, 65535, 65536, 131070, 300000]
DATA = pattern(1 << 20)
WARM = 10  # objects after which memory and descriptors have to stay as they are
PATIENCE = 7200

# An object goes by its own number, to the server that this process has.
UTILITY = """#!/bin/sh
echo reply=OK
for last; do :; done
case $2 in
open) echo sessionID=S1 ;;
openjob:*) echo "tape_server=127.0.0.1:$SOAK_PORT:backup:secret
drive=SMS01
tape=LBL:17
savesetname=${last%%@*}@R1
segment=1" ;;
esac
"""


class Shelf(Server):
    """Hands each object out once, by the first word of its name; counts one beyond memory."""

    def __init__(self):
        super().__init__()
        self.giant = 0

    def key(self):
        return self.name.split(":")[0]

    def _receive(self):
        if self.key() != "giant":
            self.name = self.key()
            return super()._receive()
        room = bytearray(1 << 20)
        while count := self.data.recv_into(room):
            self.giant += count
        return "FIN"

    def _send(self):
        self.data.sendall(self.objects.pop(self.key()))
        return "FIN"


def cycles(x, server, owner, first, count, sizes):
    """Stores and restores objects; how much memory came after the first ones, and bytes moved."""
    host = [b"BSA_SERVICE_HOST=127.0.0.1:%d" % server.port] * (owner == b"PLAIN")
    assert x.init(b"BSA_API_VERSION=1.0.1", *host, owner=owner) == 0
    chance, moved = random.Random(first), 0
    for number in range(count):
        if number == WARM:
            before, resident = descriptors(), resident_bytes()
        size = chance.choice(sizes + [chance.randrange(max(sizes))])
        begin = chance.randrange(len(DATA) - size)
        data, names = DATA[begin:begin + size], {"name": b"%d" % (first + number)}
        stored = x.store(data, **names)
        restored, back = x.restore(copy_id=first + number, **names)
        assert (stored, restored) == ([0, 0, 0], [0, 0, 0]), (number, stored, restored)
        assert back == data, f"object {number} is another one"
        moved += 2 * size
    assert descriptors() == before
    return resident_bytes() - resident, moved


def one_process(number):
    server, owner = Shelf(), (b"PLAIN", b"INFORMIX")[number % 2]
    return run(cycles, server, owner, number * 1000, OBJECTS, SIZES, server=server, level=0,
               env=STRICT | {"SOAK_PORT": str(server.port)}, deadline=PATIENCE).value


def run_processes():
    with multiprocessing.Pool(PROCESSES) as pool:
        grown, moved = zip(*pool.map(one_process, range(PROCESSES), 1))
    assert max(grown) < 1 << 19, grown
    return (f"{PROCESSES} processes with {OBJECTS} objects, half on each road: "
            f"{2 * PROCESSES * OBJECTS} transfers, {sum(moved)} bytes, "
            f"at most {max(grown)} bytes more memory")


def run_objects():
    server = Shelf()
    grown, moved = run(cycles, server, b"PLAIN", 0, MANY, SIZES[:-3], server=server, level=0,
                       env=STRICT, deadline=PATIENCE).value
    assert grown < 1 << 19, grown
    return f"one process with {MANY} objects: {moved} bytes there and back, {grown} more memory"


def run_pipe():
    """The tool reads it from a pipe, and traces the total of each block."""
    server = Shelf()
    line = (f"head -c {GIANT} /dev/zero | {os.environ['XBSA_TOOL']} store giant - --path . "
            f"--host 127.0.0.1:{server.port} --user backup 2>&1")
    with subprocess.Popen(["sh", "-c", line], stdout=subprocess.PIPE,
                          env=dict(os.environ, XBSA_PASSWORD="secret")) as tool:
        server.serve(tool.stdout)
        server.forget()
        text = tool.communicate()[0].decode()
    assert server.giant == GIANT and f" {GIANT} bytes" in text, (server.giant, text)
    peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    assert peak < 1 << 16, f"{peak} KiB of memory"
    return f"xbsactl, one object of {GIANT} bytes from a pipe: {text.splitlines()[0]}"


def main(names):
    test = unittest.TestCase()
    Utility(test, script=UTILITY)
    for name in names or ("processes", "objects", "pipe"):
        began = time.monotonic()
        print(f"{globals()['run_' + name]()}, {time.monotonic() - began:.0f} s", flush=True)
    test.doCleanups()


if __name__ == "__main__":
    main(sys.argv[1:])
