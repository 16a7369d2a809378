"""The library in its host: descriptors, memory, and what a host does to its descriptors."""
import _ctypes
import contextlib
import ctypes as c
import errno
import fcntl
import itertools
import os
import shutil
import signal
import socket
import struct
import threading
import unittest

from calls import call
from server import Server
from xbsa import (LIBRARY, SANITIZED, Block, Global, Owner, TraceSink, descriptor, descriptors,
                  resident_bytes, rows, run, run_started)

CYCLES = int(os.environ.get("XBSA_CYCLES", "150" if SANITIZED else "1000"))
SETTLED = 100  # cycles until the C library has allocated what it keeps
LOG = {"XBSA_TRACE": "2", "XBSA_LOGFILE": "./xbsa.log"}


def transfer(x):
    assert x.store() == [0, 0, 0] and x.restore() == ([0, 0, 0], b"hello")


def load(_):
    """A separately loaded copy of the library, with an open session and log."""
    if not os.path.exists("copy.so"):
        shutil.copy(LIBRARY, "copy.so")
    library, handle = c.CDLL("./copy.so"), c.c_long()
    assert library.BSAInit(c.byref(handle), None, c.byref(Owner(b"INFORMIX")), None) == 0
    _ctypes.dlclose(library._handle)


def many_cycles(x, cycle):
    for number in range(CYCLES):
        cycle(x)
        if number == SETTLED:
            open_ones, resident = descriptors(), resident_bytes()
    return descriptors() == open_ones, resident_bytes() - resident


def made_descriptors(x, server, closed):
    _ = [os.close(number) for number in closed]
    x.start(server)
    x.store(end=False)
    made = [*connections(x), x.state.hLogFile]
    flags = [fcntl.fcntl(number, fcntl.F_GETFD) & fcntl.FD_CLOEXEC for number in made]
    code, low = x.BSAEndData(x.handle), [number for number in closed if number in descriptors()]
    _ = [os.dup2(made[2], number) for number in closed]
    return code, min(made) > 2, flags, low


def connections(x):
    return x.state.sSession.SData, x.state.sSession.SControl


def far_ends(x, replies=b"226 done\r\n221 bye\r\n", numbers=None):
    """Puts the near ends of the host's two socket pairs into the record; returns the far ends."""
    ends = [end for _ in range(2) for end in socket.socketpair()]
    high = [fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 100) for end in ends]
    _ = [end.close() for end in ends]
    far = [socket.socket(fileno=number) for number in high[1::2]]
    for near, number in zip(high[::2], numbers or ()):
        os.dup2(near, number)
        os.close(near)
    far[1].sendall(replies)
    x.state.sSession.SData, x.state.sSession.SControl = numbers or high[::2]
    return far


def reused_after_end(x):
    x.store(end=False)
    numbers = connections(x)
    x.BSAEndData(x.handle)
    far = far_ends(x, numbers=numbers)
    codes = [call(x, name) for name in "end commit begin end commit send".split()] + x.restore()[0]
    unread = os.read(numbers[1], 100)
    _ = [os.close(number) for number in numbers]
    return codes, [unread] + [theirs.recv(100) for theirs in far]


def reused_in_transfer(x, renew, reuse):
    x.store(end=False)
    numbers = dict(zip(connections(x), [os.open(name, os.O_CREAT | os.O_RDWR) for name in "ab"]))
    _ = [os.dup2(file, number) if reuse else os.close(number) for number, file in numbers.items()]
    codes = [x.BSAEndTxn(x.handle, 1)] + [x.init()] * renew
    codes += x.store() + x.restore()[0]
    same = [reuse and os.path.sameopenfile(number, file) for number, file in numbers.items()]
    _ = [os.close(number) for number in [*numbers] * reuse + [*numbers.values()]]
    return codes, same


def isolated_end(x):
    """An earlier object, opened twice, does not spoil one on the host's sockets."""
    x.store(end=False)
    codes = [x.BSACreateObject(x.handle, c.byref(descriptor()), None), x.BSAEndTxn(x.handle, 1)]
    _ = [os.close(number) for number in set(connections(x)) & set(descriptors())]
    codes, far = codes + [x.init()], far_ends(x)
    x.state.sSession.iLastCall |= 2
    return codes + [x.BSAEndData(x.handle)], [theirs.recv(100) for theirs in far]


