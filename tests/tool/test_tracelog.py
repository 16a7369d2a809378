"""xbsactl trace: logs of real sessions, and cut, mixed, damaged or huge logs."""
import gzip
import json
import os
import re
import resource
import subprocess
import unittest
from xml.etree import ElementTree

from server import Server
from xbsa import DEADLINE, ROOT, SANITIZED, make_folder, read_bytes, rows, run, write_plain

TOOL = os.environ["XBSA_TOOL"]
ENV = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
MIXED = "lines of several processes are mixed here: .*XBSA_LOGFILE"
SVG = "{http://www.w3.org/2000/svg}"


def session(x, server, user, level):
    x.BSASetTrace(None, b"./xbsa.log", level)
    owner = b"user=%s:pass=geheim" % user
    x.init(b"BSA_SERVICE_HOST=127.0.0.1:%d" % server.port, owner=owner)
    codes = x.store(b"x" * 200000, name=b"<a>&\xc3\xa9", path=b"/d\xff", owner=owner)
    if len(codes) == 1:
        x.BSAEndData(x.handle)  # hangs up
    x.BSATerminate(x.handle)


def wrong_handle(x, server, _, level):
    x.BSASetTrace(None, b"./xbsa.log", level)
    x.start(server)
    _ = x.BSABeginTxn(5), x.BSAEndTxn(x.handle, 1), x.BSATerminate(x.handle)


def real_log(*scripts, user=b"backup", level=66, scenario=session):
    """The bytes of each line; from the last block on, times are ten seconds later."""
    server = Server(*scripts)
    log, second = [], b"17:00:00"
    for line in run(scenario, server, user, level, server=server, level=None).log:
        if "total: 200000" in line:
            second = b"17:00:10"
        log.append(re.sub(rb"^ \S+ \S+:", b" 2026-11-24 " + second + b":", line.encode("latin-1")))
    return log


def handle(log):
    return re.search(rb"process ID\) = (\d+)", b"".join(log)).group(1).decode()


def place(log, text):
    return next(number for number, line in enumerate(log) if text in line)


def mixed(one, two):
    return [each for pair in zip(one, two) for each in pair]


