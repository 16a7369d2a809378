"""The command-line tool as a user runs it: verification, progress, secrets."""
import contextlib
import ctypes
import fcntl
import hashlib
import json
import mmap
import os
import re
import shutil
import signal
import subprocess
import unittest

import inifile
from ftpd import Daemon, serve_behind
from sandboxed import Sandbox
from server import Server
from utility import Utility
from xbsa import DEADLINE, ROOT, make_folder, pattern, read_text, rows, write_plain

CANARY, BLOCK = "canary-7731", pattern(65535)
HELLO = "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824"
SAMPLE = re.compile(r'# HELP xbsactl_(\w+) .+\n# TYPE xbsactl_\1 gauge\n'
                    r'xbsactl_\1\{command="\w+",name="((?:[^"\\\n]|\\["\\])*)"\} ([0-9.]+)\n')
BUILD = re.compile(r'# HELP xbsactl_build_info .+\n# TYPE .+ gauge\nxbsactl_build_info\{version="[^"]+"\} 1\n$')

# The contents of a manifest, the code of verify --all, and its output.
MANIFESTS = rows("text code says",
    ("", 3, "has no entry"), ("# nothing\n", 3, "has no entry"), ("junk\n", 6, "line 1"),
    (f"# x\n{HELLO} good\n", 6, "line 2"), (f"{HELLO[1:]}  good\n", 6, "line 1"),
    (f"{HELLO[1:]}g  good\n", 6, "line 1"), (f"\\{HELLO}  go\\od\n", 6, "line 1"),
    (f"\\{HELLO}  good\\\n", 6, "line 1"), (f"{HELLO}  good\r\n", 6, "CR LF"),
    (f"{HELLO.upper()} *good", 0, "ok    good: 5 bytes"),
    (f"\\{HELLO}  back\\\\slash\n", 0, "ok    back\\slash: 5 bytes"),
    (f"\\{HELLO}  go\\nod\n{HELLO}  good\n", 1, "FAIL  go?od: NAME contains a control character\nok "),
    (f"{HELLO}  ../good\n", 1, "FAIL  ../good: NAME contains"))

BUFFER, LARGE = 16 * len(BLOCK), 64 << 20  # bytes; a buffer is hashed while the next one is filled


def wait_while(condition):
    while condition():
        os.sched_yield()


def send_some(server):
    server.data.sendall(bytes(2 * BUFFER + 5))


def take_some(server):
    server.data.recv(BUFFER)


def interrupt(server):
    wait_while(lambda: not server.tool)
    server.tool.send_signal(signal.SIGINT)


# In mid-transfer of an object of more buffers than fit on the way: what the server does, the tool's code and error,
# and how the data connection ended. No file: the pipe of standard output is closed.
LARGE_ENDS = rows("command data code says ends",
    ("store x big", [lambda server: os.truncate("big", BUFFER), "transfer"], 6, 'reading "big": file shrank', ["RST"]),
    ("store x big", [lambda server: os.truncate("big", LARGE + 5), "transfer"], 0, f"{LARGE + 5} bytes", ["FIN"]),
    ("store x", ["transfer"], 6, "reading standard input: Input/output error", ["RST"]),
    ("store x big", [take_some, "reset_data"], 4, "BSASendData failed", []),
    ("store x big", [take_some, interrupt, "transfer"], -2, "^$", ["RST"]),
    ("restore x big", [send_some, "reset_data"], 4, "BSAGetData failed", []),
    ("restore x big", [send_some, interrupt, "transfer"], -2, "^$", ["RST"]),
    ("restore x /dev/full", ["transfer"], 6, "No space left on device", ["RST"]),
    ("restore x", ["transfer"], 6, "writing standard output: Broken pipe", ["RST"]))


def metrics():
    text = read_text("s.prom")
    found = {name: value for name, _, value in SAMPLE.findall(text)}
    assert BUILD.search(text) and not SAMPLE.sub("", BUILD.sub("", text)), text
    assert found.keys() >= {"duration_seconds", "last_attempt_timestamp_seconds"}, text
    return found | {"name": SAMPLE.search(text)[2]}