def copied_record(x):
    """A host restores the initial record, or a session's, in the next session."""
    first, later, codes, heard = Global.from_buffer_copy(x.state), None, [], []
    for turn in range(3):
        c.pointer(x.state)[0] = [x.state, first, later][turn]
        x.BSAEndTxn(x.handle, 1)
        codes += [x.init(), x.BSABeginTxn(x.handle)]
        far = far_ends(x)
        far[0].sendall(b"world")
        codes += [x.send(b"hello"), *x.take(5)]
        x.state.sSession.iLastCall |= 2  # as BSACreateObject leaves it
        codes.append(x.BSAEndData(x.handle))
        heard += [theirs.recv(100) for theirs in far]
        later = later or Global.from_buffer_copy(x.state)
    c.pointer(x.state)[0] = later
    return codes + [x.BSATerminate(x.handle)], heard


# A call on the host's non-blocking socket, which accepts a part of a block or nothing ("full"), has so
# many bytes, or is interrupted. At which retry it has room again, and the status before; then the code,
# the status after and the number of retries.
OWN = rows("call kind error room_at before code after tries",
    ("BSASendData", "full", errno.EAGAIN, 2, 0, 0, 0, 2),
    ("BSASendData", "part", errno.EAGAIN, 0, 0, 3, 2, 5),
    ("BSASendData", "part", errno.EAGAIN, 0, 5, 3, 5, 5),
    ("BSASendData", "signal", errno.EINTR, 1, 0, 0, 0, 1),
    ("BSAGetData", "0", errno.EAGAIN, 0, 9, 3, 3, 0), ("BSAGetData", "5", errno.EAGAIN, 0, 0, 3, 2, 0))


def fill(ours, theirs, kind):
    ours.setblocking(False)
    if kind.isdigit():
        theirs.sendall(b"x" * int(kind))
    elif kind == "part":
        ours.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 20000)
    else:
        with contextlib.suppress(BlockingIOError):
            while True:
                ours.send(b"y" * 4096)
    ours.setblocking(kind == "signal")
    signal.setitimer(signal.ITIMER_REAL, 0.05 * (kind == "signal"), 0.05)


def own_socket(x, row):
    ours, theirs = socket.socketpair()

    def listen(text):
        x.trace.append(text.decode())
        if text.endswith(b"Resending [%d] times" % row.room_at):
            theirs.recv(1 << 24)
    signal.signal(signal.SIGALRM, lambda *_: None)
    signal.siginterrupt(signal.SIGALRM, True)
    sink, shim, room = TraceSink(listen), c.CDLL(None), c.create_string_buffer(65535)
    x.BSASetTrace(sink, None, 2)
    x.state.sSession.SData, x.state.iQAB = ours.fileno(), 1
    x.state.sObject.sSMS.iOpStatus = row.before
    fill(ours, theirs, row.kind)
    assert shim.shim_arm(b"malloc", 0, 0, 0)
    code = getattr(x, row.call)(x.handle, c.byref(block := Block(65535, 0, c.addressof(room))))
    signal.setitimer(signal.ITIMER_REAL, 0)
    return (code, x.state.sObject.sSMS.iOpStatus, shim.shim_calls(b"sleep")), block.numBytes


def options(x):
    """The library notices dead peers and routers that forget connections, a dying host resets the data
    connection, and a send has no time limit."""
    x.store(end=False)
    tcp, own = socket.IPPROTO_TCP, socket.SOL_SOCKET
    asked = [(own, socket.SO_KEEPALIVE), (own, socket.SO_LINGER, 8), (own, socket.SO_SNDTIMEO, 16),
             (tcp, socket.TCP_KEEPIDLE), (tcp, socket.TCP_KEEPINTVL), (tcp, socket.TCP_KEEPCNT)]
    data, control = (socket.socket(fileno=os.dup(number)) for number in connections(x))
    with data, control:
        found = [data.getsockopt(*each) for each in asked], [control.getsockopt(*each) for each in asked[:3]]
    return *found, x.BSAEndData(x.handle)


