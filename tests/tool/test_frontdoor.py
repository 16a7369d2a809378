"""The commands explain and setup, which need no server."""
import fcntl
import functools
import glob
import os
import pathlib
import pwd
import re
import resource
import shutil
import stat
import subprocess
import sys
import unittest

from xbsa import LIBRARY, ROOT, SANITIZED, make_folder, read_bytes, read_text, rows, write_plain

TOOL = os.environ["XBSA_TOOL"]
# Words in the library's texts that mean a failure.
FAILURE = re.compile(rb"fail|cannot|unable|not found|invalid|too? (long|small)|[^/]null|exiting[.,!]|"
                     rb"refused|could not|not received|empty|no m|negative|unexpected|error|reset|"
                     rb"no account|no coresponding|copytype ==|not returned|did not|ended|re?jected|"
                     rb"not allowed|no free|allows only", re.I)
STAMP = " 2026-11-24 17:46:34: Trace: (QAB library) "
FAILED = "xbsactl: BSACreateObject failed with code 3 (System detected error, operation aborted.): "
# The argument, the beginning of the entry that explains it, and a word of its remedy.
EXPLAINED = rows("typed entry remedy",
    (STAMP + "xbsa_open: TRANSIENT or PERMANENT NEGATIVE reply: 530 Login incorrect. ", "530", "--user"),
    (STAMP + "xbsa_open: Welcome: 220-Hello", "220-", "banner"),
    (STAMP + "parse_com_answer: Parsing line: [reply = ERROR].", "reply=ERROR", "message="),
    (STAMP + "Environment variable: [KORVA_POOL] not found.", "Environment variable: [...", "nothing"),
    (STAMP + "BSAEndData: Return CODE: 3 ", "BSAEndData", "back up again"),
    (FAILED + "NEGATIVE reply: 550 Permission denied.", "stpc_port", "active mode"),
    (FAILED + "NEGATIVE reply: 250 Directory successfully changed.", "220-", "xbsactl check"),
    (FAILED + "STOR failed. NEGATIVE reply: 125 Data connection already open", "125", "answers 150"),
    (FAILED + "STOR failed. NEGATIVE reply: ", "STOR failed", "seccomp_sandbox=NO"),
    ("CWD /backups: 550 Failed.", "CWD", "--path"), ("550 SSL/TLS required", ": 530", "tunnel"),
    ('writing "/x": No space left on device', "No space", "free space"),
    ("library cannot be loaded: x.so: cannot open shared object file: No such file or directory",
     "library cannot", "--informixdir"),
    ("0x11", "BSA_RC_NO_MATCH", "utility"), ("425", "425 ", "nf_conntrack_ftp"),
    ("login INCORRECT", "530 ", "--user"), ("130", "xbsactl exit code 130", "again"))


def tool(*arguments, **options):
    options.setdefault("input", "")
    return subprocess.run([TOOL, *arguments], capture_output=True, text=True, check=False, **options)


def read(*path):
    return pathlib.Path(ROOT, *path).read_text(encoding="utf-8", errors="replace")


def state(path):
    """The state of a directory that changes on writing; reading changes only the access time."""
    status = os.lstat(path)
    return status.st_ino, status.st_mode, status.st_uid, status.st_size, status.st_mtime_ns


class Explain(unittest.TestCase):
    def test_page(self):
        page = subprocess.check_output([sys.executable, os.path.join(ROOT, "tools/messages.py")], text=True)
        self.assertEqual(page, read("docs", "messages.md"))

    def test_every_error_text(self):
        """Failures that the built library can report without an entry in the knowledge base."""
        texts = [re.sub(r"%[-.*\d]*[a-z]+", "7", text.decode()) for text in re.findall(
            rb"[ -~]{10,}", read_bytes(LIBRARY)) if b" " in text and FAILURE.search(text)
            and not re.match(rb"\d+ \d+ \d+ |'(const )?struct ", text)]  # the sanitizer's notes
        self.assertGreater(len(texts), 100)
        tried = [(text, tool("explain", text)) for text in texts]
        self.assertEqual([text for text, got in tried if got.returncode or got.stderr], [])

    def test_lines(self):
        for row in EXPLAINED:
            with self.subTest(row.typed):
                out = tool("explain", *row.typed.split()).stdout
                self.assertEqual(out[:len(row.entry)], row.entry)
                self.assertIn(row.remedy, " ".join(out.partition("remedy:")[2].split()))
        for typed, code, reason in ((["no", "such", "quux"], 1, "try fewer words"), ([" "], 2, "no word")):
            got = tool("explain", *typed)
            self.assertEqual((got.returncode, got.stdout, reason in got.stderr), (code, "", True))
        self.assertEqual(tool("explain").stdout[:3], "== ")