class Site(unittest.TestCase):
    def setUp(self):
        self.enterContext(contextlib.chdir(make_folder(self)))
        self.options, self.env = [], dict(os.environ, XBSA_PASSWORD=CANARY, LC_ALL="C")
        self.env.pop("LD_PRELOAD", None)

    def serve(self, server=None):
        server = serve_behind(self, server or Daemon("vsftpd"))
        self.options = ["--host", f"127.0.0.1:{server.port}", "--user", "ftp"]
        return server

    def start(self, *arguments, **options):
        return subprocess.Popen([os.environ["XBSA_TOOL"], *arguments, *self.options], env=self.env,
                                **{"stdin": -1, "stdout": -1, "stderr": -1} | options)

    def call(self, *arguments, data=b"hello", code=0):
        with self.start(*arguments) as tool:
            texts = [text.decode(errors="replace") for text in tool.communicate(data, DEADLINE)]
        self.assertEqual(tool.returncode, code, (arguments, texts))
        return texts

    def ask(self, tool, moved):
        wait_while(lambda: tool.poll() is None and not os.path.exists("s.prom"))
        for _ in range(5000):
            tool.send_signal(signal.SIGUSR1)
            line = tool.stderr.readline().decode()
            self.assertRegex(line, r'^xbsactl: \w+ "[^"]+": \d+ bytes, [\d.]+ MB/s, [\d.]+ s\n$')
            if f" {moved} " in line and metrics()["transferred_bytes"] == str(moved):
                return
        self.fail(f"never reported {moved} bytes: {line}")


class Verify(Site):
    def test_drill(self):
        data, names = self.serve().data, ["a b", "back\\slash", "changed", "gone", "changed"]
        for name in names:
            error = self.call("store", name, "--manifest", "m", "--verify")[1]
            self.assertIn(", verified\n", error)
        subprocess.run(["sha256sum", "--quiet", "--strict", "-c", os.path.abspath("m")], check=True, cwd=data)
        write_plain(f"{data}/changed", "jello")
        os.unlink(f"{data}/gone")
        out, error = self.call("verify", "--all", "--manifest", "m", code=1)
        self.assertRegex(out, r"^ok    a b: 5 bytes\nok    back\\slash: .*\nFAIL  gone: BSAG.*\nFAIL  changed: differs:"
                         f" SHA-256 is (?!{HELLO})[0-9a-f]{{64}} .* {HELLO}\n$")
        self.assertEqual(error, "xbsactl: 2 of 4 objects failed to verify\n")
        answer = json.loads(self.call("verify", "--all", "--manifest", "m", "--json", code=1)[0])
        self.assertEqual((answer["schema"], answer["failed"], [len(o) for o in answer["objects"]]), (1, 2, [3] * 4))
        self.assertEqual(answer["objects"][0], {"name": "a b", "ok": True, "bytes": 5})
        for arguments, code in ((["a b"], 0), (["changed"], 1), (["other"], 3), (["--json"], 2),
                                (["--all"], 1), ([], 2)):
            self.call("verify", *arguments, "--manifest", "m", code=code)
            self.call("verify", *arguments, code=2)
        self.call("verify", "--all", "--manifest", "none", code=6)
        self.assertEqual(os.listdir(), ["m"])

    def test_manifests(self):
        server = self.serve()
        for name in ("good", "back\\slash"):
            write_plain(f"{server.data}/{name}", "hello")
        for row in MANIFESTS:
            with self.subTest(row.text):
                write_plain("m", row.text)
                self.assertIn(row.says, "".join(self.call("verify", "--all", "--manifest", "m", code=row.code)))
        before = len(server.children)
        subprocess.run("echo else >text; mkfifo pipe; truncate -s 1G dump", shell=True, check=True)
        # refused before the tool sends, waits for or reads anything
        for path in ("no/m", ".", "text", "/dev/null", "/dev/zero", "pipe", "dump"):
            for option in ("--manifest", "--status"):
                self.call("store", "x", option, path, code=6)
        self.assertEqual((len(server.children), read_text("text")), (before, "else\n"))

    def test_differs_at_once(self):
        def lie(server):
            server.objects["x"] = b"jello"
        self.serve(Server({}, {"DATA": [lie, "transfer"]}))
        error = self.call("store", "x", "--verify", "--manifest", "m", code=1)[1]
        self.assertRegex(error, f"stored, but does not verify: differs.* {HELLO}\n")
        self.assertEqual(read_text("m"), f"{HELLO}  x\n")

    def test_at_once(self):
        """Parallel stores lose no entry, and other lines of the manifest stay."""
        server, names = self.serve(), [f"x{number}" for number in range(8)]
        write_plain("m", f"# mine\n{HELLO}  first\n{HELLO}  x3\n")
        tools = [self.start("store", name, "--manifest", "m") for name in names]
        wait_while(lambda: len(server.children) < 8)  # all have read the manifest once

        def wait_for_all(file):
            mark = re.compile(f"-> FLOCK .*:{os.fstat(file.fileno()).st_ino} ")
            wait_while(lambda: len(mark.findall(read_text("/proc/locks"))) < 8 and
                       all(tool.poll() is None for tool in tools))
        write_plain("new", read_text("m"))
        with open("new", encoding="ascii") as new:
            fcntl.flock(new, fcntl.LOCK_EX)
            with open("m", encoding="ascii") as old:
                fcntl.flock(old, fcntl.LOCK_EX)
                for tool in tools:
                    with tool.stdin as file:
                        file.write(b"hello")
                    tool.stdin = None
                wait_for_all(old)
                os.replace("new", "m")
            wait_for_all(new)
            self.assertEqual([tool.poll() for tool in tools], [None] * 8)
        ends = [(tool.communicate(timeout=DEADLINE)[0], tool.returncode) for tool in tools]
        lines = ["# mine", *(f"{HELLO}  {name}" for name in ["first", *names])]
        self.assertEqual((ends, sorted(read_text("m").splitlines()), os.listdir()),
                         ([(b"", 0)] * 8, lines, ["m"]))


