"""The trace: where lines go, how they look, what must not be in them."""
import ctypes as c
import os
import re
import resource
import signal
import unittest

from server import POLITE, Server
from xbsa import read_text, run, run_started, write_plain

STAMP = r" \d{4}-\d\d-\d\d \d\d:\d\d:\d\d: Trace: \(QAB library\) "


def stripped(lines):
    return [re.sub("^" + STAMP, "", line) for line in lines]


def init(x, name=None, level=None, sink=True):
    """After BSASetTrace, if a level is given: the level, the log's name, and the files there."""
    if level is not None:
        x.BSASetTrace(x.sink if sink else None, name, level)
    x.init()
    return x.state.ucXBSATraceLevel, x.state.szLogFile, os.listdir(".")


# Environment of a session without BSASetTrace; level, log name, and whether INIT is in the log.
VARIABLES = [
    ({}, 0, b"", False), ({"XBSA_TRACE": "2"}, 66, b"xbsa.log", True),
    ({"XBSA_TRACE": "1"}, 65, b"xbsa.log", False), ({"XBSA_TRACE": "0"}, 64, b"xbsa.log", False),
    ({"XBSA_TRACE": "258"}, 66, b"xbsa.log", True),
    ({"XBSA_TRACE": "2", "XBSA_LOGFILE": "./xbsa.log"}, 66, b"./xbsa.log", True),
    ({"XBSA_TRACE": "2", "XBSA_LOGFILE": "."}, 66, b".", False),
    ({"XBSA_LOGFILE": "./xbsa.log"}, 0, b"", False),
    ({"XBSA_TRACE": "2", "INFORMIXDIR": "/nowhere"}, 66, b"xbsa.log", True),
]
# BSASetTrace's name and level with XBSA_TRACE=2 around: the log's name, lines in it.
SETTINGS = [
    (None, 2, b"", False), (None, 66, b"xbsa.log", True), (b"./xbsa.log", 66, b"./xbsa.log", True),
    (b"./xbsa.log", 2, b"", False), (b"", 66, b"", False), (b"ENVIRONMENT", 0, b"xbsa.log", True),
    (b"./" * 3000 + b"x", 66, (b"./" * 3000)[:4095], False),
]


def read_reply(found):
    logged = f"LOGIN REPLY: {found[1]}\n"
    return ("stpc_recv: sigprocmask() done, all signals masked.\nstpc_recv: Receiving message ...\n"
            "stpc_recv: sigprocmask(), back to old handlers.\n" + logged)


class Destinations(unittest.TestCase):
    def test_variables(self):
        for env, level, name, lines in VARIABLES:
            with self.subTest(env):
                got = run(init, level=None, env=env)
                self.assertEqual(got.value[:2], (level, name))
                self.assertEqual(any("BSAInit: Start." in line for line in got.log), lines)
                self.assertEqual("xbsa.log" in got.value[2], "xbsa.log" in name.decode())

    def test_settings(self):
        for name, level, log, lines in SETTINGS:
            with self.subTest(name=str(name)[:20], level=level):
                got = run(init, name, level, level=None, env={"XBSA_TRACE": "2"})
                self.assertEqual((got.value[1], bool(got.log)), (log, lines))
                self.assertIn("BSAInit: End", got.trace)

    def test_standard_error(self):
        got = run(init, None, 130, level=None)
        self.assertEqual(stripped(got.stderr.splitlines()), got.trace)
        self.assertEqual(got.trace[0], "BSAInit: Start.")
        self.assertEqual(run(init, b"x", 130, False, level=None).trace, [])

    def test_sink_hears_all(self):
        """A message goes to the sink as it is, at any level; COM_trace asks the level."""
        def trace(x):
            x.ie_trace(b"raw\r\n")
            x.COM_trace(b"silent")
            x.i_trace(b"for files only")
        self.assertEqual(run(trace, level=0).trace, ["raw\r\n"])

    def test_appended(self):
        """An old log grows; opening it again leaves no descriptor behind."""
        def trace(x):
            write_plain("xbsa.log", "old\n")
            for _ in range(3):
                x.BSAQueryApiVersion(c.byref(c.create_string_buffer(6)))
            mode = os.fstat(x.state.hLogFile).st_mode & 0o777
            x.i_close_trace()
            x.state.hLogFile = 0
            return mode
        got = run(trace, level=None, env={"XBSA_TRACE": "2"})
        self.assertEqual(got.log[0], "old")
        self.assertEqual(sum("QueryApiVersion: Start" in line for line in got.log), 3)
        self.assertEqual(sum("VERSION: 1.8A1 Thu Jul 13" in line for line in got.log), 3)

    def test_informix_folder(self):
        def name(x):
            x.init(owner=b"INFORMIX")
            x.BSASetTrace(x.sink, None, 66)
            return x.state.szLogFile
        for folder, log in (("/i", b"/i/xbsa.log"), ("/i/", b"/i/xbsa.log"), ("", b"/xbsa.log"),
                            ("d" * 5000, b"d" * 4086 + b"/xbsa.log")):
            self.assertEqual(run(name, env={"INFORMIXDIR": folder}).value, log)
        self.assertEqual(run(name).value, b"")

    def test_read_environment(self):
        def read(x):
            x.xbsa_read_environment()
            return x.state.ucXBSATraceLevel, x.state.szLogFile
        for env, level, log, lines in (({}, 2, b"", 1), ({"XBSA_TRACE": "3"}, 67, b"", 2),
                                       ({"XBSA_TRACE": "3", "XBSA_LOGFILE": "a"}, 67, b"a", 3)):
            got = run(read, env=env)
            self.assertEqual((got.value, len(got.trace)), ((level, log), lines))

    def test_host_s_own(self):
        """A descriptor that the host gave serves as the log, though nobody reads any more."""
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
            pending = signal.sigtimedwait({signal.SIGPIPE}, 0)
            signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGPIPE})
            for number in (x.state.hLogFile, -1, 0):
                x.state.hLogFile = number
                x.i_close_trace()
            return found, pending is not None
        found, pending = run(trace, level=None).value
        self.assertEqual((stripped([found.decode()]), pending), (["heard\n"], True))


    def test_reused_log(self):
        """A host closes the log, opens a file with its number and lowers its limit of sizes."""
        def store(x):
            x.store()
            own = os.open("own", os.O_CREAT | os.O_RDWR)
            os.dup2(own, x.state.hLogFile)
            number, codes = x.state.hLogFile, x.store()
            x.BSAQueryApiVersion(c.byref(c.create_string_buffer(6)))
            taken = [os.path.sameopenfile(own, number), os.fstat(own).st_size]
            limits = resource.getrlimit(resource.RLIMIT_FSIZE)
            signal.signal(signal.SIGXFSZ, signal.SIG_DFL)
            resource.setrlimit(resource.RLIMIT_FSIZE, (os.fstat(x.state.hLogFile).st_size + 9, limits[1]))
            codes += x.store()
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)
            os.close(number)
            os.close(own)
            return codes, taken
        got = run_started(store, server=Server(), level=None, env={"XBSA_TRACE": "2"})
        self.assertEqual(got.value, ([0] * 6, [True, 0]))
        self.assertEqual([len(re.findall(text, "\n".join(got.log))) for text in (
            "BSACreateObject: Start", "QueryApiVersion: Start")], [1, 1])


