"""A server at its worst: every code at every step, a cut at every byte, odd replies."""
import itertools
import os
import re
import time
import unittest

from server import POLITE, Server
from xbsa import SANITIZED, pattern, rows, run

ALL = os.environ.get("XBSA_TORTURE") == "all"
STRIDE = 1 if ALL else 11 if SANITIZED else 5  # between the bytes where something is cut
GOOD = {"GREETING": "220", "USER": "331", "PASS": "230", "TYPE": "200", "CWD": "250", "PORT": "200",
        "STOR": "150", "END": "226", "QUIT": "221"}
STEPS = list(GOOD)
OBJECT = pattern(300)
CODES = """000 100 110 125 150 199 200 220 221 226 230 250 299 331 350 399 400 421 425 426 450 499
           500 502 530 550 553 599 600 999 abc 2x0 22 2""".split() + ["", " ", "-"]
# The texts that work at a step; at other steps all but an empty greeting.
NEEDED = {"CWD": lambda text: text[:1] not in ("4", "5"), "PORT": lambda text: text[:3] == "200",
          "STOR": lambda text: text[:3] == "150", "END": lambda text: text[:3] == "226", "GREETING": bool}
# Shapes of a reply, made from its good line: all steps accept them, or only the named ones.
TAKEN, CARELESS = set(STEPS), {"GREETING", "USER", "PASS", "TYPE", "CWD", "QUIT"}
SHAPES = [("byte after byte", lambda line: [bytes([byte]) for byte in line + b"\r\n"], TAKEN),
    ("CR CR", lambda line: [line + b"\r\r\n"], TAKEN),
    ("in two, late, no CR", lambda line: [line[:2], lambda s: time.sleep(0.03), line[2:] + b"\n"], TAKEN),
    ("NULs in it", lambda line: [line[:3] + b"\0" * 9 + line[3:] + b"\0\r\n"], TAKEN),
    ("formats, bytes above 127", lambda line: [line + b" %s%n%s%d%n" + bytes(range(128, 256)) + b"\r\n"], TAKEN),
    ("long", lambda line: [line + b"x" * 1000 + b"\r\n"], TAKEN),
    ("NULs before it", lambda line: [b"\0" * 9 + line + b"\r\n"], CARELESS - {"GREETING"}),
    ("0xff before it", lambda line: [b"\xff" + line + b"\r\n"], CARELESS),
    ("flood of lines", lambda line: [line + b"\r\n" + b"999 on\r\n" * 5000], {"END", "QUIT"}),
    ("flood of NULs", lambda line: [b"\0" * 60000], {"QUIT"}),
    ("positive lines", lambda line: [line + b"\r\n" + b"200 on\r\n" * 5000], {"END", "QUIT"})]
# The step that fails when the connection ends at a step, and the last command sent before.
# If replies are unread, the client's close is a reset, which drops unsent data: the server receives a
# part of it. In strict mode the peer of a reset connection is unknown.
OR_BEFORE, AND_QUIT, BY_DEFAULT = " or before", " and QUIT", " by default"
FAILS = {step: step for step in STEPS} | {"QUIT": None}
LAST = {step: step for step in STEPS} | {"GREETING": "", "END": "STOR"}
BROKEN = rows("actions fails last", (lambda step: ["close"], FAILS, LAST),
    (lambda step: ["reset"], FAILS | {"END": "END" + OR_BEFORE}, LAST),
    (lambda step: [b"250 hal", "close"], FAILS, LAST),
    (lambda step: [b"x" * 10000], FAILS | dict.fromkeys(STEPS[:6], "PORT"),
     dict.fromkeys(STEPS[:6], "PORT" + OR_BEFORE) | {"STOR": "STOR" + OR_BEFORE, "END": "QUIT", "QUIT": "QUIT"}),
    # read whole at login, and in strict mode when the data connection opens; else only the first line
    (lambda step: [GOOD[step] + "-first", " middle", GOOD[step] + " last"] + POLITE[step][1:],
     dict.fromkeys(STEPS) | {"GREETING": "STOR", "PORT": "STOR", "STOR": "END" + BY_DEFAULT},
     dict.fromkeys(STEPS, "QUIT") | dict.fromkeys(("GREETING", "PORT"), "STOR" + OR_BEFORE)))
JOINED = b"".join(b"%s x\r\n" % GOOD[step].encode() for step in STEPS[:7])
# Whole scripts, and the step at which the transaction fails.
SCRIPTS = rows("script fails",
    ({"GREETING": [JOINED]} | dict.fromkeys(["USER", "PASS", "TYPE", "CWD", "PORT"], [])
     | {"STOR": ["connect"]}, None),
    ({"END": [b"226 done\r\n221 bye\r\n"], "QUIT": ["close"]}, None),
    ({"STOR": [b"150 go\r\n226 early\r\n", "connect"], "END": []}, None),
    ({"STOR": ["150-go", "mid dle", "mid", "226-not", "1500 not", "connect", "150 on"]}, None),
    *(({"STOR": [b"150 go\r\n" + more, end]}, "STOR") for end in ("close", "reset")
      for more in (b"226 early\r\n", b"x", b"999\r\n" * 5000)))