class Commands(Site):
    def test_server_faults(self):
        """The tool adds what the library's text lacks: the refused command and the reason."""
        for row in rows("odd says hint",
                ({"GREETING": ["220-a", "220 b"]}, "several lines, so its replies are out of step", "banner"),
                ({"GREETING": ["421 full", "close"]}, "the server rejected the session: 421 full", "limit"),
                ({"GREETING": ["SSH-2.0-x", "close"]}, "does not speak FTP: SSH-2.0-x", "SFTP"),
                ({"PASS": ["500 OOPS: no root", "close"]}, "PASS ********: 500 OOPS: no root", "vsftpd.conf"),
                ({"END": ["451-Error", "451 x"]}, "STOR x: 451-Error", "full disk"),
                ({"PASS": ["530 no"], "TYPE": ["530 log in"], "CWD": ["530 log in", "close"]},
                 "PASS ********: 530 no", "password"),
                ({"PORT": ["550 no"]}, "PORT 127,0,0,1", "active mode"),
                ({"STOR": ["close"]}, "before its reply to STOR", "seccomp_sandbox=NO"),
                ({"STOR": ["552 full"]}, "STOR x: 552 full", "disk")):
            with self.subTest(row.says):
                self.serve(Server(row.odd))
                self.options[-1] = "u"
                self.assertRegex(self.call("store", "x", code=4)[1],
                                 f"{re.escape(row.says)}.*\nhint: .*{row.hint}")

    def test_exit_codes(self):
        self.serve(Server({}, {}, {}, {"STOR": [b"550 Permission denied.\r\n"]}, {"PORT": []}))
        write_plain("pw0", "", 0o600)
        write_plain("conf", 'host="127.0.0.1:1"\nuser="u"\n[store]\nmanifest="m"\n[verify]\nmanifest="n"\n')
        write_plain("secret", f'password="{CANARY}"\n')
        options, self.options = self.options, []
        for row in [
                dict(odd=["sotre", "a", "b"], code=2, says='no command "sotre": did you mean "store"?'),
                dict(odd=["quux"], code=2, says='no command "quux": the commands are store'),
                dict(odd=["help", "sotre"], code=2, says='no command "sotre": did you mean "store"?'),
                dict(odd=["store", "x", "--quux"], code=2, says="--quux"),
                dict(odd=["restore", "x", "--json", *options], code=2, says="--json needs FILE"),
                dict(odd=["store", "x", "--config", "none"], code=2, says="none was not readable"),
                dict(odd=["store", "x", "--config", "secret"], code=2, says="--config: line 1 is not KEY=VALUE"),
                dict(odd=["store", "x", "--config", "conf"], code=4, says="failed. (127.0.0.1, port 1)\nhint: "),
                dict(odd=["store", "x"], XBSACTL_CONFIG="conf", XBSACTL_HOST="x" * 64, XBSA_LOGFILE="n", code=4,
                     says="aborted.): gethostbyname() call failed"),
                dict(odd=["store", "x", "--library", "libm.so.6", *options], code=6, says="hint: name libxbsa.so.1"),
                dict(odd=["store", "x"], XBSACTL_CONFIG="conf", XBSACTL_HOST=options[1], says="stored"),
                dict(odd=["store", "x", "--json", *options], says='"sha256": "' + HELLO),
                dict(odd=["restore", "x", "f", "--json", *options], says='"bytes": 5,'),
                dict(odd=["store", "x", *options], code=4, says="550 Permission denied.\nhint: "),
                dict(odd=["store", "x", "--timeout", "1", *options], code=4, says="within 1 s (--timeout)\nhint"),
                dict(odd=["store", "x", *options], XBSA_TRACE="2", XBSA_LOGFILE="no/l", says=": no trace is written"),
                dict(odd=["store", "x", "--password-file", "pw0", *options], code=6, says="line is empty"),
                dict(odd=["store", "x", "--password-file", ".", *options], code=6, says="Is a directory"),
                dict(odd=["store", "x", "none/f", *options], code=6, says="No such file or directory"),
                dict(odd=["store", "x", *options], XBSA_PASSWORD="", code=2, says="XBSA_PASSWORD is empty")]:
            with self.subTest(row):
                odd, says, code = row.pop("odd"), row.pop("says"), row.pop("code", 0)
                self.env = dict(self.env, **row)
                out = "".join(self.call(*odd, code=code))
                self.env = {name: value for name, value in self.env.items() if name not in row}
                self.assertIn(says, out)
                self.assertNotIn(CANARY, out)
        self.assertEqual((os.path.exists("m"), os.path.exists("n")), (True, False))  # only its own section, and no trace


