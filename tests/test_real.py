"""
Real servers, real faults: either side dies or sleeps in mid-transfer, and a disk that is full.
CI kills each server after a tenth and each client before its end. All of it on command, as root,
six minutes; in tests/:

    XBSA_REAL=all XBSA_LIBRARY=... XBSA_FTPD=... PYTHONPATH=../sandbox \\
        ../sandbox/run --exec python3 -m unittest -v test_real
"""
import itertools
import multiprocessing
import os
import shutil
import signal
import subprocess
import threading
import time
import unittest

from ftpd import Daemon
from test_com import setUpModule  # pylint: disable=unused-import
from test_sandbox import Sandbox, start
from xbsa import STRICT, pattern, read_text, run

ALL = os.environ.get("XBSA_REAL") == "all"
SERVERS = ["vsftpd", "proftpd", "pyftpdlib", "sandbox"] + ["pure-ftpd"] * (os.getuid() == 0)
OBJECT, OLD = pattern(32 << 20), b"the old object"
BLOCKS = len(OBJECT) // 65535
# Seconds that a server stands an idle client, and of a sleep; Pure-FTPd knows minutes only.
LIMIT, PAUSE = 10, {"pure-ftpd": 70}
FAULTS = [("kill server", 10), ("kill client", 100)]
if ALL:
    FAULTS = list(itertools.product(("kill server", "kill client"), (0, 1, 10, 50, 99, 100)))
    FAULTS += [("pause server", 50), ("pause client", 50), ("full disk", 0)]
# What the server has when a client died in mid-store.
KEPT = {"proftpd": "old", "sandbox": "old", "vsftpd": "none", "pyftpdlib": "half",
        "pure-ftpd": "half"}


class Peer:
    """A server under test; the sandbox is reached over the Informix road."""

    def __init__(self, name, test, limit):
        self.pause = PAUSE.get(name, 2 * LIMIT)
        self.server = self.sandbox = None
        if name == "sandbox":
            self.sandbox = Sandbox(test)
            self.disk = os.path.join(self.sandbox.folder, "objects")
            return
        self.server = Daemon(name, limit)
        test.addCleanup(shutil.rmtree, self.server.folder)
        self.disk = self.server.data

    def begin(self, x):
        if self.sandbox:
            start(x)
            return {}
        x.start(self.server)
        return {"owner": self.server.owner, "path": b".", "name": b"obj"}

    def signal(self, number):
        """To all processes of the last connection."""
        if self.sandbox:
            os.kill(self.sandbox.process.pid, number)
            return
        groups = read_text(os.path.join(self.server.folder, "groups"))
        os.killpg(int(groups.split()[-1]), number)

    def kept(self, verb):
        """What a restore would give now."""
        if self.sandbox:
            states = ["none", "old", "whole"] if verb == "store" else ["none", "whole"]
            return states[self.sandbox.states().count("good")]
        data = self.server.stored().get("obj")
        known = {None: "none", OLD: "old", OBJECT: "whole"}
        return known.get(data) or ("half" if OBJECT.startswith(data) else "wrong")


def strike_at(x, call, number, strike):
    real, left = getattr(x, call), [number]

    def counted(*arguments):
        if left[0] == 0:
            strike()
        left[0] -= 1
        return real(*arguments)
    setattr(x, call, counted)


def make_strike(peer, fault):
    if fault == "kill server":
        return lambda: peer.signal(signal.SIGKILL)
    if fault == "kill client":
        return lambda: os.kill(os.getpid(), signal.SIGKILL)
    if fault == "pause client":
        def sleep():
            line = f"sleep {peer.pause}; kill -CONT {os.getpid()}"
            with subprocess.Popen(["sh", "-c", line]):
                os.kill(os.getpid(), signal.SIGSTOP)
        return sleep

    def pause():
        peer.signal(signal.SIGSTOP)
        threading.Timer(peer.pause, peer.signal, [signal.SIGCONT]).start()
    return pause if fault == "pause server" else lambda: None


def transfer(x, peer, verb, fault, percent):
    names = peer.begin(x)
    first = x.store(OBJECT if verb == "restore" else OLD, **names)
    assert first == [0, 0, 0], (first, x.last_error())
    names |= {"copy_id": x.state.sObject.sBSA_Object.copyId.right} if peer.sandbox else {}
    call = "send" if verb == "store" else "BSAGetData"
    if percent < 100:
        strike_at(x, call, BLOCKS * percent // 100, make_strike(peer, fault))
    else:
        strike_at(x, "BSAEndData", 0, make_strike(peer, fault))
    if verb == "store":
        return x.store(OBJECT, **names), None, x.last_error()
    codes, data = x.restore(**names)
    return codes, data == OBJECT, x.last_error()


def mount_small(test, folder):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m,mode=777", "small", folder], check=True)
    test.addCleanup(subprocess.run, ["umount", "-l", folder], check=True)


def problem(name, verb, fault, percent, got, kept):
    if got is None:
        want = "whole" if verb == "restore" else KEPT[name]
        sent_all = (want, percent, kept) == ("half", 100, "whole")
        return "" if kept == want or sent_all else f"the server kept: {kept}"
    code, right = max(got[0]), kept == "whole" if verb == "store" else got[1]
    if code == 0 and not right:
        return "a success with wrong bytes"
    # what a server sends before it is killed may be the whole rest, on its way already
    fails = fault == "full disk" or (verb, fault) == ("store", "kill server")
    return "a success" if fails and code == 0 else ""


def all_rows(name):
    lines = []
    for verb in ("store", "restore"):
        for fault, percent in FAULTS:
            if (verb, fault) == ("restore", "full disk"):
                continue
            test, began = unittest.TestCase(), time.monotonic()
            peer = Peer(name, test, LIMIT if "pause" in fault else 300)
            if fault == "full disk":
                mount_small(test, peer.disk)
            got = run(transfer, peer, verb, fault, percent, server=peer.server, level=0,
                      env=STRICT, killed=fault == "kill client").value
            kept = peer.kept(verb)
            codes, _, error = got or ("", "", "")
            line = f"{name:10}{verb:8}{fault:13}{percent:3} %  {time.monotonic() - began:5.1f} s  "
            lines.append((f"{line}{codes} {kept:5} {error.strip()}",
                          problem(name, verb, fault, percent, got, kept)))
            test.doCleanups()
    return lines


class Faults(unittest.TestCase):
    def test_faults(self):
        """Never a success without the right bytes, and no end without a word."""
        with multiprocessing.Pool(len(SERVERS)) as pool:
            rows = sum(pool.map(all_rows, SERVERS, 1), [])
        if ALL:
            print("", *(line for line, _ in rows), sep="\n")
        self.assertEqual([row for row in rows if row[1]], [])
