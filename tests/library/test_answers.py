"""The COM utility at its worst: its answers cut, flooded, hostile or missing."""
import os
import unittest

from server import Server
from utility import Utility, answers, need_private_etc, start
from xbsa import SANITIZED, STRICT, run, write_plain

setUpModule = need_private_etc  # pylint: disable=invalid-name
STRIDE = 1 if os.environ.get("XBSA_TORTURE") == "all" else 13 if SANITIZED else 5
HEAD, OPENED, REFUSED = b"reply=OK\n", [0, 0, 0], [3]
ANY = None  # a success or a clear failure; what decides is in the value

# Answers from the file of its verb, and then does what another file says.
SCRIPT = r"""#!/bin/sh
verb=${2%%:*}
cat "FOLDER/$verb"
. "FOLDER/$verb.then"
exit 0
"""

# The answer of the job's open, made of the good one, and what a strict store gives.
ANSWERS = [("no newline at the end", lambda good: good.rstrip(b"\n"), OPENED),
    ("CR alone", lambda good: good.replace(b"\n", b"\r"), OPENED),
    ("empty lines", lambda good: good.replace(b"\n", b"\n\n\n"), OPENED),
    ("all twice", lambda good: good + good[len(HEAD):], OPENED),
    ("the last value counts", lambda good: good + b"savesetname=DEF\n", OPENED),
    ("refused at the end", lambda good: good + b"reply=ERROR\n", REFUSED),
    ("a NUL in front", lambda good: b"\0" + good, REFUSED),
    ("a NUL in the reply", lambda good: good.replace(b"OK", b"O\0K"), REFUSED),
    ("a NUL behind all", lambda good: good + b"\0reply=ERROR\n", OPENED),
    ("NULs for newlines", lambda good: good.replace(b"\n", b"\0"), OPENED),
    ("bytes above 127", lambda good: good + bytes(range(128, 256)) + b"\n", OPENED),
    ("bytes above 127 in front", lambda good: bytes(range(128, 256)) + b"\n" + good, OPENED),
    ("formats", lambda good: good + b"message=%s%n%n%s\n%s%n=%n\n", OPENED),
    ("one long line in front", lambda good: b"x" * 20000 + b"\n" + good, OPENED),
    ("a flood of lines behind", lambda good: good + b"lifetime=1\n" * 100000, OPENED),
    ("a flood behind", lambda good: good + b"x" * 1000000, OPENED),
    ("a flood of NULs", lambda good: b"\0" * 1000000, REFUSED),
    ("a flood alone", lambda good: b"x" * 1000000, REFUSED),
    ("keys without values", lambda good: good + b"savesetname=\ntape_server=\ntape\n=\n", OPENED),
    ("a control character in the folder", lambda good: good + b"drive=/d\x01\n", REFUSED),
    ("one in the saveset", lambda good: good + b"savesetname=a\x01b\n", REFUSED),
    ("one in the password", lambda good: good.replace(b"geheim", b"\x7f"), REFUSED),
    ("one in the job's name, which no server hears", lambda good: good + b"jobname=\x01\n", OPENED)]
# What the utility does after its good answer: nothing of it changes what was answered.
THENS = ["exit 1", "exit 127", "exit 255", "kill -9 $$", "kill -TERM $$", "exec >&- 2>&-",
         "echo on and on; exit 3", "sleep 0.2"]
VERBS = "open", "openjob", "closejob", "close"


def store_each(x, folder, changes):
    start(x)
    found = []
    for files in changes:
        for name, text in files.items():
            write_plain(os.path.join(folder, name), text)
        found.append((x.store(), x.last_error()))
    return found


class Answers(unittest.TestCase):
    def setUp(self):
        self.server, self.utility = Server(), Utility(self, None, SCRIPT)
        self.files = {verb + ".then": b"" for verb in VERBS} | dict.fromkeys(VERBS, HEAD) | answers(
            self.server.port, drive="/d")
        self.good = self.files["openjob"]

    def check(self, rows, changes):
        got = run(store_each, self.utility.folder, [self.files | each for each in changes + [{}]],
                  server=self.server, env=STRICT).value
        self.assertEqual(got.pop(), (OPENED, ""))
        for (name, want), (codes, message) in zip(rows, got):
            with self.subTest(name):
                self.assertIn(codes, (OPENED, REFUSED) if want is ANY else (want,))
                self.assertEqual(bool(message), codes != OPENED, message)

    def test_answers(self):
        self.check([(name, want) for name, _, want in ANSWERS],
                   [{"openjob": change(self.good)} for _, change, _ in ANSWERS])
        for name in self.server.objects:  # ten digits: of an answer without a name, by the time
            self.assertRegex(name, r"^(ABC|DEF|\d{10})$")

    def test_cut(self):
        """At every byte: a refusal until the login is whole, never another object's name."""
        cuts = [self.good[:size] for size in range(0, len(self.good), STRIDE)]
        self.check([(cut, ANY) for cut in cuts], [{"openjob": cut} for cut in cuts])
        logins = {tuple(lines[:2]) for lines in self.server.heard if lines}
        self.assertLessEqual({user for user, _ in logins}, {"USER user", "USER sms"})

    def test_ends(self):
        self.check([(then, OPENED) for then in THENS],
                   [{verb + ".then": then.encode() for verb in VERBS} for then in THENS])
