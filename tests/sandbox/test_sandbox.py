"""Whole sessions in Informix mode on the sandbox, and what remains of interrupted ones."""
import contextlib
import hashlib
import multiprocessing
import os
import pwd
import shutil
import signal
import subprocess
import unittest

import inifile
from catalogue import Catalogue
from sandboxed import RUN, Sandbox, ask_and_restore, both_ways, start, there_and_back
from utility import traced
from xbsa import (SANITIZED, STRICT, make_folder, pattern, read_bytes, read_text, rows, run, write_plain)

PROCESSES = 8 if SANITIZED else 64
OBJECTS = int(os.environ.get("XBSA_OBJECTS", "1"))  # of each

# The fault, the codes of a store in strict mode, and the status that closes its job. The code of a
# greeting is ignored.
FAULTS = rows("fault result closed", *((fault, [3], "3") for fault in """user=refuse pass=refuse
    type=refuse cwd=refuse port=refuse stor=refuse connect=refuse type=close connect=close greeting=close
    pass=reset connect=reset greeting=reset""".split()), ("greeting=refuse", [0, 0, 0], "0"),
    ("end=refuse", [0, 0, 3], "3"), ("end=close", [0, 0, 3], "3"),
    *((fault, [0, 0, 0], "0") for fault in ("quit=close", "quit=reset")),
    *((fault, [3], "") for fault in ("openjob=silent", "open=refuse", "open=garbage", "openjob=refuse")),
    *((fault, [0, 0, 3], "0") for fault in ("closejob=refuse", "close=refuse", "closejob=signal")))
OWN = pwd.getpwuid(os.getuid()).pw_name
# The password None means the one from the answer.
LOGINS = rows("login user password reply", ("session", "sms", f"{OWN}@localhost", "530"),
    ("session", OWN, "", "530"), ("session", OWN, "0" * 32, "530"), ("session", OWN, None, "230"),
    ("identity", "sms", f"{OWN}@localhost", "230"), ("identity", "sms", OWN, "530"),
    ("identity", "sms", "games@localhost", "530"), ("identity", OWN, "", "530"),
    ("identity", "sms", f"{OWN}@host.invalid", "530"))
# Commands of a logged-in client, and the replies; its job is number 1, another client's is 2.
ODD = [("TYPE A", "504"), ("CWD /etc", "550"), ("PORT 127,0,0,1,4", "501"),
       ("PORT 127,0,0,1,999,1", "501"), ("PORT 127,0,0,1,0,21", "501"),
       ("PORT 10,0,0,1,99,1", "501"), ("STOR 1:QAB:none:17:SANDBX:9", "550"), ("TYPE I", "200"),
       ("CWD SMS01", "250"), ("PORT 127,0,0,1,255,255", "200"), ("STOR 2:QAB:none:17:SANDBX:9", "550"),
       ("STOR 99999999999999999999:QAB:none:17:SANDBX:9", "550"),
       ("STOR 1:QAB:none:17:SANDBX:\xb2", "550"), ("RETR 1:0:0:17:1:none", "550"), ("STAT", "500"),
       ("\xff\xf4\xff\xf2ABOR", "500"), ("", "500"), ("__init__", "500"),
       ("NOOP " + "\1" * 4000, "200"),
       ("STOR 1:QAB:none:17:SANDBX:9", "150"), ("NOOP", "425")]  # no listener
# Changes to a used directory of a sandbox, and why no sandbox starts there.
SPOILT = [("truncate -s 0 catalogue.sqlite", "does not know 1 of the stored objects"),
          ("rm catalogue.sqlite", "does not know 1 of the stored objects"),
          ("echo nonsense >catalogue.sqlite", "not a database"),
          ("chmod 770 .", "can be written by other accounts"),
          ("chmod 777 bin", "bin can be written by other accounts"),
          ("chmod 777 ..", "can be written by every account"),
          ("ln -sf ../victim faults", "faults is a link"),
          ("ln -sf ../victim lock", "lock is a link"),
          ("ln ../victim settings.new", "settings.new is a link")]
