"""Random calls in random order against a model of the calling order and of the stored data."""
import ctypes as c
import os
import random
import re
import select
import unittest
from functools import partialmethod

from server import Hangup, Server
from utility import Utility, answers, need_private_etc, start
from xbsa import SANITIZED, Block, descriptor, run

SEED = int(os.environ.get("XBSA_SEED", "1"))
SEQUENCES = int(os.environ.get("XBSA_SEQUENCES", "200" if SANITIZED else "1000"))
PIECE = 40  # sequences in one process
NAMES = [b"one", b"two", b"large"]
BYTES = random.Random(0).randbytes(99991)
LARGE = BYTES * 100  # more than the system takes on the way
# What a connection meets, and where the transfer fails.
POLITE, OPEN, END = "polite", "open", "end"
FATES = [({}, POLITE)] * 9 + [
    ({"GREETING": ["close"]}, OPEN), ({"CWD": ["550 no"]}, OPEN), ({"PORT": ["500 no"]}, OPEN),
    ({"STOR": ["452 full"], "RETR": ["550 none"]}, OPEN), ({"PASS": ["reset"]}, OPEN),
    ({"STOR": ["150 go", "close"], "RETR": ["150 go", "150 on", "close"]}, OPEN),
    ({"END": ["426 cut"]}, END), ({"END": ["250 not quite"]}, END), ({"END": ["close"]}, END),
    ({"END": [b"226 hal", "close"]}, END)]
CALLS = (["begin"] * 5 + ["create"] * 4 + ["get"] * 4 + ["send"] * 8 + ["read"] * 8 + ["end"] * 4
         + ["commit"] * 3 + ["query"])
BEGIN, CREATE, ENDED, GET = 1, 2, 8, 0x200
FAILED, ORDER, HANDLE, NULL = 3, 5, 6, 22


def piece(start, size):
    """Of the bytes that are sent over and over."""
    start %= len(BYTES)
    return (BYTES + BYTES)[start:start + size]


class Model:
    """What the library promises; each method gives the code of the call of that name."""

    def __init__(self, fates, informix, strict):
        self.fates, self.informix, self.strict = iter(fates), informix, strict
        self.bits = self.status = 0
        self.fate = self.name = None
        self.sent, self.stored, self.moved, self.closes = b"", {"large": LARGE}, 0, []
        self.job = self.loose = False
        self._forget()

    def _forget(self):
        self.open = self.cut = None  # verb of the open transfer; what cut the one before
        self.rejected = self.broken = False

    def _enter(self, bit, wrong):
        code = ORDER if self.bits & bit else HANDLE if wrong else 0
        self.bits |= bit
        return code

    def _close_job(self, direction):
        self.closes += [(direction, self.status)] if self.informix and self.job else []
        self.job &= not self.strict

    def begin(self, wrong, _):
        self.status = 0
        return self._enter(BEGIN, wrong)

    def commit(self, wrong, _):
        code = HANDLE if wrong else 0 if self.bits & BEGIN else ORDER
        self.bits = 0
        if self.strict and (self.open or self.cut):
            self._forget()
            self.cut = "end"
        return code

    def query(self, _wrong, _):
        return ORDER  # the next result, of a query that was never made

    def object(self, verb, wrong, name):
        self.job = False
        code = self._enter(CREATE if verb == "STOR" else GET, wrong)
        code = code or (NULL if name is None else 0)
        if code == 0:
            cut = (verb, self.open, self.bits & CREATE) == ("RETR", "STOR", CREATE)
            self._forget()
            self.cut, self.loose, self.job = "restore" if cut else None, False, True
            self.fate, self.name = next(self.fates), "ABC" if self.informix else name.decode()
            self.sent, self.moved = b"", 0
            if self.fate == OPEN:
                code = self.status = FAILED
                self._close_job("-b" if verb == "STOR" else "-r")
            else:
                self.open = verb
        self.status = FAILED if code else self.status
        return code

    create = partialmethod(object, "STOR")
    get = partialmethod(object, "RETR")

    def _block(self, wrong, size, against):
        against = ORDER if self.strict and against else 0
        code = HANDLE if wrong else NULL if size is None else against
        self.status = FAILED if code == HANDLE else self.status
        return code

    def send(self, wrong, size):
        code = self._block(wrong, size, self.open == "RETR" or self.cut == "restore")
        self.rejected |= self.strict and code != 0
        if code == 0 and self.open == "STOR":
            self.sent += piece(len(self.sent), size)
        return code

    def read(self, wrong, size):
        code = self._block(wrong, size, self.open == "STOR")
        if code == 0 and not self.open and size > 0:
            code = self.status = FAILED
            self.broken |= self.strict
        return code

    def ends_soon(self, call):
        """Of a call that is to move bytes. By default one against the direction waits for ever; a
        send on no connection is tried again for five seconds; what a rejected end leaves depends on
        how fast the server was."""
        verb = "STOR" if call == "send" else "RETR"
        if self.open:
            return self.open == verb or self.strict
        return self.strict and self.cut == "restore" if call == "send" else not self.loose

    def end(self, wrong, _):
        data = order = self._enter(ENDED, wrong)
        backup = self.bits & CREATE or self.cut
        incomplete = self.rejected or self.broken
        if order == 0:
            data = FAILED if self.cut or not self.open or self.fate == END else 0
            if self.open == "STOR" and not incomplete:
                self.stored[self.name] = self.sent
        self.status = FAILED if data or incomplete else 0
        code, bits = data if backup else 0, self.bits & (CREATE | GET)
        if bits:
            self._close_job("-b" if bits & CREATE else "-r")
            code = 0 if self.informix else code  # the job's good close stands in its place
        if self.cut or (self.strict and bits and (data or incomplete)):
            code = FAILED
        self.loose = order != 0 and (self.loose or self.open is not None)
        self._forget()
        return FAILED if code else 0


