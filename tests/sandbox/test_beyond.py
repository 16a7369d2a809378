"""Objects stored with rclone, and a shared catalogue: a failure never passes for a backup."""
import glob
import os
import pwd
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest

from sandboxed import RUN, Sandbox, ask_and_restore, both_ways, start, there_and_back
from xbsa import ROOT, STRICT, make_folder, pattern, read_text, rows, run, write_plain

SIZES = [0, 1, 3000000] + [int(size) for size in os.environ.get("XBSA_BEYOND", "").split()]
POSTGRES = max(glob.glob("/usr/lib/postgresql/*/bin/"), default="")  # else by PATH
os.environ["RCLONE_REAL"] = shutil.which("rclone") or ""
os.environ["PATH"] = f"{ROOT}/tests/harness/standin:{os.environ['PATH']}"


def kilobytes(sandbox, field):
    return int(re.search(field + r":\s+(\d+)", read_text(f"/proc/{sandbox.process.pid}/status"))[1])


def begin(x):
    start(x)
    return x.store(pattern(1 << 20), end=False)


def end(x):
    return [x.BSAEndData(x.handle), x.BSAEndTxn(x.handle, 1)]


def kill_middle(x, victim):
    begin(x)
    os.kill(victim or os.getpid(), signal.SIGKILL)
    return end(x)


def kill_late(x, rclone, victim):
    """Stores; the victim dies when rclone has all data and has not yet confirmed it."""
    start(x)
    victim = victim or os.getpid()
    if os.fork() == 0:
        rclone.wait_until_reached()
        os.kill(victim, signal.SIGKILL)
        os._exit(0)
    return x.store(pattern(1 << 20)), os.wait()[1]


class Remote:
    def __init__(self, test):
        folder = make_folder(test)
        self.switch, self.bucket = folder + "/fault", folder + "/bucket"
        os.environ["RCLONE_FAULT"] = self.switch
        _ = os.mkfifo(self.switch + ".reached"), os.mkfifo(self.switch + ".go")
        self.fault("")

    def fault(self, name):
        write_plain(self.switch, name)

    def wait_until_reached(self):
        read_text(self.switch + ".reached")


class Rig:
    catalogue = ()

    def setUp(self):
        self.rclone = Remote(self)
        self.options = ["--store", "rclone::local:" + self.rclone.bucket, *self.catalogue]
        self.serve()

    def serve(self):
        self.sandbox = Sandbox(self, *self.options)

    def assert_left(self, *states):
        self.sandbox.stop(signal.SIGTERM)
        self.assertEqual(self.sandbox.states(), list(states))
        self.assertEqual(len(glob.glob(self.rclone.bucket + "/**/[!.]*", recursive=True)), states.count("good"))

    def test_killed_client(self):
        run(kill_middle, None, killed=True)
        self.rclone.fault("late")
        run(kill_late, self.rclone, None, killed=True)
        self.assertEqual(run(ask_and_restore, 1).value[0], (17, 0))
        self.assert_left("aborted", "aborted")