SPOILT_BY_ROOT = [("chown nobody .", "belongs to nobody"), ("chown nobody ..", "belongs to nobody"),
                  ("chown nobody bin", "bin belongs to nobody"),
                  ("ln -s ../victim new; chown -h nobody new", "new belongs to nobody")]


def under_faults(x, sandbox, lines):
    start(x)
    found = []
    for line in lines:
        sandbox.fault(line)
        found.append(x.store())
        assert x.last_error() or not any(found[-1]), line
    sandbox.fault("")
    there_and_back(x, b"after all that")
    return found


def own_data(number):
    return hashlib.shake_128(b"%d" % number).digest(100000 + number)


def run_one(number):
    run(store_own, number, deadline=180 * OBJECTS)


def store_own(x, number):
    start(x)
    for _ in range(OBJECTS):
        if number % 8 == 0:
            there_and_back(x, own_data(number), b"space%d" % number)
        else:
            assert x.store(own_data(number), name=b"space%d" % number) == [0, 0, 0]


class OnSandbox(unittest.TestCase):
    def test_both_ways(self):
        for login, sizes in (("session", (0, 1, 65535, 3000000)), ("identity", (70000,))):
            sandbox = Sandbox(self, "--login", login)
            for size, env in zip(sizes, [STRICT, {}] * 2):
                with self.subTest(login, env=env, size=size):
                    run(both_ways, size, env=env)
            self.assertEqual(sandbox.states(), ["good"] * len(sizes))

    def test_faults(self):
        sandbox = Sandbox(self)
        lines = [row.fault for row in FAULTS]
        got = run(under_faults, sandbox, lines, env=STRICT)
        self.assertEqual(list(zip(lines, got.value)), [row[:2] for row in FAULTS])
        closed = [line.split(" -i ")[1][0] for line in traced(got, "com_intf: COM COMMAND: ")
                  if " closejob:" in line]
        self.assertEqual("".join(closed), "".join(row.closed for row in FAULTS) + "00")
        # two of the jobs closed with 0 had no backup, or never reached the catalogue
        self.assertEqual(sandbox.states().count("good"), closed.count("0") - 3)

    def test_logins(self):
        """By default the server trusts no client's claims."""
        for login in "session", "identity":
            sandbox = Sandbox(self, "--login", login)
            given = sandbox.open_job()
            self.assertEqual(len(given), 4 if login == "session" else 2)
            for row in [row for row in LOGINS if row.login == login]:
                with self.subTest(row):
                    shown = given[-1] if row.password is None else row.password
                    self.assertEqual(sandbox.talk(f"USER {row.user}", f"PASS {shown}"), ["331", row.reply])

    def test_odd_commands(self):
        sandbox = Sandbox(self)
        *_, user, password = sandbox.open_job()
        sandbox.open_job()
        commands = [(f"USER {user}", "331"), (f"PASS {password}", "230"), *ODD]
        found = sandbox.talk(*(command for command, _ in commands))
        self.assertEqual(list(zip([command for command, _ in commands], found)), commands)
        log = read_text(f"{sandbox.folder}/server.log")
        self.assertEqual((log.count("Traceback"), log.count(password)), (0, 0), log)
        self.assertLess(max(map(len, log.splitlines())), 300)  # whatever clients send
        table = subprocess.run([RUN, "--folder", sandbox.folder, "--catalogue"], text=True,
                               stdout=subprocess.PIPE, check=True).stdout
        self.assertEqual((table.count("obj?"), table.count("\u009b")), (2, 0), table)

    def test_sweep(self):
        """It abandons no transfer that begins or ends meanwhile."""
        catalogue = Catalogue(make_folder(self), {"store": ""})
        self.addCleanup(catalogue.db.close)
        for number in 1, 2, 3:
            key = catalogue.open_session("b", OWN, "host"), "b", OWN
            catalogue.open_backup(key, "demo", number, "obj@/data", "")
        for number in 2, 3:
            catalogue.advance(number, "opened", "storing")

        def meanwhile():
            catalogue.advance(1, "opened", "storing")
            catalogue.advance(2, "storing", "stored")
            return ()
        catalogue.sweep(0, meanwhile)
        self.assertEqual([row[-2] for row in catalogue.table()[1:]], ["storing", "stored", "swept"])

    def test_odd_name(self):
        """No byte of the directory's name is special, and later changes to a link do not matter."""
        home = make_folder(self)
        link, folder = f"{home}/link", f"{home}/a#b%41?c"
        os.mkdir(folder, 0o700)
        os.symlink(folder, link)
        Sandbox(self, folder=link)
        os.unlink(link)
        write_plain(inifile.INI, inifile.text_for(folder))
        run(both_ways, 1)
        self.assertEqual(os.listdir(home), ["a#b%41?c"])

    def refuse(self, rows):
        home = make_folder(self)
        good = f"{home}/good"
        os.mkdir(good, 0o700)
        sandbox = Sandbox(self, folder=good)
        run(both_ways, 1)
        sandbox.stop(signal.SIGTERM)
        write_plain(f"{home}/victim", "untouched")
        for command, reason in rows:
            with self.subTest(command):
                os.chmod(home, 0o700)
                os.chown(home, os.getuid(), -1)
                shutil.rmtree(f"{home}/folder", ignore_errors=True)
                shutil.copytree(good, f"{home}/folder", symlinks=True)
                subprocess.run(command, shell=True, check=True, cwd=f"{home}/folder")
                ended = subprocess.run([RUN, "--folder", f"{home}/folder", "--exec", "true"],
                                       stderr=subprocess.PIPE, text=True, timeout=60, check=False)
                self.assertEqual((ended.returncode, reason in ended.stderr), (125, True), ended)
                self.assertEqual(read_text(f"{home}/victim"), "untouched")

    def test_spoilt_folders(self):
        self.refuse(SPOILT)