ONCONFIG = "ROOTNAME rootdbs\nbar_bsalib_path\t/old.so # mine\nBAR_XFER_BUF_SIZE 64\nLTAPEDEV /dev/null\n"
ROWS = "1|1.0.1|psm|1.0|\n"
OTHER = 12345  # an account other than root and ours


class Folder(unittest.TestCase):
    def setUp(self):
        self.folder = make_folder(self)
        _ = os.mkdir(self.path("etc")), os.mkdir(self.path("lib"))
        self.write("etc/onconfig", ONCONFIG, 0o640)
        self.write("etc/sm_versions", ROWS * 400)
        self.environment = {k: v for k, v in os.environ.items() if k != "ONCONFIG"}
        self.before = self.tree()

    def write(self, name, text, mode=0o644):
        write_plain(self.path(name), text, mode)

    def tree(self):
        found = {}
        for path in self.names():
            status, link = os.lstat(path), os.path.islink(path)
            if link or os.path.isfile(path):
                found[os.path.relpath(path, self.folder)] = (
                    stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid,
                    os.readlink(path) if link else read(path))
        return found

    def names(self):
        return glob.glob(self.folder + "/**/*", recursive=True, include_hidden=True)

    def setup(self, *arguments, folder=None, want=0, **options):
        got = tool("setup", "--informixdir", folder or self.folder, *arguments, env=self.environment, **options)
        self.assertEqual(got.returncode, want, got.stdout + got.stderr)
        return got.stdout + got.stderr

    def refuse(self, text, *arguments, want=6, **options):
        before = [(name, state(name)) for name in self.names()]
        self.assertIn(text, out := self.setup(*arguments, want=want, **options))
        self.assertEqual([(name, state(name)) for name in self.names()], before)
        return out

    def undo(self, *arguments):
        self.setup("--undo", "--yes", *arguments)
        self.assertEqual(self.tree(), self.before)

    def path(self, name):
        return os.path.join(self.folder, name)

    def link(self, name, to):
        if os.path.lexists(self.path(name)):
            os.rename(self.path(name), self.path("away"))
        os.symlink(to, self.path(name))