class Progress(Site):
    def test_store_and_restore(self):
        server, steps, data = self.serve(), 10, BLOCK * 10 + b"end"
        with self.start("store", "big", "--status", "s.prom", bufsize=0) as tool:
            for moved in range(1, steps + 1):
                tool.stdin.write(BLOCK)
                self.ask(tool, moved * len(BLOCK))
            self.assertEqual(metrics()["in_progress"], "1")
            tool.communicate(b"end", DEADLINE)
        got = metrics()
        self.assertLessEqual({"in_progress": "0", "transferred_bytes": str(len(data)), "last_exit_code": "0"}.items(),
                             got.items())
        self.assertEqual((tool.returncode, server.stored()["big"] == data), (0, True))
        os.unlink("s.prom")
        with self.start("restore", "big", "--status", "s.prom", bufsize=0) as tool:
            got = tool.stdout.read(1)
            self.ask(tool, len(BLOCK))  # the pipe takes one block, the next one waits
            while part := tool.stdout.read(1 << 16):
                got += part
                tool.send_signal(signal.SIGUSR1)
        self.assertEqual((tool.returncode, got == data), (0, True))

    def test_ends(self):
        self.serve()
        arguments, kept = ["store", 'b"\\', "--status", "s.prom"], "last_success_timestamp_seconds"
        self.call(*arguments)
        first = metrics()
        self.assertEqual(first["name"], 'b\\"\\\\')
        for code, *options in ((6, "--password-file", "none"), (2, "--path", " ")):
            self.call(*arguments, *options, code=code)
            got = metrics()
            self.assertEqual((got["last_exit_code"], got[kept]), (str(code), first[kept]))
        # nobody reads its standard error, which fills up: it continues and can be stopped
        with self.start(*arguments, pipesize=4096) as tool:
            wait_while(lambda: metrics()["in_progress"] == "0")
            for _ in range(100):
                before = os.stat("s.prom").st_ino, metrics()
                tool.send_signal(signal.SIGUSR1)
                wait_while(lambda: (os.stat("s.prom").st_ino, metrics()) == before)
            tool.terminate()
            self.assertEqual(tool.wait(DEADLINE), -signal.SIGTERM)
        got = metrics()
        self.assertEqual((got["in_progress"], got["last_exit_code"], got[kept], os.listdir()),
                         ("0", "143", first[kept], ["s.prom"]))

    def test_examples(self):
        """The report and the Prometheus rules use the names that the tool writes."""
        self.serve()
        self.env["KORVA_JOURNAL"] = "journal"
        self.call("store", "x", "--status", "s.prom")
        self.call("report", "--prometheus", "o.prom")
        self.assertLessEqual(set(re.findall("xbsactl_([a-z_]+)", read_text(
            f"{ROOT}/examples/korva-xbsa.rules.yml"))), {
                *metrics(), *re.findall("^xbsactl_([a-z_]+)[{]", read_text("o.prom"), re.M)})
        write_plain("old.prom", re.sub(r"(success.*\}) \d+", r"\1 9", read_text("s.prom")))
        self.options = ["--host", "127.0.0.1:1", "--user", "u"]
        self.call("store", 'b"\\', "--status", "z.prom", code=4)
        write_plain("check.json", self.call("check", "--json", code=1)[0])
        write_plain("p.prom", read_text("o.prom").replace("} 1\n", "} 0\n", 1))
        lines = "".join(f"{line}\n" for line in (
            r"ok\to.prom: objects: 1", r"BAD\told.prom: store x: last success \d+ hours ago, limit 25",
            r'BAD\tp.prom: space="x",path=".": not ok, see xbsactl report',
            r"ok\ts.prom: store x: done, 0 MB, 0.0 hours ago",
            r'BAD\tz.prom: store b\\"\\\\: has never succeeded, last exit code 4',
            r"BAD\tcheck.json: network.tcp: .*", r"\t  next: check that .*"))
        for summary, code in ("CRITICAL - 4 bad, 2 good\n" + lines, 2), ("OK - 1 good\nok.*\n", 0):
            done = subprocess.run(["sh", f"{ROOT}/examples/korva-xbsa-report", "."], stdout=-1, check=False)
            self.assertRegex(done.stdout.decode(), f"^XBSA {summary}$")
            self.assertEqual(done.returncode, code)
            _ = [os.unlink(name) for name in os.listdir() if name != "s.prom"]

    def test_lost_file(self):
        self.serve()
        os.mkdir("t")
        with self.start("store", "x", "--status", "t/s.prom") as tool:
            wait_while(lambda: not os.path.exists("t/s.prom"))
            shutil.rmtree("t")
            error = tool.communicate(b"hello", DEADLINE)[1]
        self.assertEqual((tool.returncode, error.count(b"warning: status file")), (0, 1))


