"""The helpers, error texts, commands and replies, each called alone."""
import ctypes as c
import errno
import itertools
import socket
import unittest
import zlib

from xbsa import Global, rows, run

# Functions, and for each rows of arguments and result.
CALLS = {"x_IsEmptyString": [(None, 1), (b"", 1), (b"   ", 1), (b"\t", 0)], "x_MatchKeyword": [
        (b"STO", b"STORE", 3, None, 0, 1), (b"STO", b"STORE", 4, None, 0, 0),
        (b"STOREX", b"STORE", 0, None, 0, 0), (b"STORE=1", b"STORE", 0, b"=", 0, 1),
        (b"store", b"STORE", 0, None, 1, 0), (b"store", b"STORE", 99, None, 0, 1),
        (b"stx", b"STORE", 2, b"x", 0, 0), (b"stx", b"STORE", 2, b"X", 0, 1),
        (b" ", b"STORE", 1, None, 0, 0), (None, b"STORE", 1, None, 0, 0), (b"a", b" ", 1, None, 0, 0)],
    "strupr": [(b"a`Zz{\xe4", b"A`ZZ{\xe4")], "x_LTrim": [(b"  ab", b"abab"), (b" ab", b"abb"), (b"ab", b"ab")],
    "x_RTrim": [(b"ab  ", b"ab"), (b"   ", b""), (b"", b"")],
    "x_AllTrim": [(b"ab ", b"ab"), (b"", b""), (None, None)], "xbsa_typeerr": [(code, text) for codes, text in (
        ((0, 32, 99), b"The function succeeded."), ((22,), b"The BSA_QueryDescriptor was invalid."),
        ((3,), b"System detected error, operation aborted."),
        ((5,), b"The sequence of API calls is incorrect.")) for code in codes],
    "xbsaDSopt": [(-1, 1, 0), (-1, 2, 0)], "xbsaCSopt": [(-1, -1)], "SOCKET_close": [(-1, -1)],
    "BSAGetEnvironment": [(0, None, None, 0)], "stpc_send": [(-1, b"PA", 2, 0, -1)],
    # number, kind, description, and the description's %s
    "SysErrorTxt": [
        (0, 0, b"RETR failed. NEGATIVE reply: %s", b"550 x", b"RETR failed. NEGATIVE reply: 550 x"),
        (errno.ECONNREFUSED, 3, b"connect() failed.", b"Connection refused connect() failed."),
        (errno.ECONNREFUSED, 2, None, b"Connection refused"), (111, 1, b"tail", b" tail"), (0, 1, b"x", b"x"),
        (5, 0, b"bare", b" bare"), (0, 0, b"%s", b"y" * 5000, b"y" * 1535)], "syserrtxt": [
        (errno.EPERM, 1, b"x", b"Operation not permitted. x"), (10061, 2, b"x", b""),
        (errno.EPERM, 4, None, b"Operation not permitted."), (1, 5, b"x", b"Host is unknown. x"),
        (9, 5, b"x", b""), (0, 1, b"only", b"only"), (7, 0, b"only", b" only"),
        (7, 9, b"only", b" only"), (errno.EPERM, 1, b"%s", b"y" * 5000, b"Operation not permitted. " + b"y" * 255)]}
# The transfer command; of tape 7, segment 2, label T1.
COMMANDS = rows("mode path buffer command", (1, b"/data", 0, b"STOR obj"), (2, b"/data", 0, b"RETR obj"),
    (1, b"SMS01", 262144, b"STOR obj:QAB:none:7:T1:256"), (1, b"sms01", 262144, b"STOR obj"),
    (1, b"SMS01", 512, b"STOR obj:QAB:none:7:T1:64"), (1, b"SMS", 1025, b"STOR obj:QAB:none:7:T1:1"),
    (2, b"SMS01", 262144, b"RETR obj:0:0:7:2:none"))


ROWS = [(name, row[:-1], row[-1]) for name, rows in CALLS.items() for row in rows]


def all_calls(x):
    return [getattr(x, name)(*(c.create_string_buffer(a) if a and name.endswith(("Trim", "upr")) else a
                               for a in arguments)) for name, arguments, _ in ROWS]