class Host(unittest.TestCase):
    def test_many_cycles(self):
        for cycle, most, env in (transfer, 1 << 19, {}), (load, 1 << 18, LOG):
            with self.subTest(cycle.__name__):
                same, grown = run_started(many_cycles, cycle, server=Server(), level=None, env=env).value
                self.assertTrue(same and (grown < most or SANITIZED), (same, grown))

    def test_made_descriptors(self):
        for closed, server in ((), Server()), ((0, 1, 2), Server()):
            got = run(made_descriptors, server, closed, server=server, level=None, env=LOG)
            self.assertEqual(got.value, (0, True, [1, 1, 1], []))

    def test_options(self):
        self.assertEqual(run_started(options, server=Server()).value, (
            [1, struct.pack("ii", 1, 0), bytes(16), 60, 15, 8], [1, bytes(8), bytes(16)], 0))

    def check(self, scenario, *arguments, want):
        for strict in "01":
            with self.subTest(scenario.__name__, arguments=arguments, strict=strict):
                got = run_started(scenario, *arguments, env={"KORVA_STRICT": strict},
                                  server=Server(objects={"obj": b"hello"}))
                self.assertEqual(got.value, want)

    def test_reused_numbers(self):
        self.check(reused_after_end, want=([3] + [0] * 8, [b"226 done\r\n221 bye\r\n", b"", b""]))
        for renew, reuse in itertools.product((0, 1), (False, True)):
            self.check(reused_in_transfer, renew, reuse, want=([0] * (7 + renew), [reuse] * 2))
        self.check(isolated_end, want=([5, 0, 0, 0], [b"", b"QUIT\r\n"]))

    def test_copied_record(self):
        for level, strict in itertools.product(("0", "67"), "01"):
            with self.subTest(level=level, strict=strict):
                env = LOG | {"XBSA_TRACE": level, "KORVA_STRICT": strict}
                self.assertEqual(run(copied_record, level=None, env=env).value, (
                    [0, 0, 0, 0, b"world", 0] * 3 + [0], [b"hello", b"QUIT\r\n"] * 3))


class Driven(unittest.TestCase):
    """Under the shim, where waits between two tries are counted and return at once."""
    def test_own_sockets(self):
        for strict, row in itertools.product("01", OWN):
            text = f"{os.strerror(row.error)} Data sending failed."
            with self.subTest(strict=strict, row=row):
                got = run(own_socket, row, env={"KORVA_STRICT": strict})
                self.assertEqual(got.value, (row[5:], int(row.kind) if row.kind.isdigit() else 0))
                self.assertEqual([line for line in got.trace if "sending failed" in line], [
                    *[f"BSASendData({row.error}): {text}"] * (row.tries > 0),
                    *(f"BSASendData: Data sending failed. Resending [{number + 1}] times"
                      for number in range(row.tries)), *[f"BSASendData: {text}"] * (row.tries == 5)])

    def test_lost_server(self):
        """At the end the library does not wait for a dead server, but for one that comes back."""
        def lose(x, call, system_call, on, late):
            shim, far, room = c.CDLL(None), far_ends(x, b""), c.create_string_buffer(b"hello")
            far[0].sendall(b"world")
            assert shim.shim_arm(system_call, 1, on, errno.EHOSTUNREACH)
            code = getattr(x, call)(x.handle, c.byref(Block(5, 5, c.addressof(room))))
            assert shim.shim_arm(b"malloc", 0, 0, 0)
            x.state.sSession.iLastCall |= 2
            reply = threading.Timer(late, far[1].sendall, (b"226 done\r\n221 bye\r\n" * bool(late),))
            reply.start()
            codes = code, x.BSAEndData(x.handle)
            reply.join()
            return codes
        for *row, want in (("BSAGetData", b"recv", 1, 0, 3), ("BSASendData", b"send", 1, 0, 3),
                           ("BSASendData", b"send", 0, 2.5, 0)):
            with self.subTest(row):
                self.assertEqual(run_started(lose, *row, server=Server()).value, (want, want))