class Large(Site):
    def test_sizes(self):
        server = self.serve(Server())
        for size in 0, BUFFER - 1, BUFFER, BUFFER + 1, 3 * BUFFER, 4 * BUFFER - 1:
            with self.subTest(size):
                data = pattern(size)
                self.call("store", "x", "--verify", "--manifest", "m", data=data)
                self.assertEqual(read_text("m"), f"{hashlib.sha256(data).hexdigest()}  x\n")
                self.call("restore", "x", "f")
                with open("f", "rb") as file:
                    self.assertEqual((server.objects["x"] == data, file.read() == data), (True, True))

    def test_ends(self):
        for row in LARGE_ENDS:
            with self.subTest(row), open("big", "wb+") as big, open("/proc/self/mem", "rb", 0) as memory:
                big.truncate(LARGE)
                self.serve(server := Server({"DATA": row.data}, objects={"x": bytes(LARGE)})).tool = None
                with mmap.mmap(big.fileno(), LARGE) as view:  # what is read beyond the end of the file fails
                    place = ctypes.c_char.from_buffer(view)
                    memory.seek(ctypes.addressof(place))
                    del place
                    if row.command == "store x":
                        big.truncate(3 * BUFFER)
                    with self.start(*row.command.split(), stdin=memory) as server.tool:
                        if row.command == "restore x":
                            server.tool.stdout.close()
                        error = server.tool.stderr.read().decode()
                self.assertEqual(server.tool.returncode, row.code, error)
                self.assertRegex(error, row.says)
                wait_while(lambda: len(server.ends) < len(row.ends))  # pylint: disable=cell-var-from-loop
                self.assertEqual((server.ends, os.listdir()), (row.ends, ["big"]))