def commands(x, mode, path, size, **changes):
    fields = dict(szUser=b"u", szPass=b"p", szPath=path, szName=b"obj", szTape=b"T1", ulTapeID=7,
                  ulSegmentNum=2, iTCPBufsiz=size) | changes
    for field, value in fields.items():
        setattr(x.state.sObject.sSMS, field, value)
    slots = [c.create_string_buffer(2048) for _ in range(16)]
    code = x.xbsa_prepare_commands((c.c_char_p * 16)(*map(c.addressof, slots)), mode)
    return code, x.last_error() != "", [slot.value for slot in slots]


def first_record(x):
    """The state before any call, and the texts of all numbers."""
    want = Global(iReadTraceEnvironment=1)
    want.sSession.SControl = want.sSession.SData = -1
    for fields in want.sObject.sBSA_Object, want.sQueryDescriptor:
        fields.copyType = fields.objectType = fields.objectStatus = 1
    same = bytes(x.state) == bytes(want)
    x.i_open_trace()
    texts = b"|".join(x.SysErrorTxt(number, 1, None) for number in range(10000, 11010))
    return same, bool(x.state.cpTraceBuffer), zlib.crc32(texts)


class Helpers(unittest.TestCase):
    def test_first_record(self):
        self.assertEqual(run(first_record, level=None).value, (True, True, 2543104092))

    def test_calls(self):
        for level in (0, 3):
            for (name, arguments, want), got in zip(ROWS, run(all_calls, level=level).value):
                with self.subTest(name, arguments=str(arguments)[:60]):
                    self.assertEqual(got, want)

    def test_first_error_wins(self):
        def errors(x):
            _ = x.SysErrorTxt(0, 0, b"first"), x.SysErrorTxt(0, 0, b"second")
            size, text = c.c_uint(5), c.create_string_buffer(b"untouched")
            small = x.BSAGetLastError(c.byref(size), text), size.value, text.value
            return small, x.last_error(), x.last_error()
        self.assertEqual(run(errors).value, ((7, 5, b"untouched"), "first", ""))

    def test_commands(self):
        for row in COMMANDS:
            with self.subTest(row):
                code, message, slots = run(commands, row.mode, row.path, row.buffer).value
                self.assertEqual((code, message, slots[:6]), (0, False, [
                    b"USER u", b"PASS p", b"TYPE I", b"CWD " + row.path, row.command, b"QUIT"]))

    def test_refused_commands(self):
        def prepare(x, name, value):
            return commands(x, 1, b"SMS", 0, **{name: value})[:2]
        for row in itertools.product(("szUser", "szPass", "szPath", "szName", "szTape"),
                                     (b"a\rb", b"a\nb", b"\x7fa", b"x" * 2047)):
            with self.subTest(row):
                self.assertEqual(run(prepare, *row).value, (-1, True))
        for length, code in (2040, 0), (2041, -1):  # with CR LF and terminator 2048
            self.assertEqual(run(prepare, "szUser", b"x" * length).value, (code, code == -1))

    def test_timer(self):
        def timer(x, seconds):
            handle, elapsed = c.c_void_p(), c.c_ulong(99999999)
            code = x.x_TimerStart(c.byref(handle))
            c.c_long.from_address(handle.value).value -= seconds
            x.x_TimerStop(handle, c.byref(elapsed))
            minutes = elapsed.value // 60000
            x.x_TimerStop(None, c.byref(elapsed))
            return code, minutes, elapsed.value
        for seconds, minutes in (0, 0), (600, 10):
            self.assertEqual(run(timer, seconds).value, (0, minutes, 0))

    def test_lines(self):
        """Reads one line at a time and leaves the rest; the end of the connection fills the buffer."""
        def receive(x):
            ours, theirs = socket.socketpair()
            with ours, theirs:
                theirs.sendall(b"150 one\r\nbare\n" + b"x" * 9 + b"y\r\n" + b"z" * 8)
                theirs.shutdown(socket.SHUT_WR)
                rooms = [c.create_string_buffer(8) for _ in range(6)]
                return [(x.stpc_recv(ours.fileno(), room, 8, 0), room.raw) for room in rooms]
        for level in (2, 3):
            self.assertEqual(run(receive, level=level).value, [
                (1, b"150 one\0"), (1, b"bare\0\0\0\0"), (1, b"x" * 8), (1, b"y\0\0\0\0\0\0\0"),
                (0, b"z" * 8), (0, b"\0" * 8)])
