"""Every system call fails once, or from then on: the result is correct or a failure."""
import ctypes as c
import errno
import hashlib
import itertools
import os
import re
import shutil
import unittest

from calls import call
from ftpd import Daemon
from sandboxed import Sandbox
from utility import Utility
from xbsa import pattern, run, write_plain

FULL = os.environ.get("XBSA_FAULTS") == "all"
DATA = pattern(70000)
LOG = {"XBSA_TRACE": "2", "XBSA_LOGFILE": "xbsa.log"}

# Failures of the calls of both modes, then of Informix mode; SHORT moves one byte.
PLAIN = """malloc:ENOMEM socket:EMFILE,ENOMEM bind:ENOMEM listen:ENOMEM getsockname:ENOMEM
    accept4:EMFILE,ENOMEM,EINTR,EAGAIN,ECONNRESET connect:EINTR,EAGAIN,ENOMEM,ECONNRESET
    setsockopt:ENOMEM open:EMFILE,ENOMEM,EINTR,ENOSPC
    send:ECONNRESET,EPIPE,EINTR,EAGAIN,ENOMEM,SHORT recv:ECONNRESET,EINTR,EAGAIN,ENOMEM,SHORT
    write:ENOSPC,EPIPE,EINTR,EAGAIN,SHORT close:EINTR,ENOSPC
    gethostbyname:EAGAIN,ENOMEM"""
INFORMIX = PLAIN + """ fdopen:ENOMEM fgets:EINTR,ENOMEM fread:EINTR,ENOMEM,SHORT fclose:EINTR
    popen:EMFILE,EAGAIN,ENOMEM pclose:EINTR getpwuid:EINTR,EMFILE,ENOMEM
    gethostbyaddr:EAGAIN,ENOMEM poll:ENOMEM,EINTR"""
NONE = "malloc", 0, 0, ""
ALL = re.findall(r"(\w+):", INFORMIX) + ["fcntl", "getpeername"]
# Strict mode, how many of 0 to 2 are closed in the host, and the calls that occur only there.
HOSTS = [("0", 0, ""), ("1", 0, " getpeername:ENOMEM"), ("1", 3, " fcntl:EMFILE")]


