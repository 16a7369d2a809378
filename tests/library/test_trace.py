"""The trace: where lines go, how they look, what must not be in them."""
import ctypes as c
import os
import re
import resource
import signal
import unittest

from server import POLITE, Server
from xbsa import Library, read_text, rows, run, run_started, write_plain

STAMP = r" \d{4}-\d\d-\d\d \d\d:\d\d:\d\d: Trace: \(QAB library\) "


def stripped(lines):
    return [re.sub("^" + STAMP, "", line) for line in lines]


def init(x, name=None, level=None, sink=True):
    if level is not None:
        x.BSASetTrace(x.sink if sink else None, name, level)
    x.init()
    return x.state.ucXBSATraceLevel, x.state.szLogFile, os.listdir(".")


TWO = {"XBSA_TRACE": "2"}
# Environment; level and log's name afterwards, whether it has lines; an earlier BSASetTrace.
LOGS = rows("env level log lines", ({}, 0, b"", False), ({"XBSA_LOGFILE": "./xbsa.log"}, 0, b"", False),
    *(({"XBSA_TRACE": level}, got, b"xbsa.log", got == 66) for level, got in (
        ("0", 64), ("1", 65), ("2", 66), ("258", 66))),
    (TWO | {"XBSA_LOGFILE": "./xbsa.log"}, 66, b"./xbsa.log", True),
    (TWO | {"XBSA_LOGFILE": "."}, 66, b".", False),
    (TWO | {"INFORMIXDIR": "/nowhere"}, 66, b"xbsa.log", True),
    *((TWO, call[1] or 66, log, lines, call) for call, log, lines in (
        ((None, 2), b"", False), ((None, 66), b"xbsa.log", True), ((b"", 66), b"", False),
        ((b"./xbsa.log", 66), b"./xbsa.log", True), ((b"./xbsa.log", 2), b"", False),
        ((b"ENVIRONMENT", 0), b"xbsa.log", True),
        ((b"./" * 3000 + b"x", 66), (b"./" * 3000)[:4095], False))), call=())
REPLY = """stpc_recv: sigprocmask() done, all signals masked.\nstpc_recv: Receiving message ...
stpc_recv: sigprocmask(), back to old handlers.\nLOGIN REPLY: \\1\n"""