class Setup(Folder):
    def test_refusals(self):
        os.symlink("onconfig", self.path("etc/linked"))
        limit = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (2000, 2000)),
                 "restore_signals": False}
        self.write("etc/empty", " \n")
        self.write("etc/binary", "ROOTNAME x\n\0")
        busy = os.open(self.path("etc"), os.O_RDONLY)
        fcntl.flock(busy, fcntl.LOCK_EX)
        self.refuse("another setup is running", "--yes")
        os.close(busy)
        for row in rows("says options code", ("not an absolute path", "--yes", 2, {"folder": "informix"}),
                        ("a control character", "--logrotate", 2, {"folder": "/\u009b"}),
                        ("lib/etc is missing", "--yes", 6, {"folder": self.path("lib")}),
                        ("does not exist", "--onconfig none --yes", 6),
                        ("is not a regular file", "--onconfig linked --yes", 6),
                        ("is empty: copy", "--onconfig empty --yes", 6),
                        ("is not a text file", "--onconfig binary --yes", 6),
                        ("must be the name of a file", "--onconfig ../onconfig --yes", 2),
                        ("library cannot be loaded", "--library /none.so --yes", 6),
                        ("+ 1|1.0.1|KORVA|1.8A1|", "--dry-run --yes", 0),
                        ("# LTAPEDEV is /dev/null: the database discards", "--dry-run", 0),
                        ("Nothing to undo", "--undo --yes", 0), ("Nothing was changed", "", 1),
                        ("Nothing was changed", "", 1, {"input": "no\n"}),
                        # fails after one file has been written
                        ("etc/sm_versions", "--yes", 6, limit), more={}):
            with self.subTest(row):
                before = self.tree()
                self.assertIn(row.says, self.setup(*row.options.split(), want=row.code, **row.more))
                self.assertEqual(self.tree(), before)

    def test_planted(self):
        """A hostile owner's links, pipes, files and escape sequences have no effect."""
        journal, bomb = "etc/xbsa-setup.json", "[" * 65000
        outside = make_folder(self)
        victim = os.path.join(outside, "onconfig")
        write_plain(victim, "kept")
        for prepare, text in [
                *((functools.partial(self.link, name, to), name[-4:] + " is a link") for name, to in (
                    ("lib", outside), ("etc", outside), ("etc/sm_versions", victim), (journal, victim))),
                (lambda: os.mkfifo(self.path(journal)), "not a regular file"),
                (lambda: self.write(journal, bomb), "is damaged"),
                (lambda: self.write(journal, bomb * 2), "larger than 64 KiB"),
                (lambda: os.truncate(self.path("etc/onconfig"), 1 << 33), "larger than 1024 KiB")]:
            with self.subTest(text):
                self.setUp()  # a new directory, so that no row writes through the link of another
                prepare()
                self.refuse(text, "--yes", preexec_fn=None if SANITIZED else (
                    lambda: resource.setrlimit(resource.RLIMIT_AS, (1 << 28, 1 << 28))))
                self.assertEqual((os.listdir(outside), read_text(victim)), (["onconfig"], "kept"))
        self.setUp()
        self.write("etc/onconfig", b"BAR_BSALIB_PATH /x\033]0;\xc2\x9b\x9b\xe2\x80\xae\xc3\xa4\n")
        self.write("etc/xbsa.logrotate", "/x { postrotate\nevil\nendscript }\n")
        os.mkdir(self.path("\u009b"), 0o700)
        library = shutil.copy(LIBRARY, self.path("\u009b"))
        out = self.setup("--yes", "--library", library)
        self.assertIn("? is not open to every account", out)
        self.assertIn("  - BAR_BSALIB_PATH /x?]0;???\u00e4\n", out)
        rotation = self.setup("--logrotate")
        self.assertRegex(rotation, f'"{self.folder}/xbsa\\*.log" {{\n +su [\\w-]+ [\\w-]+\n')
        self.assertEqual(("xbsa.logrotate" in out, "evil" in rotation), (False, False))

    def test_there_and_back(self):
        self.write("etc/onconfig.before-xbsa", "another copy")
        self.before = self.tree()
        self.assertIn("Nothing was", tool("setup", env={"INFORMIXDIR": self.folder}).stdout)
        self.setup(input="y\n")
        tree = self.tree()
        library, (*owner, text) = tree["lib/ibsad001.so"][3], tree["etc/onconfig"]
        self.assertTrue(os.path.isabs(library) and os.path.samefile(library, LIBRARY))
        active = re.findall(r"^\s*(bar_\w+)\s+(.*)", text, re.I | re.M)
        self.assertEqual(active, [("BAR_BSALIB_PATH", library), ("BAR_XFER_BUF_SIZE", "31")])
        self.assertIn("\n#xbsa# bar_bsalib_path\t/old.so # mine\n", text)
        self.assertEqual((*owner,), self.before["etc/onconfig"][:3])
        self.assertEqual([tree["etc/" + name][3] for name in ("sm_versions", "onconfig.before-xbsa")],
                         [ROWS * 400 + "1|1.0.1|KORVA|1.8A1|\n", "another copy"])
        self.refuse("Nothing to change", "--yes", want=0)
        self.refuse("", "--undo", want=1)
        self.undo()
        self.setup("--yes")  # as after a killed run
        os.replace(self.path("etc/onconfig.before-xbsa.2"), self.path("etc/onconfig"))
        os.unlink(self.path("lib/ibsad001.so"))
        self.setup("--yes")
        self.assertEqual(set(self.tree()), set(tree))
        self.undo()
        self.write("etc/sm_versions", row := "7|1.0.1|KORVA|1.8A1\n")  # our row with another number
        self.assertNotIn("sm_versions", self.setup("--yes"))
        self.assertEqual(self.tree()["etc/sm_versions"][3], row)

    def test_edited_since(self):
        self.setup("--yes")
        ours = self.tree()["etc/onconfig"][3]
        for text, refusal in [(ours.replace("SIZE 31", "SIZE 99"), "were edited since"),
                              (ours + "BAR_BSALIB_PATH /newer.so\n", "was set again"),
                              ("#xbsa# BAR_BSALIB_PATH /old.so\n", "were edited since")]:
            self.write("etc/onconfig", text, 0o640)
            self.refuse(refusal, "--undo", "--yes")
        fitted = "PHYSFILE 1\n" + ours.replace("SIZE 31", "SIZE 15")  # as its comment suggests
        self.write("etc/onconfig", fitted, 0o640)
        for options, text in ((), fitted), (("--undo",), "PHYSFILE 1\n" + ONCONFIG):
            self.setup("--yes", *options)
            self.assertEqual(self.tree()["etc/onconfig"][3], text)
        self.assertNotIn("lib/ibsad001.so", self.tree())
        self.write("etc/onconfig", ONCONFIG, 0o640)
        self.assertIn("check --informix --informixdir", out := self.setup("--yes"))
        self.assertIn("--onconfig 'onconfig'\n", out)
        ours, library = self.tree()["etc/onconfig"][3], self.tree()["lib/ibsad001.so"][3]
        self.write("etc/onconfig", ours.replace(library, "/my.so"), 0o640)
        self.assertIn('"BAR_BSALIB_PATH /my.so" was edited since, and is kept', self.setup("--undo", "--yes"))
        self.assertEqual(self.tree()["etc/onconfig"][3], ONCONFIG.replace(
            "bar_bsa", "# bar_bsa") + "BAR_BSALIB_PATH /my.so\n")

    def test_damaged_journal(self):
        self.setup("--yes")
        whole = self.tree()["etc/xbsa-setup.json"][3]
        for size in range(0, len(whole) - 1, 100):  # without the last line end it is whole
            self.write("etc/xbsa-setup.json", whole[:size])
            self.assertNotIn("json.exception", self.refuse("before-xbsa", "--undo", "--yes"))

    def test_two_servers(self):
        """Rows that two onconfigs share stay until the second is undone, also after a move."""
        self.write("etc/other", ONCONFIG)
        self.before = self.tree()
        moved = shutil.copy(LIBRARY, self.path("moved.so"))
        self.setup("--yes")
        self.environment["ONCONFIG"] = "other"
        self.setup("--yes", "--library", moved)
        self.setup("--undo", "--yes")
        self.assertEqual(self.tree()["lib/ibsad001.so"][3], moved)
        self.assertEqual(self.tree()["etc/other"], self.before["etc/other"])
        self.setup("--onconfig", "onconfig", "--undo", "--yes")
        os.unlink(moved)
        self.assertEqual(self.tree(), self.before)