def steps(chance):
    """Of one sequence: call, wrong handle, argument."""
    for call in chance.choices(CALLS, k=chance.randint(3, 16)):
        argument = chance.choice(NAMES) if call in ("create", "get") else chance.choice(
            [0, 1, chance.randint(0, 999), chance.randint(0, 65535), 65535])
        yield call, chance.random() < 0.04, None if chance.random() < 0.04 else argument


def invoke(x, call, handle, argument, room):
    if call in ("send", "read"):
        block = Block(argument or 0, 0, c.addressof(room))
        function = x.BSASendData if call == "send" else x.BSAGetData
        return function(handle, None if argument is None else c.byref(block)), block.numBytes
    if call in ("create", "get"):
        function = x.BSACreateObject if call == "create" else x.BSAGetObject
        made = None if argument is None else c.byref(descriptor(name=argument))
        return function(handle, made, None), 0
    return {"begin": lambda: x.BSABeginTxn(handle), "end": lambda: x.BSAEndData(handle),
            "commit": lambda: x.BSAEndTxn(handle, 1),
            "query": lambda: x.BSAGetNextQueryObject(handle, None)}[call](), 0


def play(x, server, seed, fates, informix, strict):
    """One piece; what should be stored, and the closes that the utility should have heard of."""
    _ = start(x) if informix else x.start(server)
    chance, model, done = random.Random(seed), Model(fates, informix, strict), []
    room = c.create_string_buffer(65536)
    calls = [step for _ in range(PIECE) for step in steps(chance)]
    for call, wrong, argument in calls + [("commit", False, None), ("end", False, None)]:
        if call in ("send", "read") and argument and not model.ends_soon(call):
            argument = 0
        if call == "send" and argument:
            c.memmove(room, piece(len(model.sent), argument), argument)
        telling = call in ("create", "get") or (call == "end" and (model.open or model.cut)
                                                and not wrong
                                                and not model.bits & ENDED)
        done.append((call, wrong, argument, model.open, model.cut, model.bits))
        left = memoryview(model.stored.get(model.name, b""))[model.moved:]
        moves = call == "read" and model.open == "RETR"
        want = getattr(model, call)(wrong, argument)
        code, count = invoke(x, call, x.handle.value + wrong, argument, room)
        assert code == want, (code, want, done[-12:])
        if moves and code == 0:
            assert room.raw[:count] == left[:argument], (count, len(left), done[-12:])
            model.moved += count
        assert x.state.sSession.SData == -1 or model.cut != "end", ("still shown", done[-12:])
        message = x.last_error()
        assert message or code != FAILED or not telling, ("no last message", done[-12:])
    return model.stored, model.closes


class Watchful(Server):
    """Gives a store up when the client says something meanwhile: no end takes its second."""

    def _receive(self):
        parts, part = [], b"first"
        while part:
            if self.data not in select.select([self.data, self.control], [], [])[0]:
                raise Hangup
            try:
                part = self.data.recv(1 << 20)
            except OSError:  # a reset, or what a reset leaves
                return "RST"
            parts.append(part)
        self.objects[self.name] = b"".join(parts)
        return "FIN"


class Plain(unittest.TestCase):
    informix, share = False, 1

    def make(self, server):
        """What a run needs beside the server; returns what tells the closes of jobs."""
        del server
        return list

    def test_sequences(self):
        for seed in range(SEED, SEED + max(1, SEQUENCES // PIECE // self.share)):
            chance = random.Random(-seed)
            fates = [chance.choice(FATES) for _ in range(PIECE * 16)]
            server, strict = Watchful(*(script for script, _ in fates)), seed % 2
            server.objects["large"] = LARGE
            closes = self.make(server)
            with self.subTest(f"XBSA_SEED={seed} XBSA_SEQUENCES={PIECE * self.share}"):
                got = run(play, server, seed, [fate for _, fate in fates], self.informix,
                          bool(strict), server=server, level=None,
                          env={"KORVA_STRICT": str(strict)})
                self.assertEqual(got.value[1], closes())
                self.assertEqual(got.value[0], server.objects)


class Informix(Plain):
    informix, share = True, 16

    @classmethod
    def setUpClass(cls):
        need_private_etc()

    def make(self, server):
        utility = Utility(self, answers(server.port, drive="/d"))
        return lambda: [(words.split()[0], int(words.split()[-1])) for words in utility.arguments()
                        if re.match("-[br] closejob:", words)]