class Destinations(unittest.TestCase):
    def test_logs(self):
        for row in LOGS:
            with self.subTest(row.env, call=str(row.call)[:40]):
                got = run(init, *row.call, level=None, env=row.env)
                self.assertEqual(got.value[:2], (row.level, row.log))
                self.assertEqual(any("BSAInit: Start." in line for line in got.log), row.lines)
                self.assertEqual("xbsa.log" in got.value[2], "xbsa.log" in row.log.decode())
                self.assertEqual("BSAInit: End" in got.trace, bool(row.call))

    def test_standard_error(self):
        got = run(init, None, 130, level=None)
        self.assertEqual((stripped(got.stderr.splitlines()), got.trace[0]), (got.trace, "BSAInit: Start."))
        self.assertEqual(run(init, b"x", 130, False, level=None).trace, [])

    def test_sink_hears_all(self):
        def trace(x):
            return x.ie_trace(b"raw\r\n"), x.COM_trace(b"silent"), x.i_trace(b"for files only")
        self.assertEqual(run(trace, level=0).trace, ["raw\r\n"])

    def test_appended(self):
        def trace(x):
            write_plain("xbsa.log", "old\n")
            for _ in range(3):
                x.BSAQueryApiVersion(c.byref(c.create_string_buffer(6)))
            x.i_close_trace()
            x.state.hLogFile = 0
        log = run(trace, level=None, env=TWO).log
        self.assertEqual([log[0]] + [sum(text in line for line in log) for text in (
            "QueryApiVersion: Start", "VERSION: 1.8A1 Thu Jul 13")], ["old", 3, 3])

    def test_informix_folder(self):
        def name(x):
            x.init(owner=b"INFORMIX")
            x.BSASetTrace(x.sink, None, 66)
            return x.state.szLogFile
        for folder, log in (("/i", b"/i/"), ("/i/", b"/i/"), ("", b"/"), ("d" * 5000, b"d" * 4086 + b"/")):
            self.assertEqual(run(name, env={"INFORMIXDIR": folder}).value, log + b"xbsa.log")
        self.assertEqual(run(name).value, b"")

    def test_read_environment(self):
        found = run(lambda x: x.xbsa_read_environment(), env={"XBSA_TRACE": "3"}).trace
        self.assertEqual([line.replace("xbsa_read_environment: Environment variable: ", "") for line in found],
                         ["[XBSA_TRACE = 3].", "[XBSA_LOGFILE] not found."])

    def test_host_s_own(self):
        """A descriptor from the host serves as the log, even if its reader has gone."""
        def trace(x):
            x.BSASetTrace(None, b"./xbsa.log", 66)
            x.i_open_trace()
            reader, x.state.hLogFile = os.pipe()
            x.ie_trace(b"heard")
            x.state.ucXBSATraceLevel = 130
            x.ie_trace(b"to standard error")
            x.state.ucXBSATraceLevel, found = 66, os.read(reader, 100)
            os.close(reader)
            x.ie_trace(b"would end the host")
            signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGPIPE})
            signal.raise_signal(signal.SIGPIPE)
            x.ie_trace(b"takes no signal of the host's")
            signal.sigwait({signal.SIGPIPE})
            signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGPIPE})
            for number in (x.state.hLogFile, -1, 0):
                x.state.hLogFile = number
                x.i_close_trace()
            return stripped([found.decode()])
        self.assertEqual(run(trace, level=None).value, ["heard\n"])

    def test_reused_log(self):
        def store(x):
            x.store()
            own, number = os.open("own", os.O_CREAT | os.O_RDWR), x.state.hLogFile
            os.dup2(own, number)
            codes = x.store()
            x.BSAQueryApiVersion(c.byref(c.create_string_buffer(6)))
            taken = [os.path.sameopenfile(own, number), os.fstat(own).st_size]
            limits = resource.getrlimit(resource.RLIMIT_FSIZE)
            signal.signal(signal.SIGXFSZ, signal.SIG_DFL)
            resource.setrlimit(resource.RLIMIT_FSIZE, (os.fstat(x.state.hLogFile).st_size + 9, limits[1]))
            codes += x.store()
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)
            _ = os.close(number), os.close(own)
            return codes, taken
        got = run_started(store, server=Server(), level=None, env=TWO)
        self.assertEqual(got.value, ([0] * 6, [True, 0]))
        self.assertEqual([sum(text in line for line in got.log) for text in (
            "BSACreateObject: Start", "QueryApiVersion: Start")], [1, 1])


class Lines(unittest.TestCase):
    def test_bare_ends(self):
        """A reply that ends without CR shows no earlier byte of its buffer."""
        server = Server({"END": [b"226 done, all of it\n"], "QUIT": [b"221 x\n"]})
        self.assertIn("BSAEndData: Received message: 221 x ", run_started(Library.store, server=server).trace)

    def test_ends(self):
        def trace(x):
            _ = x.BSASetTrace(None, b"./xbsa.log", 66), x.i_open_trace()
            for message in b"a\r\n\n", b"", b"\n", b"b", None, b"y" * 5000:
                x.ie_trace(message)
            x.i_trace(None)
        *log, long, last = run(trace, level=None).log
        self.assertEqual(stripped([*log, last]), ["a", "", "", "b", "", ""])
        self.assertRegex(long, "^" + STAMP + "y{1400,}$")
        self.assertLess(len(long), 1536)

    def test_errno(self):
        """A trace line between a call and the check of its errno changes nothing."""
        def trace(x):
            _ = x.BSASetTrace(None, b"/dev/full", 194), x.i_open_trace()
            os.dup2(x.state.hLogFile, 2)
            _ = c.set_errno(5), x.ie_trace(b"lost")
            return c.get_errno()
        self.assertEqual(run(trace, level=None).value, 5)

    def test_dump(self):
        data = b"\0\x06\x07\x08\t\n\x0b\x0c\r\x0e\x1f A~\x7f\xff@"

        def dump(x):
            for length in (17, 0, 16):
                x.x_Dump(data, length, x.sink)
            x.x_Dump(data, 1, None)
        got, gap = run(dump), "   " * 15
        first = "00 06 07 08 09 0A 0B 0C 0D 0E 1F 20 41 7E 7F FF  .\x06....\x0b\x0c.\x0e\x1f A~\x7f\xff"
        self.assertEqual(got.trace, [first, f"40 {gap} @" + " " * 15, first])
        self.assertEqual(got.stdout, f"00 {gap} ." + " " * 15 + "\n")


