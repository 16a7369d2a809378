"""The journal: a line for each object, its contents, and what it must not do to the host."""
import ctypes as c
import json
import os
import resource
import subprocess
import unittest

from calls import call
from server import POLITE, Server
from utility import Utility, answers, start
from xbsa import both_modes, descriptors, pattern, read_text, rows, run, run_started

ON = {"KORVA_JOURNAL": "journal"}
NOT_ENDED, FAILED = "The object was never closed with BSAEndData.", "A call for the object failed."
AGAIN = " commit begin create block end"
HELLO, WHOLE = ("store", 5, 1, 0, ""), ("restore", 5, 1, 0, "")
# Calls in a transaction; direction, bytes, blocks, result and error of each line, in both modes; the
# server's oddity.
OBJECTS = rows("calls lines", ("create block end", [HELLO]), ("get take end", [WHOLE]), ("commit", []),
    ("create block fault block end", [("store", 10, 2, 3, "Bad address Data sending failed.")]),
    ("create block send-null end", [("store", 5, 1, 3, "A .*block.* rejected.|" + FAILED)]),
    ("create block end!", [("store", 5, 1, 3, FAILED)]), ("create send end end", [("store", 0, 0, 0, "")]),
    ("create block get end", [("store", 5, 1, 3, NOT_ENDED), ("restore", 0, 0, 3, "The transfer was cut short.*")]),
    ("create block commit init begin create block end", [("store", 5, 1, 3, NOT_ENDED), HELLO]),
    ("create-any" + AGAIN, [HELLO]), ("get!" + AGAIN, [HELLO]),
    dict(calls="create end" + AGAIN, odd={"STOR": ["550 full"]},
         lines=[("store", 0, 0, 3, "STOR failed.* 550 full"), HELLO]),
    dict(calls="create commit init", odd={"PASS": ["530 not secret"]},
         lines=[("store", 0, 0, 3, r".* 530 not \*{8} ")]),
    dict(calls="create block end", odd={"END": ["426 aborted"]},
         lines=[("store", 5, 1, 3, "TRANSIENT.* 426 aborted ")]),
    dict(calls="get take end", odd={"END": ["426 aborted"]}, lines=[("restore", 5, 1, 3, "TRANSIENT.*")]),
    dict(calls="get take end", odd={"DATA": ["reset_data"]},
         lines=[("restore", 0, 0, 3, "Connection reset by peer Data receiving failed.")]), odd={})
# The kind of the journal's path; whether lines get there, and the trace.
PATHS = rows("path lines trace", ("journal", 2, ""), ("", 0, ""), (".", 0, "cannot be opened: Is a directory"),
    ("/dev/full", 0, "a line was lost: No space left on device"), ("x" * 4096, 0, "the path is too long"),
    ("closed", 2, ""), ("limited", 1, "a line was lost: File too large"))


def lines(text):
    return [json.loads(line) for line in text.splitlines()]


def journal(x, calls):
    for name in ["begin", *calls.split()]:
        call(x, name)
    return read_text("journal")