def series(table, growth, calls):
    """Faults as (call, number, on, error). In CI numbers grow, and the ways to fail alternate."""
    for row in table.split():
        call, _, errors = row.partition(":")
        ways = list(itertools.product((0, 1), errors.split(",")))
        if FULL:
            faults = itertools.product(range(calls[call]), ways)
        else:
            numbers = itertools.accumulate(range(20), lambda last, _: last + 1 + last // growth)
            faults = zip(numbers, itertools.cycle(ways))
        yield from ((call, number + 1, *way) for number, way in faults if number < calls[call])


def attempt(x, mode, action, closed, fault):
    call, number, on, error = fault
    shim = c.CDLL(None)
    _ = [os.close(low) for low in range(closed)]
    assert shim.shim_arm(call.encode(), number, on, getattr(errno, error, 0))
    codes, data = [mode.begin(x)], DATA
    if codes == [0] and action == "store":
        codes = x.store(DATA, **mode.names)
    elif codes == [0]:
        codes, data = x.restore(**mode.names)
    hits, message, again = c.c_int.in_dll(shim, "shim_hits").value, x.last_error(), [0, 0, 0]
    calls = {call: shim.shim_calls(call.encode()) for call in ALL}
    shim.shim_arm(b"malloc", 0, 0, 0)
    if any(codes):
        mode.begin(x)
        again = x.store(b"after that", **mode.names | {"name": b"next"})
    lost = shim.shim_blocks() - bool(x.state.cpTraceBuffer)
    _ = [os.open("/dev/null", os.O_RDWR) for _ in range(closed)]
    return codes, data == DATA, message, again, lost, hits, calls


class Mode:
    cases = calls = 0

    def test_faults(self):
        for strict, closed, alone in self.hosts:
            for action in ("store", "restore"):
                table = self.table if FULL else "" if alone else self.brief[action]
                left = self.drive(action, closed, strict, table + alone)
                # sometimes a connection comes before the library polls
                self.assertEqual(left - {"poll"}, set(), "never failed")
        print(f"{self.cases} faults injected, {self.calls} calls failed")

    def drive(self, action, closed, strict, table):
        left = set(re.findall(r"(\w+):", table))
        how = action, closed, {"KORVA_STRICT": strict} | LOG
        for fault in series(table, self.growth, self.inject(*how, NONE)[1]):
            with self.subTest(action=action, closed=closed, strict=strict, fault=fault):
                hits = self.inject(*how, fault)[0]
                self.cases, self.calls = self.cases + (hits > 0), self.calls + hits
                left -= {fault[0]} if hits else set()
        return left

    def inject(self, action, closed, env, fault):
        self.prepare(action)
        codes, right, message, again, lost, hits, calls = run(
            attempt, self, action, closed, fault, server=self.server, level=None, env=env).value
        self.assertEqual((again, lost), ([0, 0, 0], 0))
        self.assertTrue(message if any(codes) else right, f"{codes}: no last message, or wrong data")
        if action == "store":
            left, known = self.stored(), [[DATA]]
            # By default, in Informix mode only the utility learns that an object is not whole.
            known += [[]] if any(codes) or self.server is None and env["KORVA_STRICT"] == "0" else []
            # A server whose reply cannot be sent may die before it removes a partial object.
            known += [[b""]] if any(codes) and fault[0] == "recv" else []
            self.assertIn(left, known, f"codes {codes}")
        return hits, calls, codes


class Plain(Mode, unittest.TestCase):
    table, brief, growth, hosts = PLAIN, {"store": PLAIN, "restore": PLAIN}, 2, HOSTS

    def test_partial(self):
        """Only the two commands that are sent with one call fail if it takes one byte."""
        for action in ("store", "restore"):
            calls = self.inject(action, 0, LOG, NONE)[1]
            for name, verbs in ("send", 2), ("recv", 0):
                failed = [any(self.inject(action, 0, LOG, (name, number + 1, 0, "SHORT"))[2])
                          for number in range(calls[name])]
                self.assertEqual(sum(failed), verbs, (action, name, failed))

    def begin(self, x):
        host = b"BSA_SERVICE_HOST=127.0.0.1:%d" % self.server.port
        return x.init(b"BSA_API_VERSION=1.0.1", b"BSA_TIMEOUT=2", host)

    def prepare(self, action):
        self.doCleanups()  # removes the previous directory
        self.server = Daemon("vsftpd")
        self.addCleanup(shutil.rmtree, self.server.folder)
        self.names = {"owner": self.server.owner, "path": b".", "name": b"obj"}
        if action == "restore":
            write_plain(self.server.data + "/obj", DATA)

    def stored(self):
        return [data for name, data in self.server.stored().items() if name != "next"]


class Informix(Mode, unittest.TestCase):
    table, growth, hosts, server = INFORMIX, 1, HOSTS if FULL else HOSTS[:1], None
    # Store and restore read settings, answers and login in the same way.
    brief = {"restore": "malloc:ENOMEM popen:EMFILE poll:ENOMEM"}
    brief["store"] = brief["restore"] + """ fread:SHORT,EINTR fdopen:ENOMEM fgets:EINTR
        gethostbyaddr:EAGAIN getpwuid:EMFILE"""

    def test_refused_query(self):
        """The next query frees what a failed one has allocated."""
        def ask(x, forget):
            self.begin(x)
            assert c.CDLL(None).shim_arm(b"malloc", 0, 0, 0)
            held = []
            for _ in range(4):
                _ = call(x, "begin"), call(x, "query")
                held.append(c.CDLL(None).shim_blocks())
                if forget:
                    x.state.spQueryResult[0] = None
                x.BSAEndTxn(x.handle, 1)
            return held
        for answer in b"reply=OK\nsavesetname=1\n", b"message=no\nreply=ERROR\n", b"":
            Utility(self, {"-q": answer})
            held = run(ask, b"savesetname" in answer).value
            self.assertEqual(held[1:], held[:3])

    def setUp(self):
        self.sandbox = Sandbox(self, "--login", "identity")

        def store(x):
            self.begin(x)
            assert x.store(DATA) == [0, 0, 0]
            return x.state.sObject.sBSA_Object.copyId.right
        self.names = {"copy_id": run(store).value}

    def begin(self, x):
        return x.init(b"BSA_API_VERSION=1.0.1", b"BSA_TIMEOUT=2", owner=b"INFORMIX")

    def prepare(self, action):
        self.known = len(self.sandbox.objects())

    def stored(self):
        sums = [each["sha256"] for each in self.sandbox.objects()[self.known:]
                if (each["space"], each["state"]) == ("obj", "good")]
        return [DATA if each == hashlib.sha256(DATA).hexdigest() else each for each in sums]