class Trace(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.one, cls.two = real_log(), real_log()
        cls.data = place(cls.one, b"total: 131070")  # during the data phase

    def setUp(self):
        self.folder = make_folder(self)

    def file(self, name, content=None):
        path = os.path.join(self.folder, name)
        _ = content is not None and write_plain(path, content)
        return path

    def trace(self, log, *options, code=0, limit=None):
        path = self.file("xbsa.log", log if isinstance(log, bytes) else b"\n".join(log) + b"\n")
        got = subprocess.run([TOOL, "trace", path, *options], capture_output=True, check=False,
                             env=ENV, timeout=DEADLINE, preexec_fn=limit)
        self.assertEqual(got.returncode, code, got.stderr)
        self.assertNotRegex(got.stdout, rb"[\0-\x09\x0b-\x1f\x7f\x80-\xa8\xaa-\xc2\xc4-\xff]|geheim")
        return (got.stderr if code else got.stdout).decode()

    def test_session(self):
        out = self.trace(self.one)
        for want in (f"session 1: done, handle {handle(self.one)}, owner user=backup:pass=\\*+, "
                     "user backup, server 127.0.0.1\n",
                     r"2026-11-24 17:00:00 to 17:00:10 \(10 s\)", r"  backup of <a>&é in /d\?\n",
                     r"control +<1 s +PASS \*+: 230 in", r"STOR <a>&é: 150 opening TAPE",
                     "data +10 s +200000 bytes sent in 4 blocks, about 20.0 kB/s, longest pause "
                     "10 s from 17:00:00", "end of data: 226", "\n1 session, 1 done\n$"):
            self.assertRegex(out, want)
        self.assertNotRegex(out, "error|failed")

    def test_json(self):
        got = json.loads(self.trace(self.one + real_log({"STOR": ["452 full"]}), "--json"))
        good, bad = got["sessions"]
        want = {"number": 1, "outcome": "done", "handles": [int(handle(self.one))], "informix": False,
                "user": "backup", "server": "127.0.0.1", "begin": "2026-11-24 17:00:00",
                "end": "2026-11-24 17:00:10", "first_line": 1, "objects": 1, "bytes": 200000, "mixed": "",
                "note": "", "error": None}
        self.assertEqual((got["schema"], {key: good[key] for key in want}), (1, want))
        steps = {step["text"]: step for step in good["steps"]}
        self.assertEqual(steps["sent"], {
            "kind": "data", "time": "2026-11-24 17:00:00", "text": "sent", "result": "", "failed": False,
            "seconds": 10, "bytes": 200000, "blocks": 4, "longest_pause": 10})
        self.assertEqual((steps["QUIT"]["result"], bad["outcome"]), ("221 bye", "failed"))
        self.assertRegex("\n".join(map(bad["error"].get, ("text", "meaning", "hint"))),
                         "452 full.*\n.*no free space.*\n.*full disk")
        self.assertEqual([got["summary"][key] for key in ("sessions", "done", "failed")], [2, 1, 1])
        block = json.loads(self.trace(mixed(self.one, self.two), "--json"))["sessions"][0]
        self.assertEqual((block["outcome"], block["bytes"], len(block["handles"])), ("mixed", 0, 2))
        self.assertEqual(json.loads(self.trace(b"", "--json"))["sessions"], [])
        self.assertEqual(self.trace(gzip.compress(b"\n".join(self.one) + b"\n")), self.trace(self.one))  # as logrotate leaves it

    def test_errors(self):
        for row in rows("odd error", ("PASS", "xbsa_open: TRANSIENT.*530 no"), ("CWD", "NEGATIVE.*530 no"),
                            ("STOR", "stpc_stor: STOR failed. NEGATIVE reply: 530 no"),
                            ("END", "BSAEndData: TRANSIENT or PERMANENT NEGATIVE reply: 530 no")):
            out = self.trace(real_log({row.odd: ["530 no PASS geheim"]}))
            self.assertRegex(out, f"session 1: (failed|.*after an error), (.*\n)*.*first error"
                             f".*{row.error}(.*\n)*.*530 no.*<-- failed", row.odd)

    def test_informix(self):
        """The copy is the one that the server named, whatever the client requested."""
        log = self.file("real.log")
        store = ["--exec", TOOL, *"--informix --space rootdbs store level0".split(), __file__]
        stored = b"".join(subprocess.run(
            [ROOT + "/sandbox/run", *fault, *store], env={**ENV, "XBSA_TRACE": "3", "XBSA_LOGFILE": log},
            check=False, capture_output=True, timeout=DEADLINE).stderr
            for fault in ((), ("--fault", "openjob=refuse:no_tape")))
        copy = re.search(rb"copy id (\d+)", stored)[1]
        text = re.sub(rb"(openjob:.* -s )\d+", rb"\g<1>1", read_bytes(log))
        out = self.trace(text)
        self.assertRegex(out, r"(.*\n)*".join((
            "session 1: done, ", f"  backup of rootdbs@level0, copy id {copy.decode()}\n",
            f".* {os.path.getsize(__file__)} bytes sent", ".*closejob: answered", ".*query of",
            "session 2: failed, ", "  backup of rootdbs@level0\n", ".*utility .*openjob: ref")))
        self.assertRegex(out, r"session 2: (.*\n)*.*first error.*\[no_tape\]")
        one = text[:text.index(b"BSAInit: Start", 200)].splitlines()[:-1]
        job = re.search(rb"openjob:(\w+)", text)[1]
        other = [line.replace(handle(one).encode(), b"77777").replace(job, b"x").replace(
            copy, b"4711").replace(b"level0", b"level1") for line in one]
        out = self.trace(mixed(one, other))
        self.assertRegex(out, f"{MIXED}(.*\n)*  backup of rootdbs@level0, copy id {copy.decode()}\n"
                         "  backup of rootdbs@level1, copy id 4711\n")

    def test_odd_logs(self):
        one, two, data = self.one, self.two, self.data
        first, second = handle(one), handle(two)
        begin = place(one, b"BeginTxn: Start")
        stored = place(one, b"stpc_stor: Send")
        interleaved = mixed(one, two)
        torn = [b"\0\x1b[31m\xff\x9b", b" 2026-99-99 17:00:00: Trace: (QAB library) BSAInit: Start."]
        for row in rows("odd log result never", ("empty", b"", ["^0 sessions\n$"], "session 1"),
                ("CRLF", b"\r\n".join(one), ["1 done", "about 20.0 kB/s"], "other"),
                ("cut", b"\n".join(one[:data + 1])[:-3], ["unfinished", "data +not ended"], MIXED),
                ("rotated", one[data:], ["beginning is not", "sent in 3 blocks", "226"], MIXED),
                ("given up", one[:data] + one[place(one, b"BSATerminate"):],
                 ["1 failed", "no BSAEndData  <-- failed"], "1: done|no BSATerminate"),
                ("garbage", one[:data] + torn + one[data:], ["1 done", "before: 2\n$"], MIXED),
                ("not limited", one[:stored] + [re.sub(b"stor: .*", b"stor: KORVA_RATE_LIMIT = 9000: not "
                    b"limited, setsockopt() failed with error code: 92", one[stored])] + one[stored:],
                 ["1: done, h"], "error, "),
                ("killed", one[:data] + two, [f"unfinished, handle {first}", f"done, handle {second}"], MIXED),
                ("interleaved", interleaved, [MIXED, f"mixed, .*{first}", f"mixed, .*{second}"],
                 "<1 s|10 s|done"),
                ("a stray line", one[:data] + [two[place(two, b"xbsa_open: Welcome")]] + one[data:],
                 [MIXED, "1 session, "], "10 s"),
                ("a foreign handle", one[:begin] + two[begin:begin + 3] + one[begin:],
                 [MIXED, f"mixed, .*{first}", f"mixed, .*{second}"], "10 s"),
                ("then a good one", interleaved + self.one, [MIXED, "2 sessions, 1 done, 1 of mixed"],
                 "failed"), ("one within another", one[:data] + two + one[data:],
                 [f"mixed, handle {first}\n", f"done, handle {second}"], f"done, handle {first}"),
                ("a block is missing", one[:data] + one[data + 1:], [MIXED + "|" + MIXED], "10 s"),
                ("wrong handle", real_log(scenario=wrong_handle), ["failed, ", "first error.*: 6 - "], MIXED),
                ("level 1", real_log(level=65) * 2, ["2 with replies only", "reply +230 in"], MIXED),
                ("level 3, sms", real_log(user=b"sms", level=67), [r"PASS \*+: 230", "1 done"], MIXED)):
            with self.subTest(row.odd):
                out = self.trace(row.log)
                _ = [self.assertRegex(out, text) for text in row.result]
                self.assertNotRegex(out, row.never)

    def test_choice(self):
        older = [line.replace(b"2026-11-24", b"2026-11-23") for line in self.two]
        mine = handle(self.one)
        for row in rows("options code result",
                ((), 0, "2 sessions, 2 done\n"), (("--handle", mine), 0, "1 session, 1 done, 1 more"),
                (("--handle", "1"), 0, "0 sessions, 2 more"), (("--handle", "0"), 2, "--handle"),
                *((("--since", since), 0, want) for since, want in (
                    ("2026-11-23 17:00", "2 sessions"), ("17:01", "0 sessions"),
                    ("2026-11-23 17:00:11", "1 session,"), ("17:00:10", "1 session,"))),
                (("--since", "yesterday"), 2, "yesterday"), (("--since", "25:00"), 2, "25:00"),
                (("--html", self.file("xbsa.log")), 2, "overwrite"),
                (("--bar-act-log", self.file("none")), 6, "No such file")):
            with self.subTest(row.options):
                self.assertIn(row.result, self.trace(older + self.one, *row.options, code=row.code))
        for row in rows("args code out reason", ([self.file("none")], 6, b"", b"No such file"),
                        ([self.folder], 6, b"", b"directory"), ([], 2, b"", b"FILE"), ([__file__], 6, b"", b"trace log"),
                        (["/dev/null"], 0, b"0 sessions\n", b"warning: the log is empty")):
            got = subprocess.run([TOOL, "trace", *row.args], capture_output=True, env=ENV, check=False)
            self.assertEqual((got.returncode, got.stdout), (row.code, row.out))
            self.assertIn(row.reason, got.stderr)

    def test_page(self):
        mine = handle(self.one)
        act = self.file("act", f"2026-11-24 16:59:59 {mine}  1 Begin <level> 0\n  \x1b[31mmore\n"
                        f"2026-11-24 17:00:05 {mine}  1 late\n2026-11-24 17:00:05 9{mine}  1 other\n"
                        f"2026-11-24 18:00:00 {mine}  1 gone\n".encode())
        log = self.one + mixed(self.two, self.one) * 220
        page = self.file("page.html", b"old")
        out = self.trace(log, "--html", page, "--bar-act-log", act)
        self.assertRegex(out, r"16:59:59 +database +Begin <level> 0 .*\?\[31mmore\n(.*\n)+.*database +la"
                              "(.*\n)+.*the sessions shown: 2\n$")
        text = read_bytes(page).decode()
        ElementTree.fromstring(text.replace("<!DOCTYPE html>", ""))
        self.assertNotRegex(text, r"<script|javascript|\son\w+=|https?://(?!www\.w3\.org/)|geheim")
        self.assertRegex(text, r"newest 200 sessions; \d+ earlier ones are omitted")
        self.trace(self.one, "--html", page, "--bar-act-log", act)
        root = ElementTree.parse(page).getroot()
        lanes = root.findall(f".//{SVG}svg")[6:]  # after the legend: all sessions, and this one
        kinds = [[rect.get("class") for rect in lane] for lane in lanes]
        self.assertEqual([(kind.count("data"), kind.count("database")) for kind in kinds] + [
            kinds[1].count("control")], [(1, 2), (1, 2), 11])
        data = next(rect for rect in lanes[1] if rect.get("class") == "data")
        self.assertRegex(data[0].text, "17:00:00 200000 bytes sent, 10 s")
        self.assertGreater(float(data.get("width")), 800)
        self.assertEqual(sorted(os.listdir(self.folder)), ["act", "page.html", "xbsa.log"])

    def test_memory(self):
        """64 MB of an endless line, an endless session or killed ones need no more memory."""
        size = (1 if SANITIZED else 22) << 20
        start, mine = place(self.one, b"BSABeginTxn: Start"), handle(self.one).encode()
        cycle = b"\n".join(self.one[start:start + 3] + [b""]).replace(b"Return: 0", b"Return: 5")
        begun = b"\n".join(self.one[:start] + [b""])
        killed = (begun.replace(mine, b"%d" % number) for number in range(size // len(begun)))
        log = b"x" * size + b"\n" + begun + cycle * (size // len(cycle)) + b"".join(killed)
        out = self.trace(log, "--html", self.file("page.html"), limit=None if SANITIZED else (
            lambda: resource.setrlimit(resource.RLIMIT_DATA, (20 << 20, 20 << 20))))
        self.assertRegex(out, r"\(\d{4,5} steps are omitted here\)")
        self.assertRegex(out, r"\n\d+ sessions, 1 failed, \d+ unfinished; .*: 1\n$")
