"""
On command: many processes at once, and one process with many objects. Each run prints a line of
figures; what it says is checked. In tests/command/ (the name of one run at the end for it alone):

    XBSA_LIBRARY=... PYTHONPATH=../harness:../../sandbox ../../sandbox/run --exec python3 soak.py
"""
import multiprocessing
import random
import sys
import time
import unittest

from server import Server
from utility import Utility
from xbsa import STRICT, descriptors, pattern, resident_bytes, run

PROCESSES, OBJECTS, MANY = 64, 200, 20000
SIZES = [0, 1, 512, 65534, 65535, 65536, 131070, 300000]
DATA = pattern(1 << 20)
WARM = 10  # objects after which memory and descriptors have to stay as they are

# An object goes by its own number, to the server that this process has.
UTILITY = """#!/bin/sh
for last; do :; done
echo "reply=OK
sessionID=S1
tape_server=127.0.0.1:$SOAK_PORT:backup:secret
drive=SMS01
tape=LBL:17
savesetname=${last%%@*}@R1
segment=1"
"""


class Shelf(Server):
    def _receive(self):
        self.name = self.name.split(":")[0]
        return super()._receive()

    def _send(self):
        self.data.sendall(self.objects.pop(self.name.split(":")[0]))
        return "FIN"


def cycles(x, server, owner, first, count, sizes):
    host = [b"BSA_SERVICE_HOST=127.0.0.1:%d" % server.port] * (owner == b"PLAIN")
    assert x.init(b"BSA_API_VERSION=1.0.1", *host, owner=owner) == 0
    chance, moved = random.Random(first), 0
    for number in range(count):
        if number == WARM:
            before, resident = descriptors(), resident_bytes()
        size = chance.choice(sizes + [chance.randrange(max(sizes))])
        begin = chance.randrange(len(DATA) - size)
        data, names = DATA[begin:begin + size], {"name": b"%d" % (first + number)}
        got = x.store(data, **names), x.restore(copy_id=first + number, **names)
        assert got == ([0, 0, 0], ([0, 0, 0], data)), (number, got[0], got[1][0])
        moved += 2 * size
    assert descriptors() == before
    return resident_bytes() - resident, moved


def play(number, count=OBJECTS, sizes=None):
    server, owner = Shelf(), (b"PLAIN", b"INFORMIX")[number % 2]
    return run(cycles, server, owner, number * 1000, count, sizes or SIZES, server=server, level=0,
               env=STRICT | {"SOAK_PORT": str(server.port)}).value


def run_processes():
    with multiprocessing.Pool(PROCESSES) as pool:
        return pool.map(play, range(PROCESSES), 1)


def run_objects():
    return [play(0, MANY, SIZES[:-3])]


def main(names):
    test = unittest.TestCase()
    Utility(test, script=UTILITY)
    for name in names or ("processes", "objects"):
        began = time.monotonic()
        grown, moved = zip(*globals()["run_" + name]())
        assert max(grown) < 1 << 19, grown
        print(f"{name}: {sum(moved)} bytes there and back, at most {max(grown)} bytes more memory, "
              f"{time.monotonic() - began:.0f} s", flush=True)
    test.doCleanups()


if __name__ == "__main__":
    main(sys.argv[1:])