class AsRoot(Folder):
    """Root acts as the account that owns the directory, permanently."""

    def setUp(self):
        super().setUp()
        self.library = shutil.copy(LIBRARY, self.path("own.so"))
        os.chmod(self.folder, 0o755)
        for name in self.names():
            os.chown(self.path(name), OTHER, OTHER)
        self.victim = os.path.join(make_folder(self), "sudoers")
        write_plain(self.victim, "root's", 0o400)

    def hook(self, *arguments, **options):
        return self.setup("--library", self.library, "--yes", *arguments, **options)

    def test_owner(self):
        self.before = self.tree()
        self.assertIn(f"# As {OTHER}, who owns {self.path('etc/onconfig')}\n", self.hook())
        self.assertEqual({entry[1:3] for entry in self.tree().values()}, {(OTHER, OTHER)})
        self.undo("--library", self.library)
        for name, text in (("etc/sm_versions", "give it the onconfig's owner"),
                           ("etc/onconfig", "others may write to its directory")):
            os.chown(self.path(name), 0, 0)
            self.refuse(text, "--library", self.library, "--yes")
            os.chown(self.path(name), OTHER, OTHER)
        os.chown(self.path("etc"), 0, 0)
        self.refuse("this account may not write there: run setup as", "--library", self.library, "--yes")
        os.chown(self.path("etc"), OTHER, OTHER)
        os.chown(self.path("lib"), 0, 0)
        self.assertIn("No link in", self.hook())
        os.chmod(self.path("etc"), 0o1777)  # where others can create a journal and copies
        os.chown(self.path("etc/xbsa-setup.json"), OTHER + 1, OTHER)
        self.assertIn(f"to another account ({OTHER + 1})", self.hook("--undo", want=6))

    def test_way(self):
        nobody = pwd.getpwnam("nobody").pw_uid
        os.symlink(self.folder, self.path("lib/link"))
        os.chown(self.path("lib/link"), OTHER, OTHER, follow_symlinks=False)
        os.mkdir(self.path("lib/roots"))
        for folder, option, mode, text in (
                ("lib/link", "--yes", 0o755, "is a link that belongs to account 12345"),
                ("lib/link", "--logrotate", 0o755, "lib belongs to account 12345"),
                ("lib/roots", "--logrotate", 0o755, "lib belongs to account 12345"),
                ("etc", "--logrotate", 0o777, f"others may write to {self.folder}"),
                ("", "--yes", 0o755, "but nobody is not a member")):
            os.chown(self.path("etc/onconfig"), OTHER if folder else nobody, OTHER)
            os.chmod(self.folder, mode)
            self.refuse(text, option, folder=self.path(folder))
        os.chown(self.path("etc"), nobody, 0)
        _ = os.symlink(".", self.path("one")), os.symlink("one", self.path("two"))
        self.assertRegex(self.setup("--logrotate", folder=self.path("two/etc")), "su nobody nogroup\n")

    def test_links(self):
        """Other accounts' links are refused wherever a file is written; ours are followed. In a directory
        that others may write, their files and directories are refused, too."""
        os.mkdir(folder := self.path("shared"))
        env, host = dict(XBSA_PASSWORD="x", PATH="/bin"), ["--host", "127.0.0.1:1", "--user", "x"]
        for row in rows("owner planted mode", (OTHER, "link", 0o1777), (OTHER, "folder", 0o1777),
                        *((OTHER, "file", mode) for mode in (0o1777, 0o777, 0o1775)),
                        (OTHER, "real", 0o1777), (0, "link", 0o1777)):
            os.chmod(folder, row.mode)
            path = os.path.join(folder, row.planted)
            if row.planted == "file":
                write_plain(path, "")
            elif row.planted == "real":
                os.mkdir(path)
                write_plain(f"{path}/sudoers", "")
            else:
                os.symlink(os.path.dirname(self.victim) if row.planted == "folder" else self.victim, path)
            os.chown(path, row.owner, row.owner, follow_symlinks=False)
            path += "/sudoers" if row.planted in ("folder", "real") else ""
            for line in (["restore", "x", path, *host], ["store", "x", "--manifest", path, *host],
                         ["store", "x", "--status", path, *host],
                         ["trace", "/dev/null", "--html", path]):
                with self.subTest(row, line=line):
                    before, got = state(path), tool(*line, env=env)
                    self.assertEqual("to another account (12345)" in got.stderr, row.owner == OTHER, got)
                    self.assertEqual((state(path), "<html" in read(self.victim)),
                                     (before, line[0] == "trace" and row.owner == 0))
                    write_plain(self.victim, "root's", 0o400)
            subprocess.run(["rm", "-r", os.path.join(folder, row.planted)], check=True)
