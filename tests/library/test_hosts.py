"""Unusual hosts: a C program under odd conditions uses the library in both modes."""
import json
import os
import shutil
import subprocess
import unittest

from ftpd import Daemon, serve_behind
from utility import Utility, answers
from xbsa import DEADLINE, LIBRARY, make_folder, read_text

HOST = os.environ["XBSA_HOST"].split()  # run by an emulator, if it needs one
CONDITIONS = ["", "closed", "crowd", "blocked", "ignored", "threads", "blocked fork",
              "closed crowd ignored blocked threads thread fork"]
NOBODY = 65534


class Driver(unittest.TestCase):
    def setUp(self):
        self.server = serve_behind(self, Daemon("proftpd"))
        self.folder = make_folder(self)
        os.chmod(self.folder, 0o755)
        spec = f"127.0.0.1:{self.server.port}:backup:secret"
        given = answers(0, tape_server=spec, drive=".")
        Utility(self, given | {"-q": b"reply=OK\nsavesetname=4711\n"})

    def drive(self, owner, conditions, *, program=None, log="xbsa.log", **options):
        strict = str(int("fork" not in conditions))  # in strict mode a child may not
        env = dict(os.environ, XBSA_TRACE="66", XBSA_LOGFILE=log, KORVA_STRICT=strict,
                   KORVA_JOURNAL=log + ".journal")
        line = [*(program or HOST + [LIBRARY]), owner, f"localhost:{self.server.port}"]
        host = subprocess.run(line + conditions.split(), env=env, cwd=self.folder, check=False,
                              capture_output=True, timeout=DEADLINE, **options)
        self.assertEqual((host.returncode, host.stderr, host.stdout), (0, b"", b"ok\n"))

    def log(self):
        return read_text(self.folder + "/xbsa.log")


class Hosts(Driver):
    def test_conditions(self):
        for owner in "PLAIN", "INFORMIX":
            for conditions in CONDITIONS:
                with self.subTest(owner=owner, conditions=conditions):
                    self.drive(owner, conditions)
                    self.assertIn("BSATerminate: Closing trace", self.log().splitlines()[-1])
                    os.unlink(self.folder + "/xbsa.log")
        journal = [json.loads(line) for line in read_text(self.folder + "/xbsa.log.journal").splitlines()]
        self.assertEqual({line["result"] for line in journal}, {0})

    def test_large_log(self):
        with open(self.folder + "/xbsa.log", "w+b") as file:
            file.truncate(5 << 30)
            self.drive("PLAIN", "")
            file.seek(5 << 30)
            self.assertIn(b"BSATerminate: Closing trace", file.read())


class SetUserId(Driver):
    def test_set_user_id(self):
        """The user who starts a host with more rights gets a log only where that user may write."""
        program = [shutil.copy(path, self.folder) for path in (HOST[-1], LIBRARY)]
        os.mkdir(self.folder + "/open")
        os.chmod(self.folder + "/open", 0o777)
        who = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
        for line in "chmod 4755", "chmod 2755", "chmod 755", "setcap cap_dac_override=ep":
            with self.subTest(line):
                subprocess.run([*line.split(), program[0]], check=True)
                for log in "secret.log", "open/own.log":
                    self.drive("PLAIN", "", program=HOST[:-1] + program, log=log, **who)
                for name in "log", "log.journal":
                    self.assertFalse(os.path.exists(self.folder + "/secret." + name))
                    own = os.stat(self.folder + "/open/own." + name)
                    self.assertEqual((own.st_uid, own.st_gid), (NOBODY, NOBODY))
                    os.unlink(self.folder + "/open/own." + name)