def odd_path(x, path):
    codes = [x.store()]
    if path == "limited":
        resource.setrlimit(resource.RLIMIT_FSIZE, (os.path.getsize(path), resource.RLIM_INFINITY))
    number = None
    if path == "closed":  # and the host reuses its number for a file
        number = max(n for n in descriptors() if os.readlink(f"/proc/self/fd/{n}").endswith(path))
        with open("own", "w", encoding="ascii") as own:
            os.dup2(own.fileno(), number)
    codes.append(x.store())
    resource.setrlimit(resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    _ = number and os.close(number)
    return codes, len(lines(read_text(path if path in ("closed", "limited") else "journal"))), read_text("own")


class Journal(unittest.TestCase):
    def test_objects(self):
        for env, row in both_modes(OBJECTS):
            with self.subTest(row.calls, env=env):
                server = Server(row.odd, objects={"obj": b"hello"})
                got = lines(run_started(journal, row.calls, server=server, env=env | ON).value)
                self.assertEqual([line.pop("xxh128") for line in got], [subprocess.run(
                    ["xxhsum", "-H2"], input=(b"hello" * 2)[:line["bytes"]], check=True,
                    capture_output=True).stdout.decode().split()[0] for line in got])
                self.assertEqual(len(got), len(row.lines))
                for line, want in zip(got, row.lines):
                    seen = {key: line.pop(key) for key in ("direction", "bytes", "blocks", "result", "error")}
                    self.assertEqual(tuple(seen.values())[:4], want[:4])
                    self.assertRegex(seen["error"], f"^({want[4]})$")
                    self.assertTrue(line.pop("pid") > 1 and 0 <= line.pop("seconds") < 100)
                    self.assertRegex(line.pop("time"), r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
                    self.assertEqual(line, {"schema": 1, "mode": "plain", "space": "obj", "path": "/data",
                                            "copy_id": 0, "server": f"127.0.0.1:{server.port}"})

    def test_large_object(self):
        """Blocks of any size give the same checksum as another program."""
        def store(x):
            data = pattern(1 << 20)
            for begin, end in ((0, 0), (0, 1), (1, 241), (241, 700), (700, 9000), (9000, 1 << 20)):
                x.store(data[begin:end])
            return data, read_text("journal")
        data, text = run_started(store, server=Server(), env=ON).value
        at = 0
        for line in lines(text):
            part = data[at:at + line["bytes"]]
            want = subprocess.run(["xxhsum", "-H2"], input=part, check=True, capture_output=True).stdout
            self.assertEqual(line["xxh128"], want.decode().split()[0])
            at += line["bytes"]
        self.assertEqual(at, 1 << 20)

    def test_paths(self):
        for row in PATHS:
            with self.subTest(row.path[:9]):
                got = run_started(odd_path, row.path, server=Server(), env={"KORVA_JOURNAL": row.path})
                self.assertEqual(got.value, ([[0, 0, 0]] * 2, row.lines, ""))
                self.assertEqual(any(row.trace in line for line in got.trace if "JOURNAL" in line),
                                 row.path != "")

    def test_names(self):
        """Each name becomes valid JSON: UTF-8 unchanged, other bytes as the characters of their numbers."""
        def store(x):
            for name in names:
                x.store(name=name, end=False)
                call(x, "commit")
            x.init()
            return read_text("journal").encode("latin-1"), os.stat("journal").st_mode & 0o777
        names = [b'a"b\\c\x7f', "Zürich €𝄞".encode(), b"caf\xe9", b"\xc0\x80\xed\xa0\x80\xf4\x90\x80\x80\xe2\x82",
                 b"x" * 1024]
        text, mode = run_started(store, server=Server(), env=ON).value
        self.assertEqual(mode, 0o600)
        self.assertEqual([json.loads(line)["space"] for line in text.decode().splitlines()], [
            'a"b\\c\x7f', "Zürich €𝄞", "café", "À\x80í\xa0\x80ô\x90\x80\x80â\x82", "x" * 1024])
        self.assertNotIn(b"\x7f", text)

    def test_ends_of_processes(self):
        """A host that ends during an object writes a line, a forked child does not."""
        def host(x, server):
            def child(*actions):
                if (pid := os.fork()) == 0:
                    _ = [action() for action in actions], c.CDLL(None).exit(0)
                os.waitpid(pid, 0)
            child(lambda: x.start(server), lambda: x.store(end=False),
                  lambda: child(lambda: 0), lambda: child(x.init))
            return read_text("journal")
        server = Server()
        line, = lines(run(host, server, server=server, env=ON).value)
        self.assertEqual((line["bytes"], line["result"], line["error"]),
                         (5, 3, "The process ended before BSAEndData."))


class Informix(unittest.TestCase):
    def test_informix(self):
        def both(x):
            assert start(x) == 0
            copies = x.store(name=b"demo_tcp", path=b"rootdbs"), x.restore(name=b"demo_tcp", copy_id=4711)[0]
            return copies, read_text("journal")
        for refused in 0, 1:
            server = Server(*({"STOR": ["550 no tape"]},) * refused, objects={"1234": b"hello"})
            Utility(self, answers(server.port, savesetname="1234"))
            got = run(both, server=server, env=ON)
            store, restore = lines(got.value[1])
            self.assertEqual((store["mode"], store["space"], store["path"], store["copy_id"], store["result"],
                              restore["result"], restore["copy_id"]),
                             ("informix", "demo_tcp", "rootdbs", 0 if refused else 1234, 3 * refused, 0, 4711))
            self.assertNotIn("geheim", got.value[1])