class Torturer(Server):
    """Ends the control connection (how: close or reset) after sending so many bytes."""
    left = how = None

    def cut(self, left, how):
        self.left, self.how = left, how
        self._say(b"")

    def _say(self, text):
        part = text[:self.left]
        super()._say(part)
        self.left = None if self.left is None else self.left - len(part)
        if self.left == 0:
            self.left = None
            self._play([self.how])

    def move(self, size, how):
        if self.verb == "RETR":
            self.data.sendall(OBJECT[:size])
        while self.verb == "STOR" and size > 0:
            size -= len(self.data.recv(size))
        self._play([how] if how == "reset_data" else [])
        self._close_data()


def transact(x, server, verb, count):
    x.start(server, b"BSA_TIMEOUT=20")
    return [(*((x.store(OBJECT), OBJECT) if verb == "STOR" else x.restore()), x.last_error())
            for _ in range(count + 1)]


def commands(verb, last):
    order = ["USER", "PASS", "TYPE", "CWD", "PORT", verb, "QUIT"]
    name = re.match(r"\w*", last)[0].replace("STOR", verb)
    return order[:order.index(name) + 1 if name else 0] + ["QUIT"] * last.endswith((OR_BEFORE, AND_QUIT))


class Torture(unittest.TestCase):
    def check(self, table, modes="1"):
        """Rows of a script, the step at which it fails, the bytes of a restore, and the last command; in both
        directions, in one session. The end of a restore counts in strict mode only."""
        for strict, verb in itertools.product(modes, ("STOR", "RETR")):
            scripts = [{step.replace("STOR", verb): actions for step, actions in row[0].items()}
                       for row in table]
            server = Torturer(*scripts, objects={"obj": OBJECT})
            found = run(transact, server, verb, len(table), server=server, env={"KORVA_STRICT": strict}).value
            self.assertEqual(found.pop(), ([0, 0, 0], OBJECT, ""))
            for (script, fails, moved, *last), (codes, data, message), heard in zip(
                    table, found, server.verbs()):
                with self.subTest(verb=verb, strict=strict, script=str(script)[:80], fails=fails):
                    step, before = (fails or "").removesuffix(OR_BEFORE), str(fails).endswith(OR_BEFORE)
                    if step.endswith(BY_DEFAULT):
                        step = "" if strict == "1" else "END"
                    if not before:
                        self.assertEqual(codes[0], 0 if step in ("", "END") else 3, message)
                    if step != "QUIT" or verb == "STOR":
                        unseen = step == "END" and strict == "0" and verb == "RETR"
                        self.assertEqual(codes[-1], 0 if step in ("", "QUIT") or unseen else 3, message)
                    self.assertTrue(message or max(codes) == 0, "no last message")
                    if verb == "RETR" and codes[0] == 0:
                        self.assertEqual(data, moved)
                    if last:
                        heard, words = heard.split(), commands(verb, last[0])
                        few = len(heard) if last[0].endswith(OR_BEFORE) else len(words)
                        self.assertEqual(heard, words[:few])

    def test_codes(self):
        table = []
        for step, code in itertools.product(STEPS, CODES):
            line = code + " x" if code else ""
            good = NEEDED.get(step, lambda text: True)(line)
            rest = POLITE[step][1:] if step != "STOR" or good else []
            last = {"GREETING": "", "END": "QUIT"}.get(step, step + AND_QUIT)
            table.append(({step: [line] + rest}, *((None, OBJECT, "QUIT") if good else (step, OBJECT, last))))
        self.check(table, "01")

    def test_broken(self):
        self.check([({step: row.actions(step)}, row.fails[step], OBJECT, row.last[step])
                    for row in BROKEN for step in STEPS], "01")

    def test_shapes(self):
        self.check([({step: shape(GOOD[step].encode() + b" ok") + POLITE[step][1:]},
                     None if step in good else "END" if name.endswith("lines") and step == "STOR"
                     else "PORT" if step != "END" else "END", OBJECT)
                    for name, shape, good in SHAPES for step in STEPS])

    def test_scripts(self):
        self.check([(*row, b"" if row.fails else OBJECT) for row in SCRIPTS])

    def test_control_cut(self):
        """An unfinished line is not a reply, however long it is."""
        script = {"STOR": ["150 opening ", "connect"], "RETR": ["150 opening ", "connect"]}
        sizes = [len((POLITE | script)[step][0]) + 2 for step in STEPS]
        ends, table = dict(zip(STEPS, itertools.accumulate(sizes))), []
        for left, how in itertools.product(range(0, sum(sizes) + 1, STRIDE), ("close", "reset")):
            step = next((step for step in STEPS[:-1] if left < ends[step]), None)
            # in between, the data connection may or may not come, and nothing confirms the object
            step = "STOR" if left == ends["STOR"] else step
            if how == "reset" and left > ends["STOR"]:
                step = ("END" if step else "QUIT") + OR_BEFORE
            begin = [lambda s, left=left, how=how: s.cut(left, how)] + POLITE["GREETING"]
            table.append((script | {"GREETING": begin}, step, OBJECT))
        self.check(table)

    def test_data_cut(self):
        self.check([({"DATA": [lambda s, size=size, how=how: s.move(size, how)],
                      "END": ["426 cut"]}, "END", OBJECT[:size])
                    for size in range(0, 301, STRIDE) for how in ("close", "reset_data")])