class Store(unittest.TestCase):
    def test_whole_trace(self):
        """Every line of a store at level 2; <reply> is replaced by the lines of reading a reply."""
        server = Server()
        got = run_started(lambda x: (x.store(), x.handle.value), server=server, level=None, env=TWO)
        lines = read_text(os.path.join(os.path.dirname(__file__), "store.trace"))
        want = re.sub(r"<reply (\w+)> (.*)\n", r"<reply> \2\n\1: Received message: \2\n", lines)
        want = re.sub("<reply> ?(.*)\n", REPLY, want).replace("<PORT>", server.heard[0][4])
        want = want.replace("<pid>", str(got.value[1])).replace("<port>", str(server.port))
        self.assertEqual("\n".join(stripped(got.log)) + "\n", want)

    def test_levels(self):
        for level, starts in enumerate((0, 0, 0, 1)):
            got = run_started(lambda x: x.store() + x.restore()[0], server=Server(), level=level).trace
            replies = [line[13:16] for line in got if line.startswith("LOGIN REPLY: ")]
            self.assertEqual(replies, "220 331 230 200 250 200 150 226 221".split() * 2 * (level > 0))
            self.assertEqual((got.count("BSAGetData: Start"), len(got) > len(replies)), (starts, level > 1))

    def test_no_password(self):
        """No level, transfer or destination shows a password, except for the user sms, as promised."""
        def transfer(x, server, owner):
            x.BSASetTrace(x.sink, b"./xbsa.log", 67)
            x.init(b"BSA_SERVICE_HOST=127.0.0.1:%d" % server.port, owner=owner)
            codes, message = x.store(owner=owner), x.last_error()
            return (codes, x.restore(owner=owner)[0], x.store(owner=owner)), message
        for user, word, shown in (("backup", "geheim", ""), ("sms", "geheim", "PASS geheim"),
                                  ("backup", "2", None), ("backup", "", None)):
            echo = {step: [f"{lines[0]} for {user}/{word}", *lines[1:]]
                    for step, lines in POLITE.items() if step not in ("GREETING", "DATA")}
            echo["PASS"] = [f"230-{word}", f"{word} ", f"230 {word}"]
            server = Server({"PASS": [f"530 no {user} {word}"], "CWD": [f"550 {word}"]}, echo, echo)
            owner = f"user={user}:pass={word}"
            codes, message = (got := run(transfer, server, owner.encode(), server=server, level=None)).value
            with self.subTest(user, word=word):
                self.assertEqual(codes, ([3], [0, 0, 0], [0, 0, 0]))
                self.assertIn("PASS " + word, server.heard[0])
                text = "\n".join(got.log + got.trace + [message])
                if shown is None:
                    self.assertIn("LOGIN REPLY: 226 done for backup/", text)
                    continue
                seen = set(re.findall("(?:PASS )?geheim", text)) - {"geheim" if user == "sms" else ""}
                self.assertEqual(seen, {shown} - {""})
                self.assertNotIn("pass=geheim", text)
                self.assertIn(f"BSAInit: Input: BSA_ObjectOwner.bsa_ObjectOwner = user={user}:"
                              "pass=********", got.trace)
                self.assertIn("stpc_recv: recv()", text)
