"""Calling order, arguments and settings of the entry points."""
import ctypes as c
import os
import re
import unittest

from calls import call
from server import Server
from xbsa import Descriptor, Owner, Version, rows, run, run_started

# Calls in sequence, their codes, then the bits of the calls made. test_random.py makes those of a
# transfer in any order, with wrong handles and nulls.
ORDERS = rows("calls codes bits", ("init init", "0 5", 0x400), ("init terminate init", "0 0 5", 0x400),
    ("init begin commit init", "0 0 0 0", 0x400), ("init begin abort abort", "0 0 0 5", 0),
    ("init terminate! delete!", "0 6 0", 0x400), ("init-nohandle init", "22 5", 0x400),
    ("init-noowner begin", "22 0", 0x401), ("init-noenv begin", "0 0", 0x401),
    ("init-v2 begin terminate", "3 0 0", 0x401),
    ("init begin create-noname commit begin create-any", "0 0 22 0 0 22", 0x3),
    ("init begin create create", "0 0 3 5", 0x403), ("init begin get get", "0 0 3 5", 0x601),
    ("init send send-null send-nobuffer send-null!", "0 0 22 22 6", 0x400),
    ("init read read-null read-nobuffer read-null!", "0 0 22 22 6", 0x400),
    ("init begin create end end", "0 0 3 3 3", 0x40B),
    ("init begin query query next! next-null next", "0 0 0 5 6 22 18", 0x1501),
    ("init begin query! query commit begin query-null", "0 0 6 5 0 0 22", 0x1001),
    ("init begin query-noobject next", "0 0 22 18", 0x1501),
    ("version version-null init", "0 22 0", 0xC00), ("version-null", "22", 0),
    ("provider-null error-null error-nosize", "22 22 22", 0x2000))
# HOST is BSA_SERVICE_HOST; a port of None stays unchanged.
ENTRIES = rows("entries host port", ([], b"", 0), (["HOST=host1"], b"host1", 21),
    (["HOST=host1:4711"], b"host1", 4711), (["HOST=h:"], b"h", 21), (["HOST=h::4711"], b"h", 4711),
    (["HOST=::h"], b"h", 21), (["HOST=h:1", "HOST=::"], b"h", None),
    (["HOST=h:4294967317"], b"h", 2**31 - 1), (["HOST=h:-4294967317"], b"h", -2**31),
    (["HOST=h:1", "HOST="], b"h", None), (["HOST=h:1", "BSA_TIMEOUT=30", "OTHER=x", ""], b"h", 1, 30),
    (["BSA_API_VERSION=1.9", "HOST=h:2"], b"h", 2), (["BSA_API_VERSION=2.0", "HOST=h:2"], b"", None),
    (["BSA_API_VERSION"], b"", None), (["HOST", "BSA_TIMEOUT"], b"", 21),
    (["HOST=" + "h" * 5000 + ":7"], b"h" * 4095, 7), time_out=0)
# Variables of the COM utility: changes to a full set, result, fields that stay empty.
LIMITS = {"KORVA_SERVER": ("szKORVAServer", 127), "KORVA_JOB": ("szJobName", 255),
          "KORVA_TAPE_SERVER": ("szKORVATapeServer", 127), "KORVA_DRIVE": ("szDrive", 7),
          "KORVA_POOL": ("szPool", 255), "KORVA_COM_TIMEOUT": ("szCOMTimeOut", 7)}


def play(x, calls):
    sms = x.state.sObject.sSMS
    sms.iPort, sms.szHostName = 70000, b"127.0.0.1"  # so that no connect goes anywhere
    return [call(x, name) for name in calls.split()], x.state.sSession.iLastCall, sms.iOpStatus, x.last_error()