class Secrets(Site):
    def store(self, *arguments):
        """No password in /proc, in the output or in written files."""
        with self.start("store", "x", *arguments, "--trace", "3:trace", "--status", "s.prom", "--manifest", "m",
                        "--verify") as tool:
            tool.stdin.write(BLOCK)
            self.ask(tool, len(BLOCK))
            seen = "".join(read_text(f"/proc/{tool.pid}/{name}") for name in ("cmdline", "environ"))
            self.assertIn("XBSA_PASSWORD=\0", seen)  # overwritten
            seen += "".join(text.decode() for text in tool.communicate(b"", DEADLINE))
        self.assertEqual(tool.returncode, 0, seen)
        self.search(seen)
        os.unlink("s.prom")

    def search(self, text):
        texts = [read_text(name) for name in os.listdir()]
        self.assertGreater(min(map(len, texts)), 10)
        self.assertNotIn(CANARY, "".join([text, *texts]))

    def test_plain(self):
        password_file = f"{self.serve().data}/password"
        write_plain(password_file, CANARY, 0o600)
        self.store()
        self.store("--password-file", password_file)
        self.assertIn("PASS ****", read_text("trace"))
        for arguments in (["--password", CANARY], ["--pass=" + CANARY]):
            out = "".join(self.call("store", "x", *arguments, code=2))
            self.search(out)
            self.assertIn("a password is never an argument", out)
        for mode, warned in ((0o640, True), (0o600, False)):
            os.chmod(password_file, mode)
            error = self.call("store", "x", "--password-file", password_file)[1]
            self.assertEqual("open to other accounts" in error, warned)
        error = self.call("store", "x", "--trace", "2:/dev/full")[1]
        self.assertEqual(error.count("No space left on device: lines are missing"), 1)
        for password, user, code in (*((CANARY + more, "ftp", 2) for more in (":", "\x01", CANARY * 5)),
                                     (CANARY, "nobody", 1)):
            self.env["XBSA_PASSWORD"], self.options[3] = password, user
            self.search("".join(self.call("verify", "x", "--manifest", "m", code=code)))


class Terminal(Site):
    def test_commands(self):
        """Control characters from the server never reach the terminal, and echoed passwords are masked."""
        marks = "\x1b]0;\x9b2J|\u061c\u200e\u200f\u202a\u202e\u2066\u2069|\x85\x7f\n\u00e4"
        evil = marks.encode() + b"\x9b\xe2\x80"
        obeyed = re.compile(rb"[\0-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xd8\x9c|\xe2\x80[\x8e\x8f\xaa-"
                            rb"\xae]|\xe2\x81[\xa6-\xa9]|(?<![\xc2-\xf4\x80-\xbf])[\x80-\x9f]")
        line = evil.replace(b"\n", b"") + CANARY.encode()
        refusal = [b"530 " + line + b"\r\n"]
        self.serve(Server(*[{"USER": refusal, "PASS": refusal, "STOR": refusal, "RETR": refusal}] * 9))
        write_plain("log", b" 2026-11-24 17:46:34: Trace: (QAB library) BSAInit: failed " + evil)
        write_plain("m", HELLO.encode() + b"  a" + line.replace(CANARY.encode(), b"") + b"\n")
        name = marks.translate({code: None for code in range(32)} | {127: None}).encode()
        for command in (["store", "x"], ["store", "x", "--trace", "2"], ["store", name], ["check"],
                        ["check", "--json"], ["verify", "--all", "--manifest", "m"], ["query", name],
                        ["trace", "log"], ["trace", evil], ["explain", evil], ["store", b"--" + evil],
                        ["setup", "--informixdir", b"/" + name], ["store", "x", "--status", evil]):
            with self.subTest(command), self.start(*command) as tool:
                printed = b"".join(tool.communicate(b"", DEADLINE))
                self.assertGreater(len(printed), 20)
                self.assertEqual([obeyed.findall(printed), CANARY.encode() in printed], [[], False],
                                 printed[-2000:])


