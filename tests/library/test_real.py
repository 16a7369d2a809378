"""
Real servers: stored objects come back, unless either side dies or sleeps during the transfer, or a disk is
full. CI kills each server after a tenth and each client before its end. XBSA_REAL=all runs everything, as
root, in six minutes.
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

from ftpd import Daemon, proftpd_version
from sandboxed import Sandbox, start
from xbsa import STRICT, pattern, read_text, run

ALL = os.environ.get("XBSA_REAL") == "all"
SERVERS = ["vsftpd", "proftpd", "sandbox"] + ["pure-ftpd"] * (os.getuid() == 0)
OBJECT, OLD = pattern(32 << 20), b"the old object"
BLOCKS = len(OBJECT) // 65535
# Seconds until a server drops an idle client, and of a sleep; Pure-FTPd counts in minutes.
LIMIT, PAUSE = 10, {"pure-ftpd": 70}
FAULTS = [("kill server", 10), ("kill client", 100)]
if ALL:
    FAULTS = list(itertools.product(("kill server", "kill client"), (0, 1, 10, 50, 99, 100)))
    FAULTS += [("pause server", 50), ("pause client", 50), ("full disk", 0)]
# What the server has after a client died during a store.
KEPT = {"proftpd": "old", "sandbox": "old", "vsftpd": "none", "pure-ftpd": "half"}
if proftpd_version() < "1.3.8":  # also removes the old object
    KEPT["proftpd"] = "none"


class Peer:
    def __init__(self, name, test, limit):
        self.pause, self.server, self.sandbox = PAUSE.get(name, 2 * LIMIT), None, None
        if name == "sandbox":
            self.sandbox = Sandbox(test)
            self.disk = os.path.join(self.sandbox.folder, "objects")
        else:
            self.server = Daemon(name, limit)
            self.disk = self.server.data
            test.addCleanup(shutil.rmtree, self.server.folder)

    def begin(self, x):
        _ = start(x) if self.sandbox else x.start(self.server)
        return {} if self.sandbox else {"owner": self.server.owner, "path": b".", "name": b"obj"}

    def signal(self, number):
        if self.sandbox:
            os.kill(self.sandbox.process.pid, number)  # the child is not its parent and cannot wait for it
        else:
            os.killpg(int(read_text(self.server.folder + "/groups").split()[-1]), number)

    def kept(self, verb):
        if self.sandbox:
            states = ["none", "old", "whole"] if verb == "store" else ["none", "whole"]
            return states[self.sandbox.states().count("good")]
        data = self.server.stored().get("obj")
        return {None: "none", OLD: "old", OBJECT: "whole"}.get(data) or (
            "half" if OBJECT.startswith(data) else "wrong")


def strike(peer, fault):
    if fault == "kill server":
        peer.signal(signal.SIGKILL)
    elif fault == "pause server":
        peer.signal(signal.SIGSTOP)
        threading.Timer(peer.pause, peer.signal, [signal.SIGCONT]).start()
    elif fault == "kill client":
        os.kill(os.getpid(), signal.SIGKILL)
    elif fault == "pause client":
        with subprocess.Popen(["sh", "-c", f"sleep {peer.pause}; kill -CONT {os.getpid()}"]):
            os.kill(os.getpid(), signal.SIGSTOP)


def transfer(x, peer, verb, fault, percent):
    names = peer.begin(x)
    first = x.store(OBJECT if verb == "restore" else OLD, **names)
    assert first == [0, 0, 0], (first, x.last_error())
    names |= {"copy_id": x.state.sObject.sBSA_Object.copyId.right} if peer.sandbox else {}
    call = "BSAEndData" if percent == 100 else "send" if verb == "store" else "BSAGetData"
    real, count, number = getattr(x, call), itertools.count(), BLOCKS * (percent % 100) // 100
    setattr(x, call, lambda *given: (next(count) == number and strike(peer, fault), real(*given))[1])
    if verb == "store":
        return x.store(OBJECT, **names), None, x.last_error()
    codes, data = x.restore(**names)
    return codes, data == OBJECT, x.last_error()


def there_and_back(x, peer):
    names = peer.begin(x)
    for data in map(pattern, (0, 1, 65535, 65536, 65537, 50 << 20)):
        got = x.store(data, **names), x.restore(**names)
        assert got == ([0, 0, 0], ([0, 0, 0], data)), (len(data), got[0], got[1][0])


def problem(name, verb, fault, percent, got, kept):
    if got is None:
        want = "whole" if verb == "restore" else KEPT[name]
        sent_all = (want, percent, kept) == ("half", 100, "whole")
        return "" if kept == want or sent_all else f"the server kept: {kept}"
    code, right = max(got[0]), kept == "whole" if verb == "store" else got[1]
    if code == 0 and not right:
        return "a success with wrong bytes"
    # the rest may already be on its way when a server is killed
    fails = fault == "full disk" or (verb, fault) == ("store", "kill server")
    return "a success" if fails and code == 0 else ""


def all_rows(name):
    lines = []
    for verb in ("store", "restore"):
        for fault, percent in FAULTS[:len(FAULTS) - (ALL and verb == "restore")]:  # no full disk
            test, began = unittest.TestCase(), time.monotonic()
            peer = Peer(name, test, LIMIT if "pause" in fault else 300)
            if fault == "full disk":
                line = "mount -t tmpfs -o size=4m,mode=777 small".split()
                subprocess.run([*line, peer.disk], check=True)
                test.addCleanup(subprocess.run, ["umount", "-l", peer.disk], check=True)
            got = run(transfer, peer, verb, fault, percent, server=peer.server, level=0,
                      env=STRICT, killed=fault == "kill client").value
            kept = peer.kept(verb)
            codes, _, error = got or ("", "", "")
            lines.append((f"{name:10}{verb:8}{fault:13}{percent:3} %  {time.monotonic() - began:5.1f} s  "
                          f"{codes} {kept:5} {error.strip()}", problem(name, verb, fault, percent, got, kept)))
            test.doCleanups()
    return lines


class Faults(unittest.TestCase):
    def test_there_and_back(self):
        for name in set(SERVERS) - {"sandbox"}:
            with self.subTest(name):
                peer = Peer(name, self, 300)
                run(there_and_back, peer, server=peer.server, env=STRICT)

    def test_faults(self):
        with multiprocessing.Pool(len(SERVERS)) as pool:
            rows = sum(pool.map(all_rows, SERVERS, 1), [])
        if ALL:
            print("", *(line for line, _ in rows), sep="\n")
        self.assertEqual([row for row in rows if row[1]], [])
