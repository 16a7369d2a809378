"""Whole Informix sessions on the sandbox, and what is left of one that was cut short."""
import ctypes as c
import hashlib
import os
import subprocess
import unittest

import inifile
from catalogue import Catalogue
from test_com import setUpModule, traced  # pylint: disable=unused-import
from xbsa import (SANITIZED, STRICT, Descriptor, Name, Query, make_folder, pattern, read_bytes, run,
                  write_plain)

os.environ.update(KORVA_SERVER="sandbox", KORVA_JOB="demo")
RUN = os.path.join(os.path.dirname(inifile.__file__), "run")
PROCESSES = 8 if SANITIZED else 64

# The fault, the codes of a store under it in strict mode, and the status its job is closed with.
# A greeting's code is not looked at.
FAULTS = [(fault, [3], "3") for fault in """user=refuse pass=refuse type=refuse cwd=refuse
    port=refuse stor=refuse connect=refuse type=close connect=close pass=reset connect=reset
    """.split()]
FAULTS += [("greeting=refuse", [0, 0, 0], "0"), ("greeting=close", [3], "3"),
           ("greeting=reset", [3], "3"), ("end=refuse", [0, 0, 3], "3"),
           ("end=close", [0, 0, 3], "3"), ("quit=close", [0, 0, 0], "0"),
           ("quit=reset", [0, 0, 0], "0"), ("openjob=silent", [3], "3"),
           ("closejob=refuse", [0, 0, 3], "0"), ("close=refuse", [0, 0, 3], "0"),
           ("closejob=signal", [0, 0, 3], "0"), ("open=refuse", [3], ""), ("open=garbage", [3], ""),
           ("openjob=refuse", [3], "")]


class Sandbox:
    """A sandbox of the test's own, and the INI file that leads to it."""

    def __init__(self, test, *options):
        self.folder = make_folder(test)
        # pylint: disable-next=consider-using-with
        self.process = subprocess.Popen([RUN, "--folder", self.folder, *options],
                                        stdout=subprocess.PIPE, text=True)
        test.addCleanup(self.stop)
        lines = iter(self.process.stdout.readline, "")
        assert any("Ready" in line for line in lines), "the sandbox does not start"
        write_plain(inifile.INI, inifile.text_for(self.folder))

    def stop(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def fault(self, line):
        write_plain(os.path.join(self.folder, "faults"), line + "\n")

    def objects(self):
        """What the catalogue says of each, oldest first."""
        catalogue = Catalogue(self.folder)
        rows = catalogue.table()
        catalogue.db.close()
        return [dict(zip(rows[0], row)) for row in rows[1:]]

    def states(self):
        return [each["state"] for each in self.objects()]


def start(x):
    assert x.init(b"BSA_API_VERSION=1.0.1", b"BSA_TIMEOUT=5", owner=b"INFORMIX") == 0


def query(x, space=b"obj"):
    """The code and the copy's id."""
    found, asked = Descriptor(), Query(name=Name(space, b"/data"), copyType=3)
    x.BSABeginTxn(x.handle)
    code = x.BSAQueryObject(x.handle, c.byref(asked), c.byref(found))
    x.BSAEndTxn(x.handle, 1)
    return code, found.copyId.right


def there_and_back(x, data, space=b"obj"):
    stored, copy = x.store(data, name=space), x.state.sObject.sBSA_Object.copyId.right
    found = query(x, space)
    assert (stored, found) == ([0, 0, 0], (0, copy)), (stored, found, copy)
    restored = x.restore(name=space, copy_id=copy)
    assert restored == ([0, 0, 0], data), (restored[0], len(restored[1]))


def both_ways(x, size):
    start(x)
    there_and_back(x, pattern(size))


def under_faults(x, sandbox, lines):
    """The results of stores, then a good one: nothing of the failed ones is in its way."""
    start(x)
    found = []
    for line in lines:
        sandbox.fault(line)
        found.append(x.store())
        assert x.last_error() or not any(found[-1]), line
    sandbox.fault("")
    there_and_back(x, b"after all that")
    return found


def own_data(number):
    return hashlib.shake_128(b"%d" % number).digest(100000 + number)


def at_once(x):
    """Each process stores what is its own, every eighth restores it, too; the exit codes."""
    processes = []
    for number in range(PROCESSES):
        processes.append(os.fork())
        if processes[-1] == 0:
            space, data, failed = b"space%d" % number, own_data(number), True
            try:
                start(x)
                if number % 8 == 0:
                    there_and_back(x, data, space)
                else:
                    assert x.store(data, name=space) == [0, 0, 0]
                failed = False
            finally:
                os._exit(failed)
    return [os.waitpid(process, 0)[1] for process in processes]


class OnSandbox(unittest.TestCase):
    def test_both_ways(self):
        """With either login, strict or not; whole blocks and parts of one."""
        for login, sizes in (("session", (0, 1, 65535, 3000000)), ("identity", (70000,))):
            sandbox = Sandbox(self, "--login", login)
            for size, env in zip(sizes, [STRICT, {}] * 2):
                with self.subTest(login, env=env, size=size):
                    run(both_ways, size, env=env)
            self.assertEqual(sandbox.states(), ["good"] * len(sizes))

    def test_faults(self):
        """Whatever fails, the utility hears of it, and a half object is never offered."""
        sandbox = Sandbox(self)
        lines = [line for line, _, _ in FAULTS]
        got = run(under_faults, sandbox, lines, env=STRICT)
        self.assertEqual(list(zip(lines, got.value)), [row[:2] for row in FAULTS])
        closed = [line.split(" -i ")[1][0] for line in traced(got, "com_intf: COM COMMAND: ")
                  if " closejob:" in line]
        self.assertEqual("".join(closed), "".join(row[2] for row in FAULTS) + "00")
        # two of the jobs closed with 0 were no backup's or never reached the catalogue
        self.assertEqual(sandbox.states().count("good"), closed.count("0") - 3)


class Load(unittest.TestCase):
    def test_at_once(self):
        sandbox = Sandbox(self)
        self.assertEqual(run(at_once, deadline=180).value, [0] * PROCESSES)
        self.assertEqual(sandbox.states(), ["good"] * PROCESSES)
        for each in sandbox.objects():
            self.assertEqual(read_bytes(f"{sandbox.folder}/objects/{each['saveset']}"),
                             own_data(int(each["space"][5:])), each)