class Lines(unittest.TestCase):
    def lines(self, *messages):
        def trace(x):
            x.BSASetTrace(None, b"./xbsa.log", 66)
            x.i_open_trace()
            for message in messages:
                x.ie_trace(message)
            x.i_trace(None)
        return run(trace, level=None).log

    def test_ends(self):
        """One line feed for each message, whatever it ended in; a long one is cut."""
        log = self.lines(b"a\r\n\n", b"", b"\n", b"b", None, b"y" * 5000)
        self.assertEqual(stripped(log)[:5] + stripped(log)[6:], ["a", "", "", "b", "", ""])
        self.assertRegex(log[5], "^" + STAMP + "y{1400,}$")
        self.assertLess(len(log[5]), 1536)

    def test_errno(self):
        """A line between a call and the look at its errno changes nothing."""
        def trace(x):
            x.BSASetTrace(None, b"/dev/full", 194)
            x.i_open_trace()
            os.dup2(x.state.hLogFile, 2)
            c.set_errno(5)
            x.ie_trace(b"lost")
            return c.get_errno()
        self.assertEqual(run(trace, level=None).value, 5)

    def test_dump(self):
        data = b"\0\x06\x07\x08\t\n\x0b\x0c\r\x0e\x1f A~\x7f\xff@"

        def dump(x):
            for length in (17, 0, 16):
                x.x_Dump(data, length, x.sink)
            x.x_Dump(data, 1, None)
        got = run(dump)
        first = ("00 06 07 08 09 0A 0B 0C 0D 0E 1F 20 41 7E 7F FF  "
                 ".\x06....\x0b\x0c.\x0e\x1f A~\x7f\xff")
        second = "40 " + "   " * 15 + " @" + " " * 15
        self.assertEqual(got.trace, [first, second, first])
        self.assertEqual(got.stdout, "00 " + "   " * 15 + " ." + " " * 15 + "\n")


class Store(unittest.TestCase):
    def test_whole_trace(self):
        """Every line of a store at level 2; <reply> stands for the lines of a reply read."""
        def store(x):
            x.store()
            return x.handle.value
        server = Server()
        got = run_started(store, server=server, level=None, env={"XBSA_TRACE": "2"})
        port = next(line for line in server.heard[0] if line.startswith("PORT"))
        lines = read_text(os.path.join(os.path.dirname(__file__), "store.trace"))
        want = re.sub("<reply> ?(.*)\n", read_reply, lines)
        want = want.replace("<pid>", str(got.value))
        want = want.replace("<port>", str(server.port)).replace("<PORT>", port)
        self.assertEqual("\n".join(stripped(got.log)) + "\n", want)

    def test_no_password(self):
        """At no level, in no transfer, to no destination, though the server repeats it; but for the
        user sms, as promised. A short one, or none, hides nothing else."""
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
            codes, message = (got := run(transfer, server, owner.encode(), server=server,
                                         level=None)).value
            with self.subTest(user, word=word):
                self.assertEqual(codes, ([3], [0, 0, 0], [0, 0, 0]))
                self.assertIn("PASS " + word, server.heard[0])
                text = "\n".join(got.log + got.trace + [message])
                if shown is None:
                    self.assertIn("LOGIN REPLY: 226 done for backup/", text)
                    continue
                self.assertEqual(set(re.findall("(?:PASS )?geheim", text)) - ({"geheim"} if user == "sms" else set()), {shown} - {""})
                self.assertNotIn("pass=geheim", text)
                self.assertIn(f"BSAInit: Input: BSA_ObjectOwner.bsa_ObjectOwner = user={user}:"
                              "pass=********", got.trace)
                self.assertTrue([line for line in got.trace if line.startswith("stpc_recv: recv()")])