class AsRoot(unittest.TestCase):
    refuse = OnSandbox.refuse

    def test_spoilt_folders(self):
        self.refuse(SPOILT_BY_ROOT)

    def test_full_disk(self):
        """On a full disk that also contains the catalogue, good copies stay good and readable."""
        folder = make_folder(self)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m,mode=700", "full", folder], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", folder], check=True)
        sandbox = Sandbox(self, folder=folder)

        def store(x):
            start(x)
            there_and_back(x, pattern(1 << 20))
            copy = x.state.sObject.sBSA_Object.copyId.right
            return copy, max(x.store(pattern(8 << 20)))

        copy, code = run(store, env=STRICT).value
        good = ((0, copy), ([0, 0, 0], pattern(1 << 20)))
        self.assertEqual((code, sandbox.states()), (3, ["good", "aborted"]))
        self.assertEqual(os.listdir(f"{folder}/objects"), [str(copy)])
        self.assertEqual(run(ask_and_restore, copy, env=STRICT).value, good)
        sandbox.stop()
        with contextlib.suppress(OSError), open(f"{folder}/objects/3.part", "wb", 0) as file:
            while True:
                file.write(bytes(4096))
        Sandbox(self, folder=folder)
        self.assertEqual(run(ask_and_restore, copy, env=STRICT).value, good)


class Load(unittest.TestCase):
    def test_at_once(self):
        sandbox = Sandbox(self)
        with multiprocessing.Pool(PROCESSES) as pool:
            pool.map(run_one, range(PROCESSES), 1)
        self.assertEqual(sandbox.states(), ["good"] * PROCESSES * OBJECTS)
        for each in sandbox.objects():
            self.assertEqual(read_bytes(f"{sandbox.folder}/objects/{each['saveset']}"),
                             own_data(int(each["space"][5:])), each)