class Informix(Site):
    store, search = Secrets.store, Secrets.search

    def setUp(self):
        self.sandbox = Sandbox(self)
        super().setUp()
        self.options = ["--informix", "--space", "obj"]

    def test_secrets(self):
        Utility(self, script="#!/bin/sh\ncat /proc/$$/environ /proc/$$/cmdline >>"
                f"{os.getcwd()}/child\nexec {self.sandbox.folder}/bin/olm_com_interface \"$@\"\n")
        self.store()
        self.assertIn("KORVA_JOB=", read_text("child"))

    def test_queries(self):
        """An unanswered query gives the reason; only the server's answer means "no match"."""
        failed = r"BSAQueryObject .* code 3 \(.+\): "
        for row in rows("odd code says", (None, 5, failed + r"COM utility: Unable to open \[.*ini\] file"),
                ("kill -9 $$", 5, failed + "The COM utility did not answer"),
                ("echo message=no job 7; echo reply=ERROR", 5, failed + "COM utility: no job 7\nhint: "),
                ("rm -f $0", 5, failed + "COM utility cannot be run: .*/olm_com.*: No such"),
                ("echo reply=OK", 3, "no match\n$")):
            with self.subTest(row):
                Utility(self, script=f"#!/bin/sh\n{row.odd}\n")
                _ = row.odd or os.unlink(inifile.INI)
                for arguments in (["query"], ["query", "--json"], ["restore", "x"]):
                    out, error = self.call(*arguments, code=row.code)
                    self.assertEqual(bool(out), "--json" in arguments and row.code == 3)  # this is an answer, too
                    self.assertRegex(error, "^xbsactl: " + row.says)

    def test_copies(self):
        self.call("store", "x", "--manifest", "m")
        text = read_text("m")
        copy = re.fullmatch(f"# copy id (\\d+)\n{HELLO}  obj@x\n", text)[1]
        newer = re.search(r"copy id (\d+)", self.call("store", "x", data=b"jello")[1])[1]
        verify = ["verify", "x", "--manifest", "m"]
        self.assertEqual(self.call(*verify)[0], f"ok    obj@x: copy id {copy}, 5 bytes\n")
        self.assertIn(f"FAIL  obj@x: copy id {newer}, differs",
                      self.call(*verify, "--copy-id", newer, code=1)[0])
        write_plain("m", text.replace(copy, "77") + "".join(
            f"{HELLO}  {name}\n" for name in ("obj@y", "z", "obj@x")))
        self.options = ["--informix"]
        out = self.call("verify", "--all", "--manifest", "m", code=1)[0]
        self.assertRegex(out, "^FAIL  obj@x: copy id 77, BSAGetObject.*\nFAIL  obj@y: no match\n"
                         f"FAIL  z: the entry is .*\nFAIL  obj@x: copy id {newer}, differs.*\n$")
        self.options += ["--space", "obj"]
        self.call("store", "x", "--manifest", "m", "--verify", "--status", "s.prom")
        self.assertEqual((metrics()["name"], " 77\n" in read_text("m")), ("obj@x", False))
        self.sandbox.fault("STOR=stall")  # the wait must end and close the job
        self.assertIn("no reply to STOR within 1 s", self.call("store", "x", "--timeout", "1", code=4)[1])
        self.assertEqual(self.sandbox.states()[-1], "aborted")