class Calls(unittest.TestCase):
    def test_orders(self):
        for calls, codes, bits in ORDERS:
            with self.subTest(calls):
                for strict in "01" if " end" in calls else "0":
                    *got, status, message = run(play, calls, env={"KORVA_STRICT": strict}).value
                    self.assertEqual(got, [[int(n) for n in codes.split()], bits])
                    self.assertEqual(status, 3 if "create" in calls else 0)
                    if calls == "init begin get get":
                        self.assertEqual(message.strip(), "Invalid argument connect() failed.")

    def test_entries(self):
        for entries, host, port, time_out in ENTRIES:
            with self.subTest(entries=str(entries)[:80]):
                def init(x):
                    code = x.init(*(re.sub("^HOST", "BSA_SERVICE_HOST", text).encode() for text in entries))
                    sms = x.state.sObject.sSMS
                    return code, sms.szHostName, x.state.ulTimeOut, x.state.iQAB, sms.iPort
                outcome = run(init)
                *got, found = outcome.value
                refused = "BSAInit: XBSA API Version: " in "".join(outcome.trace)
                self.assertEqual(got, [3 * refused, host, time_out, 0])
                self.assertEqual(refused, port is None and not host)
                self.assertIn(port, (found, None))

    def test_identity(self):
        def ask(x):
            version, found = Version(), []
            x.BSAQueryApiVersion(c.byref(version))
            for size in c.c_uint(14), c.c_uint(15):
                colon, name = c.create_string_buffer(2), c.create_string_buffer(16)
                code = x.BSAQueryServiceProvider(c.byref(size), colon, name)
                found.append((code, size.value, colon.value, name.value))
            x.init()
            return x.handle.value == os.getpid() == x.state.sSession.lBSAHandle, bytes(version), found
        self.assertEqual(run(ask).value, (True, bytes(Version(1, 0, 1)), [
            (7, 15, b"", b""), (0, 15, b":", b"TOV:KORVA:1.8A1")]))

    def test_informix(self):
        def init(x):
            return [(x.init(owner=owner), x.state.iQAB, x.BSAEndTxn(x.handle, 1))
                    for owner in (b"informix", b"INFORMIX", b"INFORMIX ", b"")]
        self.assertEqual(run(init).value, [(0, flag, 5) for flag in (0, 1, 0, 0)])

    def test_com_environment(self):
        def read(x):
            fields = x.state.sCOM
            code = x.get_COM_environment(c.byref(fields))
            return code, {name: len(getattr(fields, field)) for name, (field, _) in LIMITS.items()}
        full = {name: longest for name, (_, longest) in LIMITS.items()}
        none = dict.fromkeys(LIMITS, 0)
        for change, code, want in (({}, 0, full), ({"KORVA_SERVER": 128}, 1, none),
                ({"KORVA_JOB": 256}, 1, none | {"KORVA_SERVER": 127}),
                *(({name: full[name] + 1}, 0, full | {name: 0}) for name in list(LIMITS)[2:])):
            with self.subTest(change):
                env = {name: "v" * size for name, size in (full | change).items()}
                self.assertEqual(run(read, env=env).value, (code, want))

    def test_owners(self):
        """The login; fields without a terminator are read to their last byte."""
        owners = [(b"user=u:pass=p", "u", "p"), (b"", "", ""), (b"abc:abc", "", ""),
                  (b"user=u", "u", ""), (b"user=u:pass=p:rest", "u", "p"), (b"A" * 64, "A" * 59, ""),
                  (b"user=" + b"B" * 30 + b":pass=" + b"C" * 23, "B" * 30, "C" * 23)]

        def create(x):
            full, kept = Descriptor.from_buffer_copy(b"D" * c.sizeof(Descriptor)), []
            for owner, *_ in owners:
                full.owner = Owner(owner, b"D" * 64)
                x.BSABeginTxn(x.handle)
                kept.append((x.BSACreateObject(x.handle, c.byref(full), None), full.owner.bsa))
                _ = x.BSAEndData(x.handle), x.BSAEndTxn(x.handle, 1)
            return kept
        server = Server()
        self.assertEqual(run_started(create, server=server).value, [(0, row[0]) for row in owners])
        self.assertEqual([lines[:2] + lines[3:4] + lines[5:6] for lines in server.heard],
                         [["USER " + user, "PASS " + word, "CWD " + "D" * 1024, "STOR " + "D" * 1024]
                          for _, user, word in owners])
