"""Random calls in random order: a success is correct, and a failure gives a reason."""
import ctypes as c
import os
import random
import select
import unittest

from server import Hangup, Server
from utility import Utility, answers, start
from xbsa import SANITIZED, Block, descriptor, run

SEED = int(os.environ.get("XBSA_SEED", "1"))
SEQUENCES = int(os.environ.get("XBSA_SEQUENCES", "200" if SANITIZED else "1000"))
PIECE = 40  # sequences in one process
BYTES = random.Random(0).randbytes(99991) * 2
LARGE = BYTES * 50  # more than the system buffers
# Oddities of a connection; most have none.
FATES = [{}] * 9 + [{"GREETING": ["close"]}, {"CWD": ["550 no"]}, {"PORT": ["500 no"]}, {"PASS": ["reset"]},
    {"STOR": ["452 full"], "RETR": ["550 none"]},
    {"STOR": ["150 go", "close"], "RETR": ["150 go", "150 on", "close"]}, {"END": ["426 cut"]},
    {"END": ["250 not quite"]}, {"END": ["close"]}, {"END": [b"226 hal", "close"]}]
CALLS = (["begin"] * 5 + ["create"] * 4 + ["get"] * 4 + ["send"] * 8 + ["read"] * 8 + ["end"] * 4
         + ["commit"] * 3 + ["query"])


class Player:

    def __init__(self, x, seed, informix, strict):
        self.x, self.chance, self.informix, self.strict = x, random.Random(seed), informix, strict
        self.promised, self.room = {"large": LARGE}, c.create_string_buffer(65536)
        self.open = self.name = None  # the verb of the transfer, and its object
        self.moved, self.clean = 0, False  # its bytes so far; no send in it was refused
        self.ended = False  # since the last commit

    def object(self, handle, verb, call):
        self.give_up()
        name = self.chance.choice(["one", "two", "large"])
        made = c.byref(descriptor(name=name.encode())) if self.chance.random() > 0.04 else None
        code = call(handle, made, None)
        assert self.x.last_error() or code != 3, "no last message"
        self.open, self.name = verb if code == 0 else None, "ABC" if self.informix else name
        self.moved, self.clean = 0, True
        return code

    def give_up(self):
        """A store without its end may leave anything."""
        if self.open == "STOR":
            self.promised.pop(self.name, None)
        self.open = None

    def block(self, handle, verb, call):
        """By default a call in the wrong direction waits for ever, one without a connection for seconds."""
        block, at = Block(0, 0, c.addressof(self.room)), self.moved % 99991
        if self.open == verb or (self.strict and self.open):
            block.bufferLen = self.chance.choice([0, 1, self.chance.randint(0, 65535), 65535])
        if verb == "STOR":
            c.memmove(self.room, BYTES[at:at + block.bufferLen], block.bufferLen)
        code = call(handle, c.byref(block) if self.chance.random() > 0.04 else None)
        self.clean &= code == 0 or verb == "RETR"  # a rejected read loses nothing
        if code == 0 and self.open == verb == "RETR" and self.name in self.promised:
            want = self.promised[self.name][self.moved:self.moved + block.bufferLen]
            assert want.startswith(self.room.raw[:block.numBytes]), "wrong bytes"
        if code == 0 and self.open == verb:
            self.moved += block.bufferLen if verb == "STOR" else block.numBytes
        return code

    def end(self, handle):
        code, verb, name = self.x.BSAEndData(handle), self.open, self.name
        first, self.ended = not self.ended and handle == self.x.handle.value, True
        self.give_up()
        assert self.x.last_error() or code != 3 or not (verb and first), "no last message"
        assert code or not self.strict or self.clean or not verb, "half an object passes for a whole one"
        # by default, in Informix mode only the utility learns what failed
        if verb == "STOR" and code == 0 and self.clean and (self.strict or not self.informix):
            self.promised[name] = (BYTES * (1 + self.moved // len(BYTES)))[:self.moved]
        return code

    def commit(self, handle):
        self.give_up()
        self.ended = False
        return self.x.BSAEndTxn(handle, 1)

    def call(self, name, handle):
        x = self.x
        return {"begin": x.BSABeginTxn, "query": lambda handle: x.BSAGetNextQueryObject(handle, None),
                "create": lambda handle: self.object(handle, "STOR", x.BSACreateObject),
                "get": lambda handle: self.object(handle, "RETR", x.BSAGetObject),
                "send": lambda handle: self.block(handle, "STOR", x.BSASendData),
                "read": lambda handle: self.block(handle, "RETR", x.BSAGetData),
                "end": self.end, "commit": self.commit}[name](handle)


def play(x, server, seed, informix, strict):
    _ = start(x) if informix else x.start(server)
    player, done = Player(x, seed, informix, strict), []
    for _ in range(PIECE):
        for name in player.chance.choices(CALLS, k=player.chance.randint(3, 16)):
            wrong = player.chance.random() < 0.04
            done.append((name, wrong))
            try:
                done[-1] += player.call(name, x.handle.value + wrong),
            except AssertionError as error:
                raise AssertionError(done[-12:]) from error
    _ = player.commit(x.handle), player.end(x.handle)
    player.promised.pop("ABC", None)
    assert any(x.store(BYTES) == [0, 0, 0] for _ in range(PIECE)), x.last_error()
    return player.promised | {"ABC" if informix else "obj": BYTES}


class Watchful(Server):
    """Ends a store early when the client sends a command, which saves the second's wait."""

    def _receive(self):
        parts, part = [], b"first"
        while part:
            if self.data not in select.select([self.data, self.control], [], [])[0]:
                raise Hangup
            try:
                part = self.data.recv(1 << 20)
            except OSError:  # a reset or its consequence
                return "RST"
            parts.append(part)
        self.objects[self.name] = b"".join(parts)
        return "FIN"


class Plain(unittest.TestCase):
    informix, share = False, 1

    def test_sequences(self):
        for seed in range(SEED, SEED + max(1, SEQUENCES // PIECE // self.share)):
            chance, strict = random.Random(-seed), seed % 2
            server = Watchful(*(chance.choice(FATES) for _ in range(PIECE * 16)), objects={"large": LARGE})
            if self.informix:
                Utility(self, answers(server.port, drive="/d"))
            with self.subTest(f"XBSA_SEED={seed} XBSA_SEQUENCES={PIECE * self.share}"):
                got = run(play, server, seed, self.informix, bool(strict), server=server, level=None,
                          env={"KORVA_STRICT": str(strict)})
                for name, data in got.value.items():
                    self.assertTrue(server.objects[name] == data, name)


class Informix(Plain):
    informix, share = True, 16