class OnRclone(Rig, unittest.TestCase):
    def test_both_ways(self):
        for size in SIZES:
            with self.subTest(size=size):
                run(both_ways, size, env=STRICT, level=0, deadline=60 + size // 1000000)
        self.assertFalse(os.path.exists(os.path.join(self.sandbox.folder, "objects")))
        self.assert_left(*["good"] * len(SIZES))

    def test_faults(self):
        def transfers(x):
            start(x)
            codes = []
            for fault in "middle", "end":
                self.rclone.fault(fault)
                codes.append(x.store(pattern(1 << 20))[-1])
            self.rclone.fault("")
            there_and_back(x, pattern(1 << 20))
            copy = x.state.sObject.sBSA_Object.copyId.right
            for fault in "middle", "":
                self.rclone.fault(fault)
                codes.append(max(x.restore(copy_id=copy)[0]))
                write_plain(os.path.join(self.rclone.bucket, str(copy)), "x" * (1 << 20))
            return codes
        self.assertEqual(run(transfers, env=STRICT).value, [3] * 4)
        self.assert_left("aborted", "aborted", "good")

    def test_slow(self):
        """A stalled rclone delays only its own client, not the server, and needs no memory."""
        def transfers(x):
            self.rclone.fault("stuck")
            before = kilobytes(self.sandbox, "VmRSS")
            if (slow := os.fork()) == 0:
                start(x)
                os._exit(x.store(pattern(32 << 20), name=b"slow") != [0, 0, 0])
            self.rclone.wait_until_reached()
            self.rclone.fault("")
            start(x)
            there_and_back(x, b"meanwhile")
            write_plain(self.rclone.switch + ".go", "")
            return os.waitpid(slow, 0)[1], kilobytes(self.sandbox, "VmHWM") - before
        status, grown = run(transfers, env=STRICT, level=0).value
        self.assertEqual(status, 0)
        self.assertLess(grown, 4 << 10)
        self.assert_left("good", "good")

    def test_refused(self):
        taken = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(taken.close)
        for row in rows("options code reason",
                        ("--store rclone:a:b", 125, "rclone is missing"),
                        ("--store rclone:a", 2, "rclone:REMOTE:PATH"),
                        ("--catalogue postgresql://me@h/d", 2, "needs --store"),
                        ("--catalogue postgresql://me:canary@h/d", 2, "must not contain a password"),
                        ("--catalogue postgresql:///d?password=canary", 2, "must not contain a password"),
                        (f"--port {taken.getsockname()[1]}", 125, "Address already in use\nhint: ")):
            path = "/none" if "missing" in row.reason else "/usr/bin"
            ended = subprocess.run([RUN, *row.options.split()], stderr=subprocess.PIPE, text=True,
                                   env={"PATH": path}, check=False)
            self.assertEqual((ended.returncode, row.reason in ended.stderr, "canary" in ended.stderr),
                             (row.code, True, False), ended.stderr)


class Shared(Rig, unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        folder = tempfile.mkdtemp(prefix="pg")
        cls.addClassCleanup(shutil.rmtree, folder)
        options = {"stderr": subprocess.PIPE, "text": True, "cwd": "/"}
        if os.geteuid() == 0:  # PostgreSQL does not run as root
            options |= {"user": "postgres", "group": "postgres", "extra_groups": []}
            os.chown(folder, pwd.getpwnam("postgres").pw_uid, -1)
        subprocess.run(f"{POSTGRES}initdb -D data -A trust -U korva -E UTF8 --no-sync".split(),
                       check=True, stdout=subprocess.DEVNULL, **options | {"cwd": folder})
        server = subprocess.Popen(f"{POSTGRES}postgres -D {folder}/data -k {folder} -c fsync=off"
                                  " -c listen_addresses=".split(), **options)
        cls.addClassCleanup(server.wait)
        cls.addClassCleanup(server.send_signal, signal.SIGQUIT)
        assert any("ready to accept" in line for line in iter(server.stderr.readline, ""))
        server.stderr.close()
        cls.url = f"postgresql:///postgres?host={folder}&user=korva"

    def setUp(self):
        subprocess.run(["psql", "-q", self.url, "-c", "DROP TABLE IF EXISTS object, session"],
                       check=True, stderr=subprocess.DEVNULL)
        self.catalogue = ("--catalogue", self.url)
        super().setUp()

    def test_two_servers(self):
        """Each server restores the other's copies; a starting server leaves running stores alone."""
        def store(x):
            begun = begin(x)
            subprocess.run([RUN, *self.options, "--exec", "true"], check=True, timeout=60)
            return begun + end(x), x.state.sObject.sBSA_Object.copyId.right
        codes, copy = run(store, env=STRICT).value
        self.assertEqual(codes, [0, 0, 0, 0])
        self.serve()
        self.assertEqual(run(ask_and_restore, copy).value, ((0, copy), ([0, 0, 0], pattern(1 << 20))))
        self.assert_left("good")

    def test_killed_server(self):
        self.assertEqual(run(kill_middle, self.sandbox.process.pid, env=STRICT).value, [3, 0])
        self.serve()
        self.rclone.fault("late")
        self.assertEqual(run(kill_late, self.rclone, self.sandbox.process.pid, env=STRICT).value,
                         ([0, 0, 3], 0))
        self.serve()
        self.assertEqual(run(ask_and_restore, 1).value[0], (17, 0))
        self.assert_left("aborted", "aborted")
